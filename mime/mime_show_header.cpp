// Message header blocks: the header form of a page is read and expanded
// once for every message shown (the root and each embedded message).
//
// A form is plain text with "$" tags.  Value tags write a field or a page
// variable; section tags keep or drop the stretch up to their closing tag
// ("$$" and the same name), some with an "_else" tag that splits it in two
// branches; loop tags ("$_from", "$_to", "$_cc", "$_bcc", "$_attachment")
// take the text up to the next "$$loop" as a template that is expanded once
// per address or per attachment.  Tags are compared case-sensitively in the
// order of the tables below, so a longer tag is tried before a shorter one
// it begins with.  A "$" that starts no tag is written as it stands in the
// form, and dropped inside an address template.
//
// Every search for a closing tag or a loop end is bounded by the end of
// the form: a section whose closing tag is missing runs to the end of the
// form, and so does a loop template without "$$loop".  Each scan moves
// forward only, so a form is expanded in time linear in its length (times
// the number of addresses or attachments for the loop templates).

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "mime_disp_internal.h"

namespace {

constexpr size_t kFormPathSize = 1024;
constexpr size_t kEncBackSize = 4096;
constexpr size_t kAddrSize = 1024;   // one address, and the parts MLG_FromParse gives
constexpr size_t kIdAddrSize = 2048; // "nick <addr>"
constexpr size_t kEscSize = 2048;    // URI-escaped nickname and address
constexpr size_t kDateSize = 256;
constexpr size_t kZoneSize = 128;
constexpr const char* kDateFormat = "%a, %d %b %Y %H:%M:%S";
constexpr std::string_view kLoopEnd = "$$loop";

// text2disp_flag bits the header leaves out: line breaks, the reply sign
// and coloured quote lines belong to bodies, not to header fields.
constexpr int kHeaderT2DMask = 0x200c;
constexpr int kT2DJs = 0x4000;

// ---- the text being expanded ----

// A stretch of form text: [p, end).
struct Span {
  const char* p;
  const char* end;

  size_t size() const { return static_cast<size_t>(end - p); }
  bool starts(std::string_view tag) const {
    return size() >= tag.size() && std::memcmp(p, tag.data(), tag.size()) == 0;
  }
  // The first occurrence of `tag` from p on, or null.
  const char* find(std::string_view tag) const {
    std::string_view hay(p, size());
    size_t at = hay.find(tag);
    return at == std::string_view::npos ? nullptr : p + at;
  }
  // Just past the first `tag` from p on; the end when there is none.
  const char* past(std::string_view tag) const {
    const char* at = find(tag);
    return at != nullptr ? at + tag.size() : end;
  }
};

// Copies the text of [p, end) up to the next "$" to the output; returns
// the "$", or the end.
const char* copy_text(MIME_DISP* d, const char* p, const char* end) {
  const auto* dollar = static_cast<const char*>(std::memchr(p, '$', static_cast<size_t>(end - p)));
  const char* stop = dollar != nullptr ? dollar : end;
  if (stop > p) MMIME_Fwrite(d, p, static_cast<size_t>(stop - p), 1);
  return stop;
}

// A conditional section met at its opening tag (`after` is just past the
// tag): the first branch when `keep`; otherwise the branch after the else
// tag when one stands before the closing tag, else past the closing tag.
// The else tag is looked for only before the closing tag, so that no
// byte is searched twice.
const char* open_section(Span after, bool keep, std::string_view else_tag, std::string_view close_tag,
                         size_t else_resume) {
  if (keep) return after.p;
  const char* close_at = after.find(close_tag);
  const Span first_branch{after.p, close_at != nullptr ? close_at : after.end};
  if (!else_tag.empty())
    if (const char* else_at = first_branch.find(else_tag)) return else_at + else_resume;
  return close_at != nullptr ? close_at + close_tag.size() : after.end;
}

const char* open_section(Span after, bool keep, std::string_view else_tag, std::string_view close_tag) {
  return open_section(after, keep, else_tag, close_tag, else_tag.size());
}

// Writes text through plain-text rendering, with the JavaScript-string
// bit added for the call when `js`.  The text is not changed.
void render_text(MIME_DISP* d, char* text, bool js = false) {
  if (text == nullptr || *text == '\0') return;
  const int saved = d->text2disp_flag;
  if (js) d->text2disp_flag |= kT2DJs;
  text2disp(text, d);
  d->text2disp_flag = saved;
}

void put(MIME_DISP* d, const char* text) {
  if (text != nullptr && *text != '\0') MMIME_Fputs(d, text);
}

// A fixed-size text field of the context, which need not hold a terminator.
template <size_t N>
void put_field(MIME_DISP* d, const char (&field)[N]) {
  const size_t len = strnlen(field, N);
  if (len > 0) MMIME_Fwrite(d, field, len, 1);
}

// ---- per-address expansion ----

struct Address {
  char email[kAddrSize];
  char nick[kAddrSize];
  char id_addr[kIdAddrSize];
  char enc_id[kEscSize];
  char enc_addr[kEscSize];
};

// Splits one address and fills in the texts its template shows.  False
// when there is nothing to show (an empty address).
bool fill_address(const char* text, int charset, Address& a) {
  if (MLG_FromParse(text, a.email, sizeof a.email, a.nick, sizeof a.nick, charset) != 0) return false;
  if (a.nick[0] == '\0') {
    MSTR_Copy(a.id_addr, sizeof a.id_addr, a.email, 0);
    MEML_IDGet(a.email, a.nick, sizeof a.nick);
  } else {
    MSTR_Printf(a.id_addr, sizeof a.id_addr, "%s <%s>", a.nick, a.email);
  }
  MSTR_URIEscape(a.nick, a.enc_id, sizeof a.enc_id);
  MSTR_URIEscape(a.email, a.enc_addr, sizeof a.enc_addr);
  return true;
}

// One tag of an address template: returns where the scan goes on.
const char* address_tag(MIME_DISP* d, Address& a, bool first, Span at) {
  constexpr std::string_view kNot1 = "$ifnot1\n", kNot1End = "$$ifnot1\n";
  constexpr std::string_view kIf1 = "$if1\n", kIf1End = "$$if1\n";
  auto after = [&](std::string_view tag) { return at.p + tag.size(); };

  if (at.starts("$Enc_id")) {
    put(d, a.enc_id);
    return after("$Enc_id");
  }
  if (at.starts("$Enc_addr")) {
    put(d, a.enc_addr);
    return after("$Enc_addr");
  }
  if (at.starts("$ID_ADDR_Enc_js")) {
    render_text(d, a.id_addr, true);
    return after("$ID_ADDR_Enc_js");
  }
  if (at.starts("$ID_ADDR_Enc")) {
    render_text(d, a.id_addr);
    return after("$ID_ADDR_Enc");
  }
  if (at.starts("$addr")) {
    render_text(d, a.email);
    return after("$addr");
  }
  if (at.starts("$id_js")) {
    render_text(d, a.nick, true);
    return after("$id_js");
  }
  if (at.starts("$id")) {
    render_text(d, a.nick);
    return after("$id");
  }
  // A kept section's closing tag loses its first "$" below and is then
  // read as the opening tag again, whose condition still holds.
  if (at.starts(kNot1)) return open_section({after(kNot1), at.end}, !first, {}, kNot1End);
  if (at.starts(kIf1)) return open_section({after(kIf1), at.end}, first, {}, kIf1End);
  if (at.starts("$hsrv")) {
    put(d, d->homesrv_url);
    return after("$hsrv");
  }
  return at.p + 1;  // any other "$" is dropped
}

void expand_address(MIME_DISP* d, Address& a, bool first, const char* bgn, const char* end) {
  for (const char* p = bgn; p < end;) {
    p = copy_text(d, p, end);
    if (p < end) p = address_tag(d, a, first, {p, end});
  }
}

bool is_lead_space(char c) { return c == ' ' || c == '\t' || c == '\n'; }

// Expands the template for one address text [p, stop); false when the
// address is too long, which ends the list.
bool show_one(const char* p, const char* stop, bool& first, MIME_DISP* d, int charset, const char* bgn,
              const char* end) {
  while (p < stop && is_lead_space(*p)) ++p;
  const size_t len = static_cast<size_t>(stop - p);
  if (len >= kAddrSize) return false;
  char text[kAddrSize];
  std::memcpy(text, p, len);
  text[len] = '\0';
  Address a;
  if (!fill_address(text, charset, a)) return true;  // nothing to show
  expand_address(d, a, first, bgn, end);
  first = false;
  return true;
}

// The end of the address that starts at p: the next comma, except that a
// comma inside a double-quoted name that comes before it is passed over.
const char* address_end(const char* p) {
  const char* comma = std::strchr(p, ',');
  const char* stop = comma != nullptr ? comma : p + std::strlen(p);
  const auto* quote = static_cast<const char*>(std::memchr(p, '"', static_cast<size_t>(stop - p)));
  if (quote == nullptr) return stop;
  const char* closing = std::strchr(quote + 1, '"');
  if (closing == nullptr) return quote + 1 + std::strlen(quote + 1);  // unclosed: the rest is one address
  comma = std::strchr(closing + 1, ',');
  return comma != nullptr ? comma : closing + 1 + std::strlen(closing + 1);
}

bool valid_template(const char* mailaddress, const char* bgn, const char* end, const MIME_DISP* d) {
  return mailaddress != nullptr && bgn != nullptr && end != nullptr && bgn <= end && d != nullptr;
}

// ---- the header record ----

// The field's value when the message has the field, else null.
const char* field(char** slot) { return slot != nullptr ? *slot : nullptr; }

bool has_value(char** slot) {
  const char* v = field(slot);
  return v != nullptr && *v != '\0';
}

// ---- the header form ----

// Request values a header form can show, taken when its expansion starts.
struct PageVars {
  char enc_back[kEncBackSize];
  const char* msg;
  const char* mailbox;
  const char* board;
  const char* enews;
  const char* magic;
};

void take_page_vars(PageVars& v) {
  v.enc_back[0] = '\0';
  MSTR_URIEscape(std::getenv("QUERY_STRING"), v.enc_back, sizeof v.enc_back);
  v.msg = MCGI_VarStrGet("msgid");
  v.mailbox = MCGI_VarStrGet("mbox");
  v.board = MCGI_VarStrGet("board");
  v.enews = MCGI_VarStrGet("enews");
  v.magic = MCGI_VarStrGet("m");
}

struct HeaderForm {
  ME* me;
  MIME_DISP* d;
  RFC822_HEADER* r;  // null for an entity without message headers
  PageVars vars;
  int charset;       // MIME charset value of the entity, for the addresses
};

char** slot(const HeaderForm& f, char** RFC822_HEADER::*member) { return f.r != nullptr ? f.r->*member : nullptr; }

bool flag(const HeaderForm& f, int bit) { return (f.d->disp_flag & bit) != 0; }

bool attachment_listed(const HeaderForm& f) {
  const HME* tree = f.d->showdata;
  if (tree == nullptr || (tree->me_info._attachment & 1) == 0) return false;
  return flag(f, MIME_DISP_LIST_SHOWN_IMG) || HaveShowAttachment(f.me) != 0;
}

bool body_reached(const HeaderForm& f) { return f.d->_show != 0; }
bool first_header(const HeaderForm& f) { return f.d->is_first_header != 0; }
bool later_header(const HeaderForm& f) { return f.d->is_first_header == 0; }
bool has_logo(const HeaderForm& f) { return f.d->logo_url[0] != '\0'; }
bool has_xfb(const HeaderForm& f) { return slot(f, &RFC822_HEADER::x_forward_by) != nullptr; }
bool has_date(const HeaderForm& f) { return slot(f, &RFC822_HEADER::date) != nullptr; }
bool has_subject(const HeaderForm& f) { return slot(f, &RFC822_HEADER::subject) != nullptr; }
bool has_newsgroups(const HeaderForm& f) { return slot(f, &RFC822_HEADER::newsgroups) != nullptr; }
bool to_given(const HeaderForm& f) { return has_value(slot(f, &RFC822_HEADER::to)); }
bool cc_given(const HeaderForm& f) { return has_value(slot(f, &RFC822_HEADER::cc)); }
bool bcc_given(const HeaderForm& f) { return has_value(slot(f, &RFC822_HEADER::bcc)); }

// One conditional section of the header form: kept (its first branch)
// when `holds` says so, or, without `holds`, when disp_flag has `bit`.
struct Section {
  std::string_view open;
  std::string_view else_tag;  // empty: no else branch
  std::string_view close;
  int bit;
  bool (*holds)(const HeaderForm&);

  bool kept(const HeaderForm& f) const { return holds != nullptr ? holds(f) : flag(f, bit); }
};

// In the order the tags are compared.  "$from\n" is handled apart: its
// else branch starts one byte early.
constexpr Section kSections[] = {
    {"$ifext", "$ifext_else", "$$ifext", MIME_DISP_IFEXT, nullptr},
    {"$iftrust", {}, "$$iftrust", MIME_DISP_IFTRUST, nullptr},
    {"$ifsender_inadb", "$ifsender_inadb_else", "$$ifsender_inadb", MIME_DISP_SENDER_INADB, nullptr},
    {"$if_have_block_img", {}, "$$if_have_block_img", MIME_DISP_IF_BLOCK_IMG, nullptr},
    {"$ifdl", {}, "$$ifdl", MIME_DISP_IFDL, nullptr},
    {"$ifdc", {}, "$$ifdc", MIME_DISP_IFDC, nullptr},
    {"$iftextmode", "$iftextmode_else", "$$iftextmode", MIME_DISP_TEXT_MODE, nullptr},
    {"$show\n", {}, "$$show\n", 0, body_reached},
    {"$1_th\n", {}, "$$1_th\n", 0, first_header},
    {"$!1_th\n", {}, "$$!1_th\n", 0, later_header},
    {"$xfb\n", {}, "$$xfb\n", 0, has_xfb},
    {"$to\n", {}, "$$to\n", 0, to_given},
    {"$cc\n", {}, "$$cc\n", 0, cc_given},
    {"$bcc\n", {}, "$$bcc\n", 0, bcc_given},
    {"$date\n", {}, "$$date\n", 0, has_date},
    {"$subject\n", {}, "$$subject\n", 0, has_subject},
    {"$newsgroups\n", {}, "$$newsgroups\n", 0, has_newsgroups},
    {"$attachment", {}, "$$attachment", 0, attachment_listed},
    {"$iflogo", "$iflogo_else", "$$iflogo", 0, has_logo},
};

// The tags of one section met at `at`; null when none of them stands there.
const char* section_tag(const HeaderForm& f, Span at) {
  for (const Section& s : kSections) {
    // The else tag begins with the opening tag: it is tried first.
    if (!s.else_tag.empty() && at.starts(s.else_tag))  // end of a kept first branch
      return Span{at.p + s.else_tag.size(), at.end}.past(s.close);
    if (at.starts(s.open)) return open_section({at.p + s.open.size(), at.end}, s.kept(f), s.else_tag, s.close);
    if (at.starts(s.close)) return at.p + s.close.size();
  }
  return nullptr;
}

// "$from\n" … "$from_else\n" … "$$from\n".  Without a From field the scan
// resumes on the newline of "$from_else\n", which is written out.
const char* from_section(const HeaderForm& f, Span at) {
  constexpr std::string_view kOpen = "$from\n", kElse = "$from_else\n", kClose = "$$from\n";
  constexpr size_t kElseResume = 10;
  if (at.starts(kElse)) return Span{at.p + kElse.size(), at.end}.past(kClose);
  if (at.starts(kClose)) return at.p + kClose.size();
  if (!at.starts(kOpen)) return nullptr;
  return open_section({at.p + kOpen.size(), at.end}, slot(f, &RFC822_HEADER::from) != nullptr, kElse, kClose,
                      kElseResume);
}

// A loop tag's template runs from `after` to the next "$$loop" (or the end
// of the form); returns the template's end, and `resume` gets where the
// scan goes on.
const char* loop_end(Span after, const char*& resume) {
  const char* at = after.find(kLoopEnd);
  resume = at != nullptr ? at + kLoopEnd.size() : after.end;
  return at != nullptr ? at : after.end;
}

// A writable copy of a field value in the context's arena, so that the
// filters of plain-text rendering may work on it.
char* arena_copy(MIME_DISP* d, const char* text) {
  if (text == nullptr) return nullptr;
  const size_t len = std::strlen(text);
  auto* copy = static_cast<char*>(mime_disp_alloc(d, len + 1));
  std::memcpy(copy, text, len);
  return copy;
}

void render_field(HeaderForm& f, char** RFC822_HEADER::*member, bool js = false) {
  render_text(f.d, arena_copy(f.d, field(slot(f, member))), js);
}

bool is_blank(const char* s) {
  for (; *s != '\0'; ++s)
    if (*s != ' ' && *s != '\t' && *s != '\r' && *s != '\n') return false;
  return true;
}

// The Date field in the user's zone; a date that does not parse is shown
// as it was written.  A blank value is no date, though the parser would
// take it for the last midnight.
void render_date(HeaderForm& f, bool js) {
  const char* value = field(slot(f, &RFC822_HEADER::date));
  if (value == nullptr || is_blank(value)) return;
  const time_t t = parsedate(value, nullptr);
  char zone[kZoneSize];
  char text[kDateSize];
  const char* tz = MUPRF_GlobalGetStr("Timezone", zone, sizeof zone);
  if (t != -1 && MTM_UTC2LocalStr_s(text, sizeof text, kDateFormat, t, tz) != nullptr && text[0] != '\0')
    render_text(f.d, text, js);
  else
    render_text(f.d, arena_copy(f.d, value), js);
}

using AddressLoop = void (*)(char*, char*, char*, MIME_DISP*, int);

const char* address_loop(HeaderForm& f, Span after, char** RFC822_HEADER::*member, AddressLoop loop) {
  const char* resume = nullptr;
  const char* end = loop_end(after, resume);
  char* value = arena_copy(f.d, field(slot(f, member)));
  if (value != nullptr) loop(value, const_cast<char*>(after.p), const_cast<char*>(end), f.d, f.charset);
  return resume;
}

// "$path": the message file's name from its last "/" on.
void put_path(MIME_DISP* d) {
  const HME* tree = d->showdata;
  if (tree == nullptr || tree->me_info.msgpath == nullptr) return;
  put(d, MSTR_RLocChr(tree->me_info.msgpath, '/', 0));
}

void put_logo_escaped(MIME_DISP* d) {
  char logo[sizeof d->logo_url + 1];
  MSTR_NCopy(logo, sizeof logo, d->logo_url, sizeof d->logo_url);
  put(d, MSTR_HTMLEscape_s(logo));
}

// "$esub": the Subject in the entity's own charset.
void put_esub(HeaderForm& f) {
  if (slot(f, &RFC822_HEADER::subject) == nullptr) return;
  char charset[sizeof f.me->h->mime.charset_str + 1];
  MSTR_NCopy(charset, sizeof charset, f.me->h->mime.charset_str, sizeof f.me->h->mime.charset_str);
  f.d->nTextCharsetVal = MLG_CharsetWEncToValue(charset);
  render_field(f, &RFC822_HEADER::subject);
}

const char* address_tag_loop(HeaderForm& f, Span rest, char** RFC822_HEADER::*member) {
  return address_loop(f, rest, member, member == &RFC822_HEADER::from ? show_single_address : show_address);
}

const char* attachment_loop(HeaderForm& f, Span rest) {
  const char* resume = nullptr;
  const char* end = loop_end(rest, resume);
  disp_attachment(f.me, const_cast<char*>(rest.p), const_cast<char*>(end), f.d);
  return resume;
}

// A value tag writes what it stands for; a loop tag expands the template
// that follows it and returns where the scan goes on.
struct ValueTag {
  std::string_view tag;
  void (*write)(HeaderForm& f);
  const char* (*loop)(HeaderForm& f, Span rest);  // `rest` starts past the tag
};

// In the order the tags are compared: a tag before any shorter one it
// begins with.
constexpr ValueTag kValueTags[] = {
    {"$_xfb", [](HeaderForm& f) { render_field(f, &RFC822_HEADER::x_forward_by); }, nullptr},
    {"$_from", nullptr, [](HeaderForm& f, Span rest) { return address_tag_loop(f, rest, &RFC822_HEADER::from); }},
    {"$_to", nullptr, [](HeaderForm& f, Span rest) { return address_tag_loop(f, rest, &RFC822_HEADER::to); }},
    {"$_cc", nullptr, [](HeaderForm& f, Span rest) { return address_tag_loop(f, rest, &RFC822_HEADER::cc); }},
    {"$_bcc", nullptr, [](HeaderForm& f, Span rest) { return address_tag_loop(f, rest, &RFC822_HEADER::bcc); }},
    {"$_date_js", [](HeaderForm& f) { render_date(f, true); }, nullptr},
    {"$_date", [](HeaderForm& f) { render_date(f, false); }, nullptr},
    {"$_subject_js", [](HeaderForm& f) { render_field(f, &RFC822_HEADER::subject, true); }, nullptr},
    {"$_subject", [](HeaderForm& f) { render_field(f, &RFC822_HEADER::subject); }, nullptr},
    {"$_newsgroups", [](HeaderForm& f) { render_field(f, &RFC822_HEADER::newsgroups); }, nullptr},
    {"$_attachment", nullptr, attachment_loop},
    {"$Enc_back", [](HeaderForm& f) { put(f.d, f.vars.enc_back); }, nullptr},
    {"$msg", [](HeaderForm& f) { put(f.d, f.vars.msg); }, nullptr},
    {"$mbox", [](HeaderForm& f) { put(f.d, f.vars.mailbox); }, nullptr},
    {"$magic", [](HeaderForm& f) { put(f.d, f.vars.magic); }, nullptr},
    {"$board_enews_id",
     [](HeaderForm& f) {
       put(f.d, f.vars.board);
       put(f.d, f.vars.enews);
     },
     nullptr},
    {"$board_enews",
     [](HeaderForm& f) {
       if (f.vars.board != nullptr) MMIME_Fputs(f.d, "board");
       if (f.vars.enews != nullptr) MMIME_Fputs(f.d, "enews");
     },
     nullptr},
    {"$prefix", [](HeaderForm& f) { put_field(f.d, f.d->attFilePrefix); }, nullptr},
    {"$path", [](HeaderForm& f) { put_path(f.d); }, nullptr},
    {"$esub", put_esub, nullptr},
    {"$rs", [](HeaderForm& f) { put_field(f.d, f.d->reply_sign); }, nullptr},
    {"$var1", [](HeaderForm& f) { put(f.d, f.d->pszVar1); }, nullptr},
    {"$var2", [](HeaderForm& f) { put(f.d, f.d->pszVar2); }, nullptr},
    {"$var3", [](HeaderForm& f) { put(f.d, f.d->pszVar3); }, nullptr},
    {"$logo_url_esc", [](HeaderForm& f) { put_logo_escaped(f.d); }, nullptr},
    {"$logo_url", [](HeaderForm& f) { put_field(f.d, f.d->logo_url); }, nullptr},
};

// The value and loop tags; null when none stands at `at`.
const char* value_tag(HeaderForm& f, Span at) {
  for (const ValueTag& v : kValueTags) {
    if (!at.starts(v.tag)) continue;
    const Span rest{at.p + v.tag.size(), at.end};
    if (v.loop != nullptr) return v.loop(f, rest);
    v.write(f);
    return rest.p;
  }
  return nullptr;
}

const char* header_tag(HeaderForm& f, Span at) {
  if (const char* next = section_tag(f, at)) return next;
  if (const char* next = from_section(f, at)) return next;
  if (const char* next = value_tag(f, at)) return next;
  MMIME_Fputs(f.d, "$");  // no tag: the "$" stands as written
  return at.p + 1;
}

void expand_form(HeaderForm& f, const char* form, size_t len) {
  const char* end = form + len;
  for (const char* p = form; p < end;) {
    p = copy_text(f.d, p, end);
    if (p < end) p = header_tag(f, {p, end});
  }
}

// The header form's text in a writable arena copy (the form filter may
// change it), or null when the file cannot be read.
char* read_header_form(MIME_DISP* d) {
  char name[sizeof d->header_form + 1];
  MSTR_NCopy(name, sizeof name, d->header_form, sizeof d->header_form);
  char path[kFormPathSize];
  mime_disp_form_path(d, name, path, sizeof path);
  size_t size = 0;
  char* content = nullptr;
  if (MSHM_FileRead(path, &size, &content, 0) != 0 || content == nullptr) return nullptr;
  auto* copy = static_cast<char*>(mime_disp_alloc(d, size + 1));
  std::memcpy(copy, content, size);
  MSHM_FileFree(content, size);
  return copy;
}

int entity_charset_value(const ME* me) {
  char charset[sizeof me->h->mime.charset_str + 1];
  MSTR_NCopy(charset, sizeof charset, me->h->mime.charset_str, sizeof me->h->mime.charset_str);
  return MLG_CharsetWEncToValue(charset);
}

// Appends "Name: value\n" for a field the message has.
void add_line(char* buf, size_t size, const char* name, char** slot) {
  const char* value = field(slot);
  if (value == nullptr) return;
  MSTR_Cat(buf, size, name, 0);
  MSTR_Cat(buf, size, ": ", 0);
  MSTR_Cat(buf, size, value, 0);
  MSTR_Cat(buf, size, "\n", 0);
}

}  // namespace

// ---- the address loops ----

void show_address(char* mailaddress, char* bgn, char* end, MIME_DISP* disp_info, int charset) {
  if (!valid_template(mailaddress, bgn, end, disp_info)) return;
  bool first = true;
  for (const char* p = mailaddress; *p != '\0';) {
    const char* stop = address_end(p);
    if (!show_one(p, stop, first, disp_info, charset, bgn, end)) return;
    p = *stop != '\0' ? stop + 1 : stop;
  }
}

// The sender is one address: the value is not cut at commas, so an
// unquoted "Doe, John <jd@x>" keeps its whole name.
void show_single_address(char* mailaddress, char* bgn, char* end, MIME_DISP* disp_info, int charset) {
  if (!valid_template(mailaddress, bgn, end, disp_info)) return;
  bool first = true;
  show_one(mailaddress, mailaddress + std::strlen(mailaddress), first, disp_info, charset, bgn, end);
}

// ---- the header block ----

void show_m_header(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr || me->h == nullptr) return;
  MIME_DISP* d = disp_info;
  prepare_attachment(me, d);
  sort_loc(d);
  if (d->disp_func != nullptr) {
    show_mail_header_disp_func(me->h->rfc822, d);
    return;
  }
  char* form = read_header_form(d);
  if (form == nullptr) {
    MMIME_Fputs(d, "Show mail header error!!!\n");
    return;
  }
  if (d->fpFormFilter != nullptr) form = d->fpFormFilter(d, form, 0);
  if (form == nullptr) return;
  d->nTextCharsetVal = entity_charset_value(me);

  HeaderForm f{me, d, me->h->rfc822, {}, me->h->mime.charset};
  take_page_vars(f.vars);
  const int saved = d->text2disp_flag;
  d->text2disp_flag &= ~kHeaderT2DMask;
  expand_form(f, form, std::strlen(form));
  d->text2disp_flag = saved;
}

// No header block is written; the message's parts are still saved and
// listed, so that its bodies can point at them.
void show_m_noheader(ME* me, MIME_DISP* disp_info) {
  if (me == nullptr || disp_info == nullptr) return;
  prepare_attachment(me, disp_info);
  sort_loc(disp_info);
  if (me->h != nullptr) disp_info->nTextCharsetVal = entity_charset_value(me);
}

// The page's own renderer gets the header as text, one "Name: value" line
// per field the message has, in one call.
void show_mail_header_disp_func(RFC822_HEADER* rfc822, MIME_DISP* disp_info) {
  if (rfc822 == nullptr || disp_info == nullptr || disp_info->disp_func == nullptr) return;
  static constexpr struct {
    const char* name;
    char** RFC822_HEADER::*member;
  } kFields[] = {{"From", &RFC822_HEADER::from},       {"To", &RFC822_HEADER::to},
                 {"Cc", &RFC822_HEADER::cc},           {"Bcc", &RFC822_HEADER::bcc},
                 {"Date", &RFC822_HEADER::date},       {"Subject", &RFC822_HEADER::subject},
                 {"Newsgroups", &RFC822_HEADER::newsgroups}};
  size_t size = 1;
  for (const auto& fld : kFields)
    if (const char* v = field(rfc822->*fld.member)) size += std::strlen(fld.name) + std::strlen(v) + 3;
  if (size == 1) return;
  auto* text = static_cast<char*>(mime_disp_alloc(disp_info, size));
  for (const auto& fld : kFields) add_line(text, size, fld.name, rfc822->*fld.member);
  disp_info->disp_func(text);
}
