// The rewriters that work inside a tag: mailto: links to the compose
// program, data: links disarmed, outside links into a new window, meta
// refresh disabled, external images replaced by the blank picture, and
// references to parts of the same message (cid: and Content-Location)
// turned into links to the saved parts.
//
// Values are written back as they were read: the compose link carries the
// mailto: fields unchanged, and a body colour goes into the style as it is.

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "mime_html2disp_internal.h"
#include "tarnplat.h"

namespace {

constexpr size_t kLinkSize = 512;
constexpr size_t kValueSize = 256;
constexpr size_t kSrcSize = 1024;
constexpr int kDefaultImageSize = 8;
constexpr const char* kComposePath = "/cgi-bin";
constexpr const char* kSpaces = " \t\r\n";

const char* or_empty(const char* s) { return s != nullptr ? s : ""; }

bool non_empty(const char* s) { return s != nullptr && *s != '\0'; }

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};
using HeapText = std::unique_ptr<char, FreeDeleter>;

// The href value at q, read once for all the rewriters of one position.
const AttrValue& href_value(const char* q, HtmlWalk& w) {
  if (w.href_at != q) {
    w.href = attr_value_at(q, w.end, "href", w.charset, w.term, w.href_buf, sizeof w.href_buf);
    w.href_at = q;
  }
  return w.href;
}

// atoi as this system's 32-bit pages saw it: a value past the range of int
// stays at its limit.
int size_value(const char* s) {
  char* stop = nullptr;
  const long v = std::strtol(s, &stop, 10);
  if (v > INT_MAX) return INT_MAX;
  if (v < INT_MIN) return INT_MIN;
  return static_cast<int>(v);
}

// Writes the link of a saved part (at most 511 bytes).
void write_part_link(MIME_DISP* d, int ctype, const char* fileid, const char* ext, const char* filename) {
  char link[kLinkSize];
  if ((d->html2disp_flag & kH2dBlankInline) && (ctype == MIME_CT_IMAGE || ctype == MIME_CT_TIFF)) {
    MSTR_Copy(link, sizeof link, kBlankImage, 0);
  } else {
    const char* name = MSTR_HTMLEscape_s(MLG_SafeFileName_s(or_empty(filename), 0));
    if (non_empty(d->pszVar1))
      MSTR_Printf(link, sizeof link, "%s%s/%s%s.%s/%s?ximkey=%s", d->disp_base, d->cgipath, d->attFilePrefix,
                  or_empty(fileid), or_empty(ext), name, d->pszVar1);
    else
      MSTR_Printf(link, sizeof link, "%s%s/%s%s.%s/%s", d->disp_base, d->cgipath, d->attFilePrefix,
                  or_empty(fileid), or_empty(ext), name);
  }
  MMIME_Fputs(d, link);
}

// Entries of a list whose key (over its own length) begins the value.
// Entries without a key never match: an empty one would match anything.
template <typename Node, typename Key>
Node* find_entry(const char* value, Node* list, Key key) {
  for (Node* n = list; n != nullptr; n = n->next) {
    const char* k = key(n);
    if (non_empty(k) && std::strncmp(value, k, std::strlen(k)) == 0) return n;
  }
  return nullptr;
}

fileCID* find_cid(const char* id, const fileCID* list) {
  return find_entry(id, const_cast<fileCID*>(list), [](const fileCID* n) { return n->cid; });
}

fileLOC* find_loc(const char* value, const fileLOC* list) {
  return find_entry(value, const_cast<fileLOC*>(list), [](const fileLOC* n) { return n->loc; });
}

bool is_cid_url(const char* value) { return MSTR_NCaseCmp(value, "cid:", 4) == 0; }

// The field of a mailto: URL that follows `at`, up to the first of `stops`.
char* copy_field(const char* at, const char* stops) {
  const size_t n = std::strcspn(at, stops);
  char* s = static_cast<char*>(std::malloc(n + 1));
  if (s == nullptr) return nullptr;
  std::memcpy(s, at, n);
  s[n] = '\0';
  return s;
}

// Reads the src of the img tag at q (up to its '>' at gt) and tells whether
// it names a saved part; remembered by the src's position.  False with
// *found false when the tag has no src.
bool src_is_saved(const char* q, const char* gt, HtmlWalk& w, bool* found, bool list_walks) {
  const char* at = w.src.next(q);
  *found = at != nullptr && at < gt;
  if (!*found) return false;
  if (w.src_at != at) {
    char buf[kSrcSize];
    const AttrValue v = attr_value_at(at, gt, "src", w.charset, w.term, buf, sizeof buf);
    const char* s = buf[0] == '"' ? buf + 1 : buf;
    if (v.pos == nullptr)
      w.src_saved = false;
    else if (list_walks)
      w.src_saved = (is_cid_url(s) && check_CID2(s + 4, &w.disp->_fileCID)) || check_LOC2(s, &w.disp->_fileLOC);
    else
      w.src_saved = check_CID(s, w.disp) || check_LOC(s, w.disp);
    w.src_at = at;
  }
  return w.src_saved;
}

int image_size(AttrFinder& finder, const char* q, const char* gt, HtmlWalk& w) {
  char buf[kValueSize];
  const AttrValue v = find_attr_value(finder, q, gt, w.charset, w.term, buf, sizeof buf);
  return v.pos != nullptr ? size_value(buf) : kDefaultImageSize;
}

}  // namespace

char* str_mailto(char* pszMailTo, char* pszPattern, int nFlag) {
  if (pszMailTo == nullptr || pszPattern == nullptr) return nullptr;
  if (nFlag == kStrMailtoAddress) {
    const char* at = MSTR_TokPtr(pszMailTo, pszPattern, kSpaces, ":", 0, MSTR_TOK_ANCHORED);
    return at != nullptr ? copy_field(at, "?&") : nullptr;
  }
  if (nFlag == kStrMailtoLiteral) {
    const char* at = MSTR_LocStrCase(pszMailTo, pszPattern, 0);
    return at != nullptr ? copy_field(at + std::strlen(pszPattern), "&") : nullptr;
  }
  // The ampersand in front of a field may itself be written as a reference.
  static constexpr const char* kAmpersands[] = {"&", "&amp;", "&#38;", "&#x26;", "&#d38;"};
  char pattern[64];
  for (const char* amp : kAmpersands) {
    MSTR_Printf(pattern, sizeof pattern, "%s%s", amp, pszPattern);
    if (const char* at = MSTR_LocStrCase(pszMailTo, pattern, 0)) return copy_field(at + std::strlen(pattern), "&");
  }
  return nullptr;
}

char* conv_mailto(char* q, HtmlWalk& w) {
  const AttrValue& v = href_value(q, w);
  if (v.pos == nullptr || MSTR_TokPtr(w.href_buf, "mailto", kSpaces, ":", 0, MSTR_TOK_ANCHORED) == nullptr)
    return q;
  struct Field {
    const char* label;
    const char* pattern;
    int flag;
  };
  static constexpr Field kFields[] = {{"adr=", "mailto", kStrMailtoAddress},
                                      {"adrcc=", "cc=", kStrMailtoAmp},
                                      {"adrbcc=", "bcc=", kStrMailtoAmp},
                                      {"subject=", "?subject=", kStrMailtoLiteral},
                                      {"content=", "body=", kStrMailtoAmp}};
  w.flush();
  MMIME_Fprintf(w.disp, "href=\"%s%s/genMail?", w.disp->disp_base, kComposePath);
  for (const Field& f : kFields) {
    HeapText value(str_mailto(w.href_buf, const_cast<char*>(f.pattern), f.flag));
    if (value == nullptr) continue;
    w.emit(f.label);
    w.emit(value.get());
    w.emit("&");
  }
  w.emit("\" target=\"new_win\"");
  return const_cast<char*>(v.after);
}

char* conv_dataurl(char* q, HtmlWalk& w) {
  const AttrValue& v = href_value(q, w);
  if (v.pos == nullptr || MSTR_TokPtr(w.href_buf, "data", kSpaces, ":", 0, MSTR_TOK_ANCHORED) == nullptr)
    return q;
  w.flush();
  w.emit("rel=\"nofollow\"");
  return const_cast<char*>(v.after);
}

char* conv_outurl(char* q, HtmlWalk& w) {
  const char* p = q + 4;
  const char* end = w.end;
  if (p > end) return q;
  while (p < end && is_space(*p)) ++p;
  if (p < end && *p == '=') ++p;
  while (p < end && is_space(*p)) ++p;
  if (p < end && (*p == '"' || *p == '\'')) ++p;
  if (p < end && *p == '#') return q;  // a link inside the page stays in it
  w.flush();
  w.emit("target=_blank ");
  return q;
}

char* conv_meta(char* q, HtmlWalk& w) {
  const char* gt = w.gt.next(q);
  const char* limit = gt != nullptr ? gt : w.end;
  const char* at = w.http_equiv.next(q);
  if (at == nullptr || at >= limit) return q;
  if (w.equiv_at != at) {
    char buf[kValueSize];
    w.equiv = attr_value_at(at, limit, "http-equiv", w.charset, w.term, buf, sizeof buf);
    w.equiv_refresh = w.equiv.pos != nullptr && MSTR_NCaseCmp(buf, "refresh", 7) == 0;
    w.equiv_at = at;
  }
  if (!w.equiv_refresh) return q;
  w.flush();
  w.emit("meta");
  return const_cast<char*>(w.equiv.after);
}

char* block_imgtag(char* q, HtmlWalk& w) {
  const char* gt = w.gt.next(q);
  if (gt == nullptr) return q;
  bool found = false;
  if (src_is_saved(q, gt, w, &found, false) || !found) return q;
  const int width = image_size(w.width, q, gt, w);
  const int height = image_size(w.height, q, gt, w);
  w.flush();
  MMIME_Fprintf(w.disp, "img src=\"%s\" width=%d height=%d", kBlankImage, width, height);
  w.disp->is_block_image = 1;
  return const_cast<char*>(gt);
}

char* chk_imgtag(char* q, HtmlWalk& w) {
  const char* gt = w.gt.next(q);
  const char* limit = gt != nullptr ? gt : w.end;
  bool found = false;
  if (!src_is_saved(q, limit, w, &found, true) && found) w.disp->is_block_image = 1;
  return q + 3 <= w.end ? q + 3 : w.end;
}

int check_CID2(const char* id, const fileCID* list) {
  return id != nullptr && find_cid(id, list) != nullptr ? 1 : 0;
}

int check_LOC2(const char* value, const fileLOC* list) {
  return value != nullptr && find_loc(value, list) != nullptr ? 1 : 0;
}

int check_CID(const char* value, MIME_DISP* disp_info) {
  if (value == nullptr || disp_info == nullptr || !is_cid_url(value)) return 0;
  return check_CID2(value + 4, &disp_info->_fileCID);
}

int check_LOC(const char* value, MIME_DISP* disp_info) {
  if (value == nullptr || disp_info == nullptr) return 0;
  return check_LOC2(value, &disp_info->_fileLOC);
}

int convert_CID(char** ptr, MIME_DISP* disp_info) {
  if (ptr == nullptr || *ptr == nullptr || disp_info == nullptr || !is_cid_url(*ptr)) return 0;
  fileCID* e = find_cid(*ptr + 4, &disp_info->_fileCID);
  if (e == nullptr) return 0;
  write_part_link(disp_info, e->ctype, e->fileid, e->ext, e->filename);
  e->flag = 1;
  *ptr += 4 + std::strlen(e->cid);
  return 1;
}

int convert_LOC(char** ptr, MIME_DISP* disp_info) {
  if (ptr == nullptr || *ptr == nullptr || disp_info == nullptr) return 0;
  fileLOC* e = find_loc(*ptr, &disp_info->_fileLOC);
  if (e == nullptr) return 0;
  write_part_link(disp_info, e->ctype, e->fileid, e->ext, e->filename);
  e->flag = 1;
  disp_info->_MHTML_found = 1;
  *ptr += std::strlen(e->loc);
  return 1;
}

size_t uri_attr_prefix(const char* q, const char* end, bool* dquote) {
  *dquote = false;
  if (q >= end) return 0;
  const char first = static_cast<char>(*q | 0x20);
  for (const html_uri_t* u = html_uri; u->len > 0; ++u) {
    const size_t len = static_cast<size_t>(u->len);
    if (u->name[0] != first || static_cast<size_t>(end - q) < len || MSTR_NCaseCmp(q, u->name, len) != 0) continue;
    const char* p = q + len;
    while (p < end && is_space(*p)) ++p;
    if (p >= end || *p != '=') continue;
    ++p;
    while (p < end && is_space(*p)) ++p;
    if (p < end && *p == '"') {
      *dquote = true;
      ++p;
    }
    if (p < end && *p == '\'') ++p;
    while (p < end && is_space(*p)) ++p;
    return static_cast<size_t>(p - q);
  }
  return 0;
}

extern "C" TARNMAIL_API int lookaheadURI(char** q, MIME_DISP* disp_info, int* inquote) {
  if (q == nullptr || *q == nullptr || disp_info == nullptr) return 0;
  bool dquote = false;
  const size_t n = uri_attr_prefix(*q, *q + std::strlen(*q), &dquote);
  if (n == 0) return 0;
  if (dquote && inquote != nullptr) *inquote = !*inquote;
  MMIME_Fwrite(disp_info, *q, n, 1);
  *q += n;
  return 1;
}
