// Saved parts: every named part of a message is written once into the
// download directory under a name the page's links can rebuild (the
// per-message prefix, the part's file id and its extension), and the parts
// that carry a Content-ID or Content-Location are listed so that HTML
// bodies can point at the saved files.  Also the tests and the expansion of
// the attachment list of the header form.
//
// The download directory only ever receives files directly inside it: the
// prefix is reduced to characters that are safe in a file name and a URL
// when it is made, the extension is reduced likewise, and a name that would
// still leave the directory is never opened.  Files are created exclusively,
// so an existing file (or a link placed where a part would go) is never
// rewritten or followed; a second rendering of a message writes nothing.

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "mime_disp_internal.h"

namespace {

constexpr size_t kPathSize = 1024;
constexpr size_t kNameSize = 2048;
constexpr const char* kDocviewerTypes = "/quillnet/etc/docviewer_types.conf";

// open(2) flags of a saved part: write-only, create, truncate, append
// (0x641 here), and exclusive creation without following a link, so that a
// file that appeared since the existence test is never rewritten.
constexpr int kSaveFlags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_EXCL | O_NOFOLLOW;
constexpr int kSaveMode = 0700;

bool non_empty(const char* s) { return s != nullptr && *s != '\0'; }

bool has_filename(ME* me) { return me->h != nullptr && non_empty(me->h->mime.filename); }

// Safe for a file name and a URL path: letters, digits and - _ . + stay.
bool safe_name_byte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
         c == '.' || c == '+';
}

// Visits the entity, its children and its following siblings depth-first,
// in document order, until `visit` returns true.  Iterative: a multipart
// with thousands of parts must not cost thousands of stack frames.
template <typename Visit>
bool walk_preorder(ME* me, Visit&& visit) {
  std::vector<ME*> later;
  ME* cur = me;
  while (cur != nullptr || !later.empty()) {
    if (cur == nullptr) {
      cur = later.back();
      later.pop_back();
    }
    if (visit(cur)) return true;
    if (cur->next != nullptr) later.push_back(cur->next);
    cur = cur->child;
  }
  return false;
}

// ---- the file-name prefix ----

// The "msgid" request variable as it goes into file names and links:
// anything but letters, digits and - _ . + becomes "_".
std::string safe_msgid() {
  const char* msgid = MCGI_VarStrGet("msgid");
  std::string out = msgid != nullptr ? msgid : "";
  for (char& c : out)
    if (!safe_name_byte(c)) c = '_';
  return out;
}

// ---- saving one part ----

// Directory a part is saved in: the path mapping's answer when the page
// set one (and it answered), else the download directory.
const char* save_dir(MIME_DISP* d) {
  if (d->filename2path != nullptr) {
    const char* dir = d->filename2path(d->attFilePrefix, d->filedownload, 1);
    if (dir != nullptr) return dir;
  }
  return d->filedownload;
}

// The saved part's path, or "" when its name is unusable: a name holding a
// "/" or naming the directory itself, or a path too long to hold whole (a
// shortened name would not be the one the links ask for).
std::string save_path(MIME_DISP* d, ME* me) {
  char ext[32];
  mime_att_ext(me->h->mime.ctype_str, me->h->mime.filename, ext, sizeof ext);
  std::string name = std::string(d->attFilePrefix) + me->h->mime.file_id + "." + ext;
  if (name.find('/') != std::string::npos || name == "." || name == "..") return {};
  char path[kPathSize];
  int n = MSTR_Printf(path, sizeof path, "%s/%s", save_dir(d), name.c_str());
  if (n < 0 || static_cast<size_t>(n) >= sizeof path) return {};
  return path;
}

bool write_all(int fd, const char* p, size_t n) {
  while (n > 0) {
    ssize_t w = write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

// The bytes a part's file receives: a message/rfc822 part its unparsed
// text when it has one, any other part its body.  A body is never read
// past its end pointer.
std::string_view saved_bytes(ME* me) {
  const MIME_HEADER& m = me->h->mime;
  auto len = static_cast<size_t>(me->datalen);
  if (m.ctype == MIME_CT_RFC822 && m.org_text != nullptr) return {m.org_text, len};
  if (me->body_bgn == nullptr) return {};
  if (me->body_end != nullptr && me->body_end >= me->body_bgn)
    len = std::min(len, static_cast<size_t>(me->body_end - me->body_bgn));
  return {me->body_bgn, len};
}

void save_part(MIME_DISP* d, ME* me) {
  std::string path = save_path(d, me);
  if (path.empty()) return;
  struct stat st;
  if (MFS_Stat(path.c_str(), &st) == 0) return;  // saved by an earlier rendering
  int fd = MIO_Open(path.c_str(), kSaveFlags, kSaveMode);
  if (fd < 0) return;
  if (me->datalen >= 1) {
    const MIME_HEADER& m = me->h->mime;
    bool ok = true;
    if (m.ctype == MIME_CT_HTML && non_empty(m.cbase)) {
      ok = write_all(fd, "<base href=", 11) && write_all(fd, m.cbase, std::strlen(m.cbase)) && write_all(fd, ">", 1);
    }
    std::string_view bytes = saved_bytes(me);
    if (ok) write_all(fd, bytes.data(), bytes.size());
  }
  close(fd);
}

// The body's length when the decoder left none: up to its terminator,
// never past its end pointer.
void fill_datalen(ME* me) {
  if (me->datalen != 0 || me->body_bgn == nullptr) return;
  if (me->body_end != nullptr && me->body_end > me->body_bgn)
    me->datalen = static_cast<int>(strnlen(me->body_bgn, static_cast<size_t>(me->body_end - me->body_bgn)));
  else if (me->body_end == nullptr)
    me->datalen = static_cast<int>(std::strlen(me->body_bgn));
}

// ---- the Content-ID and Content-Location lists ----

// The next node of a list: the head node embedded in the context while the
// list is empty, else a new arena node linked behind the last one.
template <typename Node>
Node* next_node(MIME_DISP* d, Node* head, Node*& cursor) {
  if (cursor == nullptr) {
    *head = Node{};
    cursor = head;
    return head;
  }
  auto* node = static_cast<Node*>(mime_disp_alloc(d, sizeof(Node)));
  cursor->next = node;
  cursor = node;
  return node;
}

template <typename Node>
void fill_node(MIME_DISP* d, Node* node, char* filename, char* file_id, char* ctypestr, int ctypeint,
               char* charset_str) {
  d->nTextCharsetVal = MLG_CharsetWEncToValue(charset_str);
  char* name = mime_disp_filters(d, filename);
  node->filename = name;
  mime_att_ext(ctypestr, name, node->ext, sizeof node->ext);
  node->fileid = file_id;
  node->ctype = ctypeint;
  node->flag = 0;
  node->next = nullptr;
}

struct LocContent {
  char* fileid;
  char* filename;
  char ext[28];
  int flag;
  char* loc;
  int ctype;
};

LocContent take(const fileLOC& n) {
  LocContent c{n.fileid, n.filename, {}, n.flag, n.loc, n.ctype};
  std::memcpy(c.ext, n.ext, sizeof c.ext);
  return c;
}

void put(fileLOC& n, const LocContent& c) {
  n.fileid = c.fileid;
  n.filename = c.filename;
  std::memcpy(n.ext, c.ext, sizeof n.ext);
  n.flag = c.flag;
  n.loc = c.loc;
  n.ctype = c.ctype;
}

// Orders one run of nodes that all have a location, longest first, equal
// lengths in their old order; the nodes keep their links.
void sort_run(const std::vector<fileLOC*>& run) {
  if (run.size() < 2) return;
  std::vector<std::pair<size_t, LocContent>> items;
  items.reserve(run.size());
  for (fileLOC* n : run) items.emplace_back(std::strlen(n->loc), take(*n));
  std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  for (size_t i = 0; i < run.size(); ++i) put(*run[i], items[i].second);
}

// ---- the docviewer types file ----

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

// Whether an entry of the types file, compared without regard to case over
// the entry's length, begins `ext`.
bool docviewer_lists(std::string_view text, const char* ext) {
  while (!text.empty()) {
    size_t eol = text.find('\n');
    std::string_view line = text.substr(0, eol);
    text = eol == std::string_view::npos ? std::string_view() : text.substr(eol + 1);
    size_t i = 0;
    while (i < line.size() && is_blank(line[i])) ++i;
    line.remove_prefix(i);
    if (line.empty() || line[0] == '#') continue;
    size_t n = 0;
    while (n < line.size() && !is_space(line[n]) && line[n] != '\0') ++n;
    if (n == 0) continue;
    std::string entry(line.substr(0, n));
    if (MSTR_NCaseCmp(entry.c_str(), ext, n) == 0) return true;
  }
  return false;
}

// ---- the attachment list ----

struct AttItem {
  ME* me;
  char* name;      // display name (right-to-left overrides removed)
  char* uri_name;  // the display name URI-escaped
  char ext[32];
};

bool listed(ME* me, const MIME_DISP* d) {
  if (!has_filename(me)) return false;
  if (d->disp_flag & MIME_DISP_LIST_SHOWN_IMG) return true;
  const MIME_HEADER& m = me->h->mime;
  bool referenced = non_empty(m.contid) || non_empty(m.contLocation);
  // An inline image that a body shows through its Content-ID or location
  // is not offered a second time.
  return !(m.ctype == MIME_CT_IMAGE && referenced && !mime_is_attachment_disp(m.contdisp));
}

bool starts(const char* p, const char* end, std::string_view tag) {
  return static_cast<size_t>(end - p) >= tag.size() && std::memcmp(p, tag.data(), tag.size()) == 0;
}

// Position just past the first `tag` in [p, end), or null.
const char* past(const char* p, const char* end, std::string_view tag) {
  std::string_view hay(p, static_cast<size_t>(end - p));
  size_t at = hay.find(tag);
  return at == std::string_view::npos ? nullptr : p + at + tag.size();
}

// JavaScript-escaped copy of a text, at most 2048 bytes.
void put_js(MIME_DISP* d, const char* text) {
  char buf[kNameSize];
  MSTR_JSEscape(text != nullptr ? text : "", buf, sizeof buf);
  MMIME_Fputs(d, buf);
}

void put_text(MIME_DISP* d, const char* text) {
  if (text != nullptr) MMIME_Fputs(d, text);
}

// "$filename" and "$filename_js": the display name through text
// rendering; a UTF-7 name is shown as UTF-8 when the page converts UTF-7.
void put_filename(MIME_DISP* d, AttItem& it, bool js) {
  int saved_flag = d->text2disp_flag;
  if (js) d->text2disp_flag |= 0x4000;
  char* heap = nullptr;
  char* name = it.name;
  if (MMIME_ConvertUtf72Utf8 && MLG_CharsetWEncToValue(it.me->h->mime.charset_str) == MLG_UTF7) {
    heap = MUC_UTF72UTF8(name, 1);
    if (heap != nullptr) name = heap;
    d->nTextCharsetVal = MLG_UTF8;
  }
  text2disp(name, d);
  if (heap != nullptr && heap != it.name) std::free(heap);
  d->text2disp_flag = saved_flag;
}

bool preview_holds(const MIME_DISP* d, const char* ext) {
  return (d->disp_flag & MIME_DISP_PREVIEW) && d->preview_type[0] != '\0' && is_preview_type(ext, d->preview_type);
}

bool docviewer_holds(const MIME_DISP* d, const char* ext) {
  return (d->disp_flag & MIME_DISP_DOCVIEWER) && is_docviewer_type(ext);
}

// A conditional section: kept when `keep`, else skipped through its
// closing tag (only the opening tag goes when no closing tag follows).
const char* section(const char* after_tag, const char* end, bool keep, std::string_view closing) {
  if (keep) return after_tag;
  const char* resume = past(after_tag, end, closing);
  return resume != nullptr ? resume : after_tag;
}

// Expands the tag at `p` (a "$"); returns where the text goes on.
const char* expand_tag(MIME_DISP* d, AttItem& it, const char* p, const char* end) {
  const MIME_HEADER& m = it.me->h->mime;
  auto tag = [&](std::string_view t) { return starts(p, end, t); };

  if (tag("$ifpre")) return section(p + 6, end, preview_holds(d, it.ext), "$$ifpre");
  if (tag("$ifnpre")) return section(p + 7, end, !preview_holds(d, it.ext), "$$ifnpre");
  if (tag("$ifdocviewer")) return section(p + 12, end, docviewer_holds(d, it.ext), "$$ifdocviewer");
  if (tag("$ifndocviewer")) return section(p + 13, end, !docviewer_holds(d, it.ext), "$$ifndocviewer");
  if (tag("$ifdl")) return section(p + 5, end, d->disp_flag & MIME_DISP_IFDL, "$$ifdl");
  if (tag("$ifdc")) return section(p + 5, end, d->disp_flag & MIME_DISP_IFDC, "$$ifdc");
  if (tag("$$ifbase64")) return p + 10;
  if (tag("$ifbase64_else")) {
    // Met in the first branch: the else branch is skipped.
    return section(p + 14, end, false, "$$ifbase64");
  }
  if (tag("$ifbase64")) {
    if (m.enc_type == MIME_ENC_BASE64) return p + 9;
    const char* else_at = past(p + 9, end, "$ifbase64_else");
    const char* close_at = past(p + 9, end, "$$ifbase64");
    if (else_at != nullptr && (close_at == nullptr || else_at < close_at)) return else_at;
    return close_at != nullptr ? close_at : p + 9;
  }
  if (tag("$name_js")) {
    put_js(d, it.uri_name);
    return p + 8;
  }
  if (tag("$charset_val")) {
    MMIME_Fprintf(d, "%d", MLC_MIMEToMLGCharset(m.charset));
    return p + 12;
  }
  if (tag("$name")) {
    put_text(d, it.uri_name);
    return p + 5;
  }
  if (tag("$linkname")) {
    d->nTextCharsetVal = MLG_CharsetWEncToValue(m.charset_str);
    text2disp_filter(it.name, d, 29);
    return p + 9;
  }
  if (tag("$prefix_js")) {
    put_js(d, d->attFilePrefix);
    return p + 10;
  }
  if (tag("$prefix")) {
    put_text(d, d->attFilePrefix);
    return p + 7;
  }
  if (tag("$id_js")) {
    put_js(d, m.file_id);
    return p + 6;
  }
  if (tag("$id")) {
    put_text(d, m.file_id);
    return p + 3;
  }
  if (tag("$ext_js")) {
    put_js(d, it.ext);
    return p + 7;
  }
  if (tag("$ext")) {
    put_text(d, it.ext);
    return p + 4;
  }
  if (tag("$size")) {
    int kib = it.me->datalen > 0 ? (it.me->datalen - 1) / 1024 + 1 : 0;
    MMIME_Fprintf(d, "%d", kib);
    return p + 5;
  }
  if (tag("$filename_js")) {
    put_filename(d, it, true);
    return p + 12;
  }
  if (tag("$filename_nf")) {
    text2disp_filter(it.name, d, 0);
    return p + 12;
  }
  if (tag("$filename")) {
    put_filename(d, it, false);
    return p + 9;
  }
  const char* vars[3] = {d->pszVar1, d->pszVar2, d->pszVar3};
  static constexpr std::string_view kVarJs[3] = {"$var1_js", "$var2_js", "$var3_js"};
  static constexpr std::string_view kVar[3] = {"$var1", "$var2", "$var3"};
  for (int i = 0; i < 3; ++i) {
    if (tag(kVarJs[i])) {
      if (vars[i] != nullptr) put_js(d, vars[i]);
      return p + kVarJs[i].size();
    }
    if (tag(kVar[i])) {
      put_text(d, vars[i]);
      return p + kVar[i].size();
    }
  }
  // An unknown tag loses its "$"; what follows is copied as text.
  return p + 1;
}

void expand_item(MIME_DISP* d, AttItem& it, const char* bgn, const char* end) {
  const char* p = bgn;
  while (p < end) {
    const char* dollar = static_cast<const char*>(std::memchr(p, '$', static_cast<size_t>(end - p)));
    const char* stop = dollar != nullptr ? dollar : end;
    if (stop > p) MMIME_Fwrite(d, p, static_cast<size_t>(stop - p), 1);
    if (dollar == nullptr) return;
    p = expand_tag(d, it, dollar, end);
  }
}

AttItem make_item(MIME_DISP* d, ME* me) {
  const MIME_HEADER& m = me->h->mime;
  AttItem it{};
  it.me = me;
  const char* plain = MSTR_RLORemove_s(m.filename, MLG_CharsetWEncToValue(m.charset_str));
  size_t len = std::strlen(plain != nullptr ? plain : "");
  it.name = static_cast<char*>(mime_disp_alloc(d, len + 1));
  if (len > 0) std::memcpy(it.name, plain, len);
  mime_att_ext(m.ctype_str, it.name, it.ext, sizeof it.ext);
  size_t nz = 3 * len + 1;
  it.uri_name = static_cast<char*>(mime_disp_alloc(d, nz));
  MSTR_URIEscape(it.name, it.uri_name, nz);
  return it;
}

}  // namespace

// ---- helpers shared with the rendering walk ----

char* mime_att_ext(const char* ctype_str, const char* filename, char* pszExt, size_t nzExt) {
  if (pszExt == nullptr || nzExt == 0) return pszExt;
  MSTR_Copy(pszExt, nzExt, ct2ext(ctype_str, filename), 0);
  for (char* p = pszExt; *p != '\0'; ++p)
    if (!safe_name_byte(*p) || *p == '.') *p = '_';
  return pszExt;
}

char* mime_disp_filters(MIME_DISP* disp_info, char* text) {
  filter_func_ptr filters[5] = {disp_info->Filter1, disp_info->Filter2, disp_info->Filter3, disp_info->Filter4,
                                disp_info->Filter5};
  for (filter_func_ptr f : filters)
    if (f != nullptr) text = f(disp_info, text, 0);
  return text;
}

bool mime_is_attachment_disp(const char* contdisp) {
  return contdisp != nullptr && MSTR_NCaseCmp(contdisp, "attachment", 10) == 0;
}

// ---- saved parts ----

void init_cache_path(MIME_DISP* disp_info) {
  if (disp_info == nullptr) return;
  const char* path = disp_info->showdata != nullptr ? disp_info->showdata->me_info.msgpath : nullptr;
  if (path == nullptr) {
    // A message that is not stored anywhere gets a prefix of its own, which
    // no later rendering will ask for again.
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    MSTR_Printf(disp_info->attFilePrefix, sizeof disp_info->attFilePrefix, "%ld%d_tmp", static_cast<long>(tv.tv_usec),
                static_cast<int>(getpid()));
    return;
  }
  struct stat st;
  if (MFS_Stat(path, &st) != 0) return;
  // Stable for one stored message, new when the message file changes.
  std::string msgid = safe_msgid();
  MSTR_Printf(disp_info->attFilePrefix, sizeof disp_info->attFilePrefix, "%s%lX%lX%lX_", msgid.c_str(),
              static_cast<unsigned long>(st.st_mtime), static_cast<unsigned long>(st.st_dev),
              static_cast<unsigned long>(st.st_ino));
}

void prepare_attachment(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr) return;
  walk_preorder(me, [&](ME* e) {
    if (!has_filename(e)) return false;
    fill_datalen(e);
    save_part(disp_info, e);
    MIME_HEADER& m = e->h->mime;
    if (non_empty(m.contid)) cid2link(m.contid, m.filename, m.file_id, m.ctype_str, m.ctype, m.charset_str, disp_info);
    if (non_empty(m.contLocation))
      loc2link(m.contLocation, m.filename, m.file_id, m.ctype_str, m.ctype, m.charset_str, disp_info);
    return false;
  });
}

void cid2link(char* cid, char* filename, char* file_id, char* ctypestr, int ctypeint, char* charset_str,
              MIME_DISP* disp_info) {
  if (cid == nullptr || disp_info == nullptr) return;
  fileCID* node = next_node(disp_info, &disp_info->_fileCID, disp_info->fileCID_ptr);
  // "<id@host>" is kept as "id@host"; the header text loses its ">".
  char* value = cid;
  if (char* lt = std::strchr(cid, '<')) value = lt + 1;
  if (char* gt = std::strchr(value, '>')) *gt = '\0';
  fill_node(disp_info, node, filename, file_id, ctypestr, ctypeint, charset_str);
  node->cid = value;
}

void loc2link(char* loc, char* filename, char* file_id, char* ctypestr, int ctypeint, char* charset_str,
              MIME_DISP* disp_info) {
  if (loc == nullptr || disp_info == nullptr) return;
  fileLOC* node = next_node(disp_info, &disp_info->_fileLOC, disp_info->fileLOC_ptr);
  fill_node(disp_info, node, filename, file_id, ctypestr, ctypeint, charset_str);
  node->loc = loc;
}

void sort_loc(MIME_DISP* disp_info) {
  if (disp_info == nullptr || disp_info->fileLOC_ptr == nullptr) return;
  // Longest location first, so that the longest matching location is the
  // one found.  A node without a location stays where it is and the nodes
  // on either side of it are ordered separately.
  std::vector<fileLOC*> run;
  for (fileLOC* n = &disp_info->_fileLOC; n != nullptr; n = n->next) {
    if (n->loc != nullptr) {
      run.push_back(n);
      continue;
    }
    sort_run(run);
    run.clear();
  }
  sort_run(run);
}

int HaveShowAttachment(ME* me) {
  if (me == nullptr) return 0;
  return walk_preorder(me, [](ME* e) {
    if (!has_filename(e)) return false;
    const MIME_HEADER& m = e->h->mime;
    return m.ctype != MIME_CT_IMAGE || mime_is_attachment_disp(m.contdisp) ||
           (!non_empty(m.contid) && !non_empty(m.contLocation));
  }) ? 1 : 0;
}

int is_preview_type(const char* ext, const char* ext_list) {
  if (ext == nullptr || ext_list == nullptr) return 0;
  char lower[64];
  size_t n = 0;
  for (; ext[n] != '\0' && n < sizeof lower - 1; ++n) {
    char c = ext[n];
    lower[n] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
  }
  lower[n] = '\0';
  const char* at = std::strstr(ext_list, lower);
  if (at == nullptr || at == ext_list) return 0;
  return at[-1] == '%' && at[n] == '%' ? 1 : 0;
}

int is_docviewer_type(const char* ext) {
  if (!non_empty(ext)) return 0;
  char path[kPathSize];
  MSYS_RootPath(kDocviewerTypes, path, sizeof path);
  size_t size = 0;
  char* text = nullptr;
  if (MSHM_FileRead(path, &size, &text, 0) != 0 || text == nullptr) return 0;
  bool found = docviewer_lists(std::string_view(text, size), ext);
  MSHM_FileFree(text, size);
  return found ? 1 : 0;
}

void disp_attachment(ME* me, char* bgn, char* end, MIME_DISP* disp_info) {
  if (me == nullptr || bgn == nullptr || end == nullptr || end < bgn || disp_info == nullptr) return;
  walk_preorder(me, [&](ME* e) {
    if (!listed(e, disp_info)) return false;
    AttItem it = make_item(disp_info, e);
    expand_item(disp_info, it, bgn, end);
    return false;
  });
}
