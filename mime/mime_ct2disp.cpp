// The rendering walk: turns a decoded entity tree into one HTML page.
//
// Entities are visited depth-first in document order.  Each message gets
// its header block, each body is shown or hidden by its disposition and
// size, text goes to plain-text rendering, HTML to the HTML rewriter,
// images and other media are embedded by link to their saved files, one
// alternative of a multipart/alternative is chosen, and vCard and viewer
// forms are filled.  The view family is a quiet walk over the same tree: it
// registers the parts an HTML body may reference and lets the rewriter look
// at the HTML bodies, writing nothing.
//
// The walk changes the tree: a NUL is written for a while at the end of a
// body that has none, the alternative it did not choose stays marked as
// skipped, and a UTF-7 body converted for display loses its body pointers.
// A tree is rendered once.
//
// A chain of siblings is walked in a loop rather than by recursion, so a
// multipart with thousands of parts costs one stack frame; only nesting
// (children) recurses, and the decoder bounds that.

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mime_disp_internal.h"

namespace {

constexpr size_t kFormPathSize = 1024;
constexpr int kSkipMark = 1;

bool has(const MIME_DISP* d, int bit) { return (d->disp_flag & bit) != 0; }

bool non_empty(const char* s) { return s != nullptr && *s != '\0'; }

bool has_filename(const ME* me) { return me->h != nullptr && non_empty(me->h->mime.filename); }

int text_charset(const ME* me) { return MLG_CharsetWEncToValue(me->h->mime.charset_str); }

// ---- message headers ----

// The header block of a message entity: show_m_header expands the header
// form (with_form), show_m_noheader goes without it.  Both first save the
// message's parts (prepare_attachment) and order the location list
// (sort_loc), so that the body's references find them.
void render_message_header(ME* me, MIME_DISP* d, bool with_form) {
  if (with_form)
    show_m_header(me, d);
  else
    show_m_noheader(me, d);
}

// ---- bodies ----

// A NUL written at the end of a body that lacks one, and the byte it
// replaced.  Only a body whose last byte is not NUL gets one: a body the
// decoder copied ends in its own terminator, and its end pointer lies
// behind it, where nothing may be read.
struct BodyMark {
  char* at = nullptr;
  char saved = '\0';
};

BodyMark terminate_body(ME* me) {
  char* end = me->body_end;
  if (end == nullptr || me->body_bgn == nullptr || end <= me->body_bgn) return {};
  if (end[-1] == '\0' || *end == '\0') return {};
  BodyMark mark{end, *end};
  *end = '\0';
  return mark;
}

void restore(std::vector<BodyMark>& marks) {
  for (auto it = marks.rbegin(); it != marks.rend(); ++it)
    if (it->at != nullptr) *it->at = it->saved;
}

// Whether the body is shown.  The view walk hides every large attachment,
// messages included, and does not know the text-attachment switch.
bool body_visible(const ME* me, const MIME_DISP* d, bool view) {
  if (me->datalen <= 0) return false;
  const MIME_HEADER& m = me->h->mime;
  const bool message = m.ctype == MIME_CT_RFC822;
  if (mime_is_attachment_disp(m.contdisp)) {
    if (me->datalen > d->txt_show_size && (view || !message || has(d, MIME_DISP_RFC822_INLINE))) return false;
    if (has(d, MIME_DISP_NO_INLINE_ATT) && !message) return false;
    if (!view && has(d, MIME_DISP_NO_INLINE_TEXT_ATT) && m.ctype == MIME_CT_TEXT) return false;
  }
  if (has(d, MIME_DISP_RFC822_INLINE) && message &&
      (m.contdisp == nullptr || MSTR_NCaseCmp(m.contdisp, "inline", 6) != 0))
    return false;
  return true;
}

// ---- inline media ----

std::string copy_of(const char* s) { return s != nullptr ? s : ""; }

// Directory part of an embedded object's web path.
const char* web_dir(MIME_DISP* d) {
  if (d->filename2path != nullptr) {
    const char* dir = d->filename2path(d->attFilePrefix, d->webrelatepath, 1);
    if (dir != nullptr) return dir;
  }
  return d->webrelatepath;
}

void show_image(ME* me, MIME_DISP* d) {
  const MIME_HEADER& m = me->h->mime;
  char ext[32];
  mime_att_ext(m.ctype_str, m.filename, ext, sizeof ext);
  // The escapers answer in buffers of their own: each result is copied
  // before the next call.
  std::string safe = copy_of(MLG_SafeFileName_s(m.filename, 0));
  std::string path_name = copy_of(MSTR_HTMLEscape_s(safe.c_str()));
  std::string alt = copy_of(MSTR_HTMLEscape_s(m.filename));
  const bool key = non_empty(d->pszVar1);
  const char* base = d->disp_base;
  const char* cgi = d->cgipath;
  const char* prefix = d->attFilePrefix;
  if (d->downfile_arg[0] != '\0') {
    if (key)
      MMIME_Fprintf(d, "\n<BR><center><img src=\"%s%s/%s/%s%s.%s/%s?ximkey=%s\" alt=\"%s\"></center><BR>\n", base, cgi,
                    d->downfile_arg, prefix, m.file_id, ext, path_name.c_str(), d->pszVar1, alt.c_str());
    else
      MMIME_Fprintf(d, "\n<BR><center><img src=\"%s%s/%s/%s%s.%s/%s\" alt=\"%s\"></center><BR>\n", base, cgi,
                    d->downfile_arg, prefix, m.file_id, ext, path_name.c_str(), alt.c_str());
  } else {
    if (key)
      MMIME_Fprintf(d, "\n<BR><center><img src=\"%s%s/%s%s.%s/%s?ximkey=%s\" alt=\"%s\"></center><BR>\n", base, cgi,
                    prefix, m.file_id, ext, path_name.c_str(), d->pszVar1, alt.c_str());
    else
      MMIME_Fprintf(d, "\n<BR><center><img src=\"%s%s/%s%s.%s/%s\" alt=\"%s\"></center><BR>\n", base, cgi, prefix,
                    m.file_id, ext, path_name.c_str(), alt.c_str());
  }
}

void show_embed(ME* me, MIME_DISP* d, bool full_size) {
  const MIME_HEADER& m = me->h->mime;
  char ext[32];
  mime_att_ext(m.ctype_str, m.filename, ext, sizeof ext);
  MMIME_Fputs(d, "<hr>");
  if (full_size)
    MMIME_Fprintf(d, "<EMBED WIDTH=\"100%%\" HEIGHT=\"100%%\" SRC=\"/%s/%s%s.%s\"></EMBED>", web_dir(d),
                  d->attFilePrefix, m.file_id, ext);
  else
    MMIME_Fprintf(d, "<EMBED SRC=\"/%s/%s%s.%s\"></EMBED>", web_dir(d), d->attFilePrefix, m.file_id, ext);
}

// Embeds a named media part by link, unless an HTML body already shows it.
void show_media(ME* me, MIME_DISP* d) {
  if (has(d, MIME_DISP_NO_INLINE_ATT) || !has_filename(me)) return;
  const MIME_HEADER& m = me->h->mime;
  const int img = d->disp_image_flag;
  const bool wanted = (m.ctype == MIME_CT_IMAGE && (img & MIME_DISP_IMG_IMAGE)) ||
                      (m.ctype == MIME_CT_TIFF && (img & MIME_DISP_IMG_IMAGE)) ||
                      (m.ctype == MIME_CT_VIDEO && (img & MIME_DISP_IMG_VIDEO)) ||
                      (m.ctype == MIME_CT_AUDIO && (img & MIME_DISP_IMG_AUDIO)) ||
                      (m.ctype == MIME_CT_FLASH && (img & MIME_DISP_IMG_FLASH));
  if (!wanted || showed_contentdisp(m.contid, m.contLocation, d)) return;
  if (m.ctype == MIME_CT_IMAGE)
    show_image(me, d);
  else
    show_embed(me, d, m.ctype == MIME_CT_TIFF);
}

// ---- text and HTML ----

void show_plain(ME* me, MIME_DISP* d) {
  if (d->disp_func != nullptr) {
    d->disp_func(me->body_bgn);
    return;
  }
  if (me->body_bgn != nullptr && me->body_end != nullptr && me->body_bgn < me->body_end) text2disp(me->body_bgn, d);
  if (d->text2disp_flag & 0x20) MMIME_Fputs(d, "<br>\n");
}

// Charset code of the tag remover for a MIME charset value.
int tag_remove_code(int mime_charset) {
  switch (mime_charset) {
    case MIME_CS_ISO2022JP:
    case MIME_CS_EUCJP:
      return 4;
    case MIME_CS_UTF8:
      return 1;
    case MIME_CS_ISO8859_1:
    case MIME_CS_ISO8859_2:
    case MIME_CS_ISO8859_3:
    case MIME_CS_ISO8859_4:
      return mime_charset;
    default:
      return 2;
  }
}

// The HTML text with its tags removed, in an arena buffer.
char* strip_tags(MIME_DISP* d, const char* text, size_t len, int code) {
  auto* out = static_cast<char*>(mime_disp_alloc(d, len + 1));
  int out_len = 0;
  MSTR_HtmlTagRemove(text, static_cast<int>(len), out, &out_len, code);
  return out;
}

// Text mode: the HTML body reduced to plain text.  A UTF-7 body that the
// page does not convert is reduced as UTF-8 and turned back into UTF-7
// (`heap` then owns the result); one that cannot be read as UTF-7 is shown
// as it stands.
char* reduce_html(ME* me, MIME_DISP* d, char** heap) {
  const MIME_HEADER& m = me->h->mime;
  char* text = me->body_bgn;
  if (m.charset == MIME_CS_UTF7 && !has(d, MIME_DISP_UTF7)) {
    char* utf8 = MUC_UTF72UTF8(text, 1);
    if (utf8 == nullptr) return text;
    char* plain = strip_tags(d, utf8, std::strlen(utf8), 1);
    if (utf8 != text) std::free(utf8);
    char* utf7 = MUC_UTF82UTF7(plain);
    if (utf7 == nullptr) return plain;
    *heap = utf7;
    return utf7;
  }
  size_t len = me->datalen > 0 ? strnlen(text, static_cast<size_t>(me->datalen)) : 0;
  return strip_tags(d, text, len, tag_remove_code(m.charset));
}

void show_html(ME* me, MIME_DISP* d) {
  if (me->body_bgn == nullptr) return;
  char* heap = nullptr;
  char* text = has(d, MIME_DISP_TEXT_MODE) ? reduce_html(me, d, &heap) : me->body_bgn;
  if (d->disp_func != nullptr)
    d->disp_func(text);
  else if (has(d, MIME_DISP_TEXT_MODE))
    text2disp(text, d);
  else
    html2disp(text, me->h->mime.cbase, d);
  std::free(heap);
}

void show_content(ME* me, MIME_DISP* d) {
  const int ctype = me->h->mime.ctype;
  d->nTextCharsetVal = text_charset(me);
  if (me->child != nullptr) parse_child(me, d);
  // A UTF-7 text shown on a page that converts UTF-7: the converted copy
  // lives for this rendering only and the entity loses its body.
  char* converted = nullptr;
  if (MMIME_ConvertUtf72Utf8 && d->nTextCharsetVal == MLG_UTF7 && (ctype == MIME_CT_TEXT || ctype == MIME_CT_HTML) &&
      me->body_bgn != nullptr) {
    char* utf8 = MUC_UTF72UTF8(me->body_bgn, 1);
    if (utf8 != nullptr && utf8 != me->body_bgn) {
      converted = utf8;
      me->body_bgn = utf8;
      me->body_end = utf8 + std::strlen(utf8) + 1;
      d->nTextCharsetVal = MLG_UTF8;
    }
  }
  if (ctype == MIME_CT_TEXT) show_plain(me, d);
  if (ctype == MIME_CT_HTML) show_html(me, d);
  if (converted != nullptr) {
    std::free(converted);
    me->body_bgn = nullptr;
    me->body_end = nullptr;
  }
}

// ---- vCard and viewer forms ----

// A writable copy of a form file in the arena, or null when the file is
// missing or empty.
char* read_form(MIME_DISP* d, const char* path) {
  size_t size = 0;
  char* content = nullptr;
  if (MSHM_FileRead(path, &size, &content, 0) != 0 || content == nullptr) return nullptr;
  char* copy = nullptr;
  if (size > 0) {
    copy = static_cast<char*>(mime_disp_alloc(d, size + 1));
    std::memcpy(copy, content, size);
  }
  MSHM_FileFree(content, size);
  return copy;
}

char* filter_form(MIME_DISP* d, char* form) {
  if (d->fpFormFilter == nullptr) return form;
  d->nTextCharsetVal = d->nFormCharsetVal;
  return d->fpFormFilter(d, form, 0);
}

// The body as the filters see it: a writable empty text for a body that is
// gone.
char* filtered_body(ME* me, MIME_DISP* d) {
  char* body = me->body_bgn;
  if (body == nullptr) body = static_cast<char*>(mime_disp_alloc(d, 1));
  return mime_disp_filters(d, body);
}

// False when the form cannot be read: the walk of this chain ends here.
bool show_vcard_form(ME* me, MIME_DISP* d) {
  char path[kFormPathSize];
  mime_disp_form_path(d, d->vcard_form, path, sizeof path);
  char* form = read_form(d, path);
  if (form == nullptr) {
    MMIME_Fputs(d, "vcard internal form read error!!!\n");
    return false;
  }
  form = filter_form(d, form);
  d->nTextCharsetVal = text_charset(me);
  disp_vcard(filtered_body(me, d), form, d);
  return true;
}

attShow* find_viewer(MIME_DISP* d, const char* ctype_str) {
  if (ctype_str == nullptr) return nullptr;
  for (attShow* v = d->pstAttShowList; v != nullptr; v = v->next)
    if (v->ctype[0] != '\0' && MSTR_NCaseCmp(v->ctype, ctype_str, std::strlen(v->ctype)) == 0) return v;
  return nullptr;
}

bool fill_viewer(ME* me, attShow* viewer, MIME_DISP* d) {
  char path[kFormPathSize];
  mime_disp_form_path(d, viewer->form, path, sizeof path);
  char* form = read_form(d, path);
  if (form == nullptr) {
    MMIME_Fprintf(d, "attshow internal form read error!!!(%s)\n", path);
    return false;
  }
  form = filter_form(d, form);
  d->nTextCharsetVal = text_charset(me);
  if (d->nTextCharsetVal == 0) d->nTextCharsetVal = viewer->nDefCset;
  char* body = filtered_body(me, d);
  // The viewer writes its own output; what it returns is not used.
  if (viewer->showfunc != nullptr) viewer->showfunc(body, form, MLG_CharsetToWEncName(d->nDispCharsetVal));
  return true;
}

// ---- the walks ----

// Everything of one entity's body after its end was terminated.  False
// when a form could not be read.
bool render_body(ME* me, MIME_DISP* d) {
  const MIME_HEADER& m = me->h->mime;
  show_media(me, d);
  d->_show = 1;
  if (body_visible(me, d, false)) show_content(me, d);
  if (m.ctype == MIME_CT_VCARD && d->vcard_form[0] != '\0' && !show_vcard_form(me, d)) return false;
  if (attShow* viewer = find_viewer(d, m.ctype_str))
    if (!fill_viewer(me, viewer, d)) return false;
  return true;
}

// Renders a chain of siblings from `first`: for each, its message header
// and its body, children included.  `body_first` starts with the body of
// `first` (show_m_body).  The chain ends at an entity without a header
// block or with the skip mark, after a headers-only entity, and at a form
// that cannot be read; the terminators written on the way are taken back,
// latest first, except that of an entity whose form failed.
void render_chain(ME* first, MIME_DISP* d, bool body_first) {
  std::vector<BodyMark> marks;
  bool body_only = body_first;
  for (ME* e = first; e != nullptr; e = e->next) {
    if (e->h == nullptr || (!body_only && (e->me_flag & kSkipMark))) break;
    if (!body_only) {
      if (e->h->rfc822 != nullptr) {
        if (!has(d, MIME_DISP_NO_FORM_HEADER))
          render_message_header(e, d, true);
        else if (has(d, MIME_DISP_PLAIN_HEADER))
          render_message_header(e, d, false);
        d->is_first_header = 0;
      }
      if (has(d, MIME_DISP_NO_BODY)) break;
    }
    body_only = false;
    BodyMark mark = terminate_body(e);
    if (!render_body(e, d)) break;
    marks.push_back(mark);
  }
  restore(marks);
}

void view_body(ME* me, MIME_DISP* d) {
  if (!body_visible(me, d, true)) return;
  d->nTextCharsetVal = text_charset(me);
  if (me->child != nullptr) view_child(me, d);
  if (me->h->mime.ctype == MIME_CT_HTML) view_html_entity(me->body_bgn, me->h->mime.cbase, d);
}

void view_chain(ME* first, MIME_DISP* d, bool body_first) {
  std::vector<BodyMark> marks;
  bool body_only = body_first;
  for (ME* e = first; e != nullptr; e = e->next) {
    if (e->h == nullptr || (!body_only && (e->me_flag & kSkipMark))) break;
    if (!body_only) {
      if (e->h->rfc822 != nullptr) view_m_noheader(e, d);
      if (has(d, MIME_DISP_NO_BODY)) break;
    }
    body_only = false;
    marks.push_back(terminate_body(e));
    view_body(e, d);
  }
  restore(marks);
}

bool is_class(const ME* me, int ctype) { return me->h != nullptr && me->h->mime.ctype == ctype; }

// The alternative to show: HTML (or a nested multipart) when preferred,
// else plain text when preferred, else an image, else another text.
ME* choose_alternative(ME* first, int alt_flag) {
  auto find = [first](auto&& pred) -> ME* {
    for (ME* e = first; e != nullptr; e = e->next)
      if (e->h != nullptr && pred(e->h->mime)) return e;
    return nullptr;
  };
  ME* chosen = nullptr;
  if (alt_flag & MIME_DISP_ALT_HTML)
    chosen = find([](const MIME_HEADER& m) {
      return m.ctype == MIME_CT_HTML || (m.ctype_str != nullptr && MSTR_NCaseCmp(m.ctype_str, "multipart", 9) == 0);
    });
  if (chosen == nullptr && (alt_flag & MIME_DISP_ALT_PLAIN))
    chosen = find([](const MIME_HEADER& m) { return m.ctype == MIME_CT_TEXT; });
  if (chosen == nullptr)
    chosen = find([](const MIME_HEADER& m) { return m.ctype == MIME_CT_TIFF || m.ctype == MIME_CT_IMAGE; });
  if (chosen == nullptr) chosen = find([](const MIME_HEADER& m) { return m.ctype == MIME_CT_OTHER; });
  return chosen;
}

// Shows one alternative: the chosen one, whose following siblings are
// marked as skipped (the mark stays), or, when none qualifies, the first
// one alone, its chain cut for the call.
void show_alternative(ME* first, MIME_DISP* d, void (*walk)(ME*, MIME_DISP*)) {
  if (first == nullptr) return;
  ME* chosen = choose_alternative(first, d->disp_alt_flag);
  if (chosen == nullptr) {
    ME* rest = first->next;
    first->next = nullptr;
    walk(first, d);
    first->next = rest;
    return;
  }
  if (chosen->next != nullptr) chosen->next->me_flag |= kSkipMark;
  walk(chosen, d);
}

}  // namespace

void disp_mime(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr) return;
  render_chain(me, disp_info, false);
}

void show_m_body(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr) return;
  render_chain(me, disp_info, true);
}

void parse_child(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr || me->child == nullptr) return;
  if (is_class(me, MIME_CT_ALTERNATIVE))
    disp_alt_mail(me->child, disp_info);
  else
    disp_mime(me->child, disp_info);
}

void disp_alt_mail(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr) return;
  if (disp_info->disp_alt_flag & MIME_DISP_ALT_OTHERS) {
    for (ME* e = me; e != nullptr; e = e->next) {
      if (e->h == nullptr) continue;
      int c = e->h->mime.ctype;
      if (c != MIME_CT_TEXT && c != MIME_CT_HTML && c != MIME_CT_IMAGE && c != MIME_CT_TIFF) disp_alt_others(e, disp_info);
    }
  }
  show_alternative(me, disp_info, disp_mime);
}

void disp_alt_others(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr || me->h == nullptr) return;
  if (attShow* viewer = find_viewer(disp_info, me->h->mime.ctype_str)) fill_viewer(me, viewer, disp_info);
}

// The lookups leave the list cursors alone: they mark where the next saved
// part is appended.  A node with an empty value names nothing.
int showed_CID(const char* cid, MIME_DISP* disp_info) {
  if (cid == nullptr || disp_info == nullptr) return 0;
  // The header text keeps its opening "<".
  const char* key = cid[0] != '\0' ? cid + 1 : cid;
  for (const fileCID* n = &disp_info->_fileCID; n != nullptr && n->cid != nullptr; n = n->next) {
    size_t len = std::strlen(n->cid);
    if (len == 0 || std::strncmp(n->cid, key, len) != 0) continue;
    if ((disp_info->html2disp_flag & 0x1000) && (n->ctype == MIME_CT_IMAGE || n->ctype == MIME_CT_TIFF)) return 1;
    return n->flag;
  }
  return 0;
}

int showed_LOC(const char* loc, MIME_DISP* disp_info) {
  if (loc == nullptr || disp_info == nullptr) return 0;
  for (const fileLOC* n = &disp_info->_fileLOC; n != nullptr && n->loc != nullptr; n = n->next) {
    size_t len = std::strlen(n->loc);
    if (len == 0 || std::strncmp(n->loc, loc, len) != 0) continue;
    if ((disp_info->html2disp_flag & 0x1000) && (n->ctype == MIME_CT_IMAGE || n->ctype == MIME_CT_TIFF)) return 1;
    return n->flag;
  }
  return 0;
}

int showed_contentdisp(const char* cid, const char* loc, MIME_DISP* disp_info) {
  if (showed_CID(cid, disp_info) != 0) return 1;
  return showed_LOC(loc, disp_info) != 0 ? 1 : 0;
}

// ---- the view family ----

void prepare_view(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr) return;
  std::vector<ME*> later;
  for (ME* e = me; e != nullptr || !later.empty();) {
    if (e == nullptr) {
      e = later.back();
      later.pop_back();
    }
    if (has_filename(e)) {
      MIME_HEADER& m = e->h->mime;
      if (non_empty(m.contid))
        cid2link(m.contid, m.filename, m.file_id, m.ctype_str, m.ctype, m.charset_str, disp_info);
      if (non_empty(m.contLocation))
        loc2link(m.contLocation, m.filename, m.file_id, m.ctype_str, m.ctype, m.charset_str, disp_info);
    }
    if (e->next != nullptr) later.push_back(e->next);
    e = e->child;
  }
}

void view_m_noheader(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr) return;
  prepare_view(me, disp_info);
  sort_loc(disp_info);
  if (me->h != nullptr) disp_info->nTextCharsetVal = text_charset(me);
}

void view_mime(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr) return;
  view_chain(me, disp_info, false);
}

void view_m_body(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr) return;
  view_chain(me, disp_info, true);
}

void view_child(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr || me->child == nullptr) return;
  if (is_class(me, MIME_CT_ALTERNATIVE))
    view_alt_mail(me->child, disp_info);
  else
    view_mime(me->child, disp_info);
}

void view_alt_mail(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr) return;
  show_alternative(me, disp_info, view_mime);
}

// ---- running a rendering ----

namespace {

// The UTF-7 switch: a page that converts UTF-7 shows a message holding a
// UTF-7 part as UTF-8 throughout.
bool set_up_run(MIME_DISP* d) {
  MMIME_ConvertUtf72Utf8 = 0;
  if (d == nullptr || d->showdata == nullptr) return false;
  if (has(d, MIME_DISP_UTF7) && mime_has_charset(&d->showdata->me_node, MIME_CS_UTF7)) {
    MMIME_ConvertUtf72Utf8 = 1;
    d->showdata->me_info.result_cset = MIME_CS_UTF8;
  }
  return true;
}

}  // namespace

extern "C" {

int mime_disp_run(MIME_DISP* disp_info) {
  if (!set_up_run(disp_info)) return -2;
  try {
    disp_mime(&disp_info->showdata->me_node, disp_info);
  } catch (...) {
    return -1;  // out of memory in the walk's bookkeeping
  }
  return 0;
}

int mime_view_run(MIME_DISP* disp_info) {
  if (!set_up_run(disp_info)) return -2;
  try {
    view_mime(&disp_info->showdata->me_node, disp_info);
  } catch (...) {
    return -1;
  }
  return 0;
}

}  // extern "C"
