// mime_mailhdr.cpp - the header record filled from raw message text.
//
// mailhdr_init copies the start of a message into the record's own 8 KiB
// buffer; the parse then cuts that buffer into the field strings in place,
// finds the first leaf part of the body as a preview and undoes its
// transfer encoding, all without building an entity tree.  Strings that
// grow when converted (Japanese text to Shift_JIS) may be moved to the top
// of the buffer, above the preview; data_tail marks how far the buffer is
// still free.  Every search stops at the buffer's terminator.

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "mime_mailhdr_internal.h"
#include "tarnplat.h"

namespace {

constexpr size_t kCopyMax = MAILHDR_DATA_SIZE - 1;
constexpr size_t kDelimSize = 1024;  // "--" and the boundary, terminated

bool starts_with_nocase(const char* s, std::string_view prefix) {
  return s != nullptr && MSTR_NCaseCmp(s, prefix.data(), prefix.size()) == 0;
}

bool contains_nocase(const char* s, const char* what) {
  return s != nullptr && MSTR_LocStrCase(s, what, 0) != nullptr;
}

// Bytes of `data` that may be read: up to `len` (when not negative) and up
// to the first NUL.
size_t readable(const char* data, int len) {
  if (data == nullptr) return 0;
  return len >= 0 ? strnlen(data, static_cast<size_t>(len)) : std::strlen(data);
}

void set_defaults(mailhdr* m, const char* cset, int len) {
  MSTR_Copy(m->charset, sizeof m->charset, cset != nullptr ? cset : "", 0);
  m->size = len;
}

// Length of the header block at `data`: up to the LF that ends its last
// line (a CR after a line's LF is passed over), or all of the text when no
// blank line follows.
size_t header_length(const char* data, size_t avail) {
  const char* end = data + avail;
  const char* p = data;
  for (;;) {
    const void* hit = std::memchr(p, '\n', static_cast<size_t>(end - p));
    if (hit == nullptr) return avail;
    const char* nl = static_cast<const char*>(hit);
    const char* q = nl + 1;
    if (q < end && *q == '\r') ++q;
    if (q < end && *q == '\n') return static_cast<size_t>(nl - data);
    p = q;
  }
}

// ---- the header lines ----

enum class Kind : unsigned char { kField, kReceived, kEncoding, kPriority, kMsPriority, kEnews };

struct Rule {
  std::string_view name;  // colon included
  Kind kind;
  char* mailhdr::*field;
};

// Tried in this order; the first whose name starts the line decides.
constexpr Rule kRules[] = {
    {"Subject:", Kind::kField, &mailhdr::subject},
    {"From:", Kind::kField, &mailhdr::from},
    {"To:", Kind::kField, &mailhdr::to},
    {"CC:", Kind::kField, &mailhdr::cc},
    {"BCC:", Kind::kField, &mailhdr::bcc},
    {"Resent-From:", Kind::kField, &mailhdr::resent_from},
    {"Reply-To:", Kind::kField, &mailhdr::reply_to},
    {"Message-ID:", Kind::kField, &mailhdr::msgid},
    {"Content-Type:", Kind::kField, &mailhdr::content_type},
    {"In-Reply-To:", Kind::kField, &mailhdr::in_reply_to},
    {"References:", Kind::kField, &mailhdr::references},
    {"Date:", Kind::kField, &mailhdr::date},
    {"Received:", Kind::kReceived, nullptr},
    {"Content-Transfer-Encoding:", Kind::kEncoding, nullptr},
    {"X-Priority:", Kind::kPriority, nullptr},
    {"X-MSMail-Priority:", Kind::kMsPriority, nullptr},
    {"X-TARN-Enews:", Kind::kEnews, nullptr},
    {"Disposition-Notification-To:", Kind::kField, &mailhdr::notification_to},
};

// Fields decoded after the parse, in this order.
constexpr char* mailhdr::*kDecoded[] = {
    &mailhdr::from, &mailhdr::resent_from, &mailhdr::subject,  &mailhdr::cc,   &mailhdr::bcc,
    &mailhdr::to,   &mailhdr::content_type, &mailhdr::reply_to, &mailhdr::date,
};

char* skip_blanks(char* p) {
  while (*p == ' ' || *p == '\t') ++p;
  return p;
}

// Ends the line at `line` (its LF and a CR before it become NULs) and
// returns the start of the next one, or NULL after the last.
char* cut_line(char* line) {
  char* nl = std::strchr(line, '\n');
  if (nl == nullptr) {
    size_t n = std::strlen(line);
    if (n > 0 && line[n - 1] == '\r') line[n - 1] = '\0';
    return nullptr;
  }
  *nl = '\0';
  if (nl > line && nl[-1] == '\r') nl[-1] = '\0';
  return nl + 1;
}

// "Low", then "Normal", then "High": each word found overrides the one
// before, so "Normal (High)" reads as high.
int ms_priority(const char* value, int current) {
  if (contains_nocase(value, "Low")) current = 5;
  if (contains_nocase(value, "Normal")) current = 3;
  if (contains_nocase(value, "High")) current = 1;
  return current;
}

struct Parse {
  mailhdr* m;
  char* encoding = nullptr;  // the body's transfer encoding
  char delim[kDelimSize] = {};  // "--" plus the boundary; empty when none
};

void apply_line(Parse& s, char* line) {
  mailhdr* m = s.m;
  for (const Rule& rule : kRules) {
    if (MSTR_NCaseCmp(line, rule.name.data(), rule.name.size()) != 0) continue;
    char* value = skip_blanks(line + rule.name.size());
    switch (rule.kind) {
      case Kind::kField: m->*rule.field = value; break;
      case Kind::kReceived:
        ++m->hops;
        if (*value != '\0') str_receive(value, m->hosts, &m->hostnum, m->envelope, &m->envenum);
        break;
      case Kind::kEncoding: s.encoding = value; break;
      case Kind::kPriority: m->important_level = mailhdr_atoi(value); break;
      case Kind::kMsPriority: m->important_level = ms_priority(value, m->important_level); break;
      case Kind::kEnews: m->tarn_enews_flag = mailhdr_atoi(value); break;
    }
    return;
  }
}

void parse_lines(Parse& s, char* line) {
  while (line != nullptr && *line != '\0') {
    char* next = cut_line(line);
    apply_line(s, line);
    line = next;
  }
}

// A parameter value after "name=": blanks and double quotes skipped, up to
// the first byte of `stops` (or the NUL).
char* param_value(char* text, const char* name, size_t n, const char* stops, char** end) {
  char* p = MSTR_LocStrCase(text, name, 0);
  if (p == nullptr) return nullptr;
  p += n;
  while (*p == ' ' || *p == '"') ++p;
  *end = p + std::strcspn(p, stops);
  return p;
}

void set_delim(Parse& s, const char* boundary) {
  if (*boundary == '\0') {
    s.delim[0] = '\0';
    return;
  }
  MSTR_Printf(s.delim, sizeof s.delim, "--%s", boundary);
}

void take_charset(mailhdr* m, const char* value, const char* end) {
  if (end == value) return;
  MSTR_NCopy(m->charset, sizeof m->charset, value, static_cast<size_t>(end - value));
}

// Content-Type of the message: the type without parameters, unquoted; the
// boundary of a multipart (its end cuts the parameters that follow), the
// charset, and the numbers and id of a message/partial.
void parse_content_type(Parse& s) {
  mailhdr* m = s.m;
  if (m->content_type == nullptr) return;
  char* params = std::strchr(m->content_type, ';');
  if (params != nullptr) *params++ = '\0';
  m_str_unquote(&m->content_type, static_cast<int>(std::strlen(m->content_type)));
  if (params == nullptr) return;
  char* end = nullptr;
  if (contains_nocase(m->content_type, "multipart")) {
    if (char* b = param_value(params, "boundary=", 9, "\" ;", &end)) {
      *end = '\0';
      set_delim(s, b);
    }
  }
  if (char* c = param_value(params, "charset=", 8, "\" ;", &end)) take_charset(m, c, end);
  if (starts_with_nocase(m->content_type, "message/partial")) {
    char* id = nullptr;
    size_t idlen = 0;
    mailhdr_partial_params(m, params, &id, &idlen);
    if (id != nullptr) {
      id[idlen] = '\0';
      m->msgid = id;
    }
  }
}

// The blank line that ends a part's header, searched from the LF that ends
// the delimiter line: sets *after to the body and returns the LF that ends
// the header, or NULL.
char* find_blank_line(char* p, char** after) {
  while ((p = std::strchr(p, '\n')) != nullptr) {
    if (p[1] == '\n') {
      *after = p + 2;
      return p;
    }
    if (p[1] == '\r' && p[2] == '\n') {
      *after = p + 3;
      return p;
    }
    ++p;
  }
  return nullptr;
}

// Content-Type and Content-Transfer-Encoding of one part's header.
char* part_content_type(Parse& s, char* line) {
  char* ctype = nullptr;
  while (line != nullptr && *line != '\0') {
    char* next = cut_line(line);
    if (MSTR_NCaseCmp(line, "Content-Type:", 13) == 0)
      ctype = skip_blanks(line + 13);
    else if (MSTR_NCaseCmp(line, "Content-Transfer-Encoding:", 26) == 0)
      s.encoding = skip_blanks(line + 26);
    line = next;
  }
  return ctype;
}

// Walks into the body down to the first leaf part of the first branch and
// cuts the preview to it.  Each round moves `text` forward, so the walk
// ends.
void find_first_leaf(Parse& s) {
  mailhdr* m = s.m;
  char* text = m->text;
  while (s.delim[0] != '\0' && text != nullptr) {
    char* hit = std::strstr(text, s.delim);
    char* eol = hit != nullptr ? std::strchr(hit, '\n') : nullptr;
    char* body = nullptr;
    char* hdr_end = eol != nullptr ? find_blank_line(eol, &body) : nullptr;
    if (hdr_end == nullptr) {
      // No delimiter line, or a part without its blank line: no preview.
      *text = '\0';
      break;
    }
    text = body;
    char* ctype = nullptr;
    if (hdr_end > eol) {
      rfc822_unfold(eol + 1, hdr_end);
      ctype = part_content_type(s, eol + 1);
    }
    char* end = nullptr;
    if (ctype != nullptr && contains_nocase(ctype, "multipart")) {
      if (char* b = param_value(ctype, "boundary=", 9, "\" \r\n", &end)) {
        *end = '\0';
        set_delim(s, b);
        continue;
      }
    }
    if (ctype != nullptr)
      if (char* c = param_value(ctype, "charset=", 8, "\" \r\n", &end)) take_charset(m, c, end);
    if (char* next = std::strstr(text, s.delim)) *next = '\0';
    break;
  }
  m->text = text;
}

void decode_body(Parse& s) {
  char* text = s.m->text;
  if (text == nullptr || s.encoding == nullptr) return;
  if (starts_with_nocase(s.encoding, "quoted-printable"))
    MTX_QPDec(text);
  else if (starts_with_nocase(s.encoding, "base64"))
    MTX_Base64Dec(text);
}

// The preview of a Japanese message is held in Shift_JIS.
void convert_body(mailhdr* m) {
  char* text = m->text;
  if (text == nullptr || m->data_tail == nullptr || m->data_tail < text) return;
  char* converted = nullptr;
  if (starts_with_nocase(m->charset, "iso-2022-jp")) {
    MLG_JPInit();
    converted = MLG_JPJis2Sjis2(text);
  } else if (starts_with_nocase(m->charset, "euc-jp")) {
    MLG_JPInit();
    converted = MLG_JPEuc2Sjis2(text);
  }
  if (converted == nullptr) return;
  MSTR_Copy(text, static_cast<size_t>(m->data_tail - text) + 1, converted, MLG_SJIS);
  std::free(converted);
}

void decode_fields(mailhdr* m, int header_decode) {
  int isjp = 0;
  for (char* mailhdr::*field : kDecoded) {
    char*& value = m->*field;
    if (value == nullptr) {
      value = &m->null_buf;
      continue;
    }
    const bool subject = field == &mailhdr::subject;
    if (!subject && header_decode == 0) continue;
    const char* cset = s_my_str_decode(m, &value, &isjp, m->charset);
    if (subject && cset != nullptr) MSTR_Copy(m->subject_charset, sizeof m->subject_charset, cset, 0);
  }
  if (isjp != 0 && !starts_with_nocase(m->charset, "iso-2022-jp"))
    MSTR_Copy(m->charset, sizeof m->charset, "iso-2022-jp", 0);
}

}  // namespace

int s_mailhdr_parse_internal(mailhdr* mhdr, int header_decode) {
  if (mhdr == nullptr) return -2;
  Parse s{mhdr};
  char* work = mhdr->malloc_data != nullptr ? mhdr->malloc_data : mhdr->data;
  // The record's own buffer is always terminated at its last byte.
  if (work == mhdr->data) mhdr->data[MAILHDR_DATA_SIZE - 1] = '\0';

  char* after = nullptr;
  char* hdr_end = find_blank_line(work, &after);
  if (hdr_end != nullptr) {
    *hdr_end = '\0';
    if (hdr_end > work && hdr_end[-1] == '\r') hdr_end[-1] = '\0';
    mhdr->text = after;
  } else {
    hdr_end = work + std::strlen(work);
  }
  rfc822_unfold(work, hdr_end);
  parse_lines(s, work);
  parse_content_type(s);
  find_first_leaf(s);
  decode_body(s);
  convert_body(mhdr);
  decode_fields(mhdr, header_decode);
  return 0;
}

extern "C" {

TARNMAIL_API int mailhdr_init(mailhdr* mhdr, const char* cset, const char* data, int len) {
  if (mhdr == nullptr) return -2;
  std::memset(mhdr, 0, sizeof *mhdr);
  size_t n = readable(data, len);
  if (n > kCopyMax) n = kCopyMax;
  if (n > 0) std::memcpy(mhdr->data, data, n);
  set_defaults(mhdr, cset, len);
  mhdr->data_tail = mhdr->data + kCopyMax;
  return 0;
}

TARNMAIL_API int mailhdr_init2(mailhdr* mhdr, const char* cset, const char* data, int len) {
  if (mhdr == nullptr) return -2;
  const size_t avail = readable(data, len);
  const size_t hlen = avail > 0 ? header_length(data, avail) : 0;
  if (hlen > MAILHDR_DATA_SIZE) {
    if (char* copy = static_cast<char*>(std::malloc(hlen + 1))) {
      std::memset(mhdr, 0, sizeof *mhdr);
      std::memcpy(copy, data, hlen);
      copy[hlen] = '\0';
      mhdr->malloc_data = copy;
      mhdr->data_tail = copy + hlen;
      set_defaults(mhdr, cset, len);
      return 0;
    }
  }
  return mailhdr_init(mhdr, cset, data, len);
}

TARNMAIL_API int mailhdr_parse(mailhdr* mhdr) { return s_mailhdr_parse_internal(mhdr, 1); }

TARNMAIL_API int mailhdr_parse_raw(mailhdr* mhdr) { return s_mailhdr_parse_internal(mhdr, 0); }

TARNMAIL_API void mailhdr_free(mailhdr* mhdr) {
  if (mhdr == nullptr || mhdr->malloc_data == nullptr) return;
  // With a heap copy the tail points into it; it must not outlive it.
  mhdr->data_tail = nullptr;
  std::free(mhdr->malloc_data);
  mhdr->malloc_data = nullptr;
}

}  // extern "C"
