// mime_mailhdr_text.cpp - the text helpers of the header record: unfolding,
// quote removal, field decoding with the Japanese conversion, Received
// values, message/partial parameters, and the debugging dump.
//
// Everything here works on NUL-terminated text inside the record's buffer
// (or a decode context's arena) and never reads past the terminator.

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mime_mailhdr_internal.h"
#include "tarnmail/encword.h"
#include "tarnplat.h"

namespace {

constexpr char kIso2022jp[] = "iso-2022-jp";
constexpr size_t kIso2022jpLen = sizeof kIso2022jp - 1;
constexpr char kEucJp[] = "euc-jp";
constexpr size_t kEucJpLen = sizeof kEucJp - 1;

// What the copy over the input is told, so that the cut to the old length
// does not split a character: the Japanese value on the JIS path, value 2
// on the EUC path.
constexpr int kJisCutCharset = MLG_JAPANESE;
constexpr int kEucCutCharset = 2;

bool is_blank(char c) { return c == ' ' || c == '\t'; }
// Received values taken from a decoded message keep their folding, so line
// ends count as blanks there too.
bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

char* skip_space(char* p) {
  while (is_space(*p)) ++p;
  return p;
}

// Strips blanks and line ends from the end of [bgn, end) by writing NULs.
void strip_trailing(char* bgn, char* end) {
  while (end > bgn && is_space(end[-1])) *--end = '\0';
}

bool starts_with_nocase(const char* s, const char* prefix, size_t n) {
  return s != nullptr && MSTR_NCaseCmp(s, prefix, n) == 0;
}

// ---- Received values ----

void add_entry(char* entry, char** list, int* count, int max) {
  if (*entry == '\0' || *count < 0 || *count >= max) return;
  list[(*count)++] = entry;
}

// The hosts after "from": cut at "by ", then either the whole text, or the
// name inside "(" (or "[") and, when that name is followed by "[", the
// address inside the brackets as a second host.
void receive_hosts(char* p, char** hosts, int* hostnum) {
  p = skip_space(p);
  char* by = std::strstr(p, "by ");
  if (by == nullptr) return;
  *by = '\0';
  strip_trailing(p, by);
  char* open = std::strchr(p, '(');
  if (open == nullptr) open = std::strchr(p, '[');
  if (open == nullptr) {
    add_entry(p, hosts, hostnum, MAILHDR_MAX_HOSTS);
    return;
  }
  char* host = skip_space(open + 1);
  char* end = host + std::strcspn(host, "[)]");
  const bool bracket = *end == '[';
  char* inner = bracket ? skip_space(end + 1) : nullptr;
  *end = '\0';
  strip_trailing(host, end);
  add_entry(host, hosts, hostnum, MAILHDR_MAX_HOSTS);
  if (!bracket) return;
  char* inner_end = inner + std::strcspn(inner, " \t\r\n]");
  *inner_end = '\0';
  add_entry(inner, hosts, hostnum, MAILHDR_MAX_HOSTS);
}

void receive_envelope(char* env, char** envelope, int* envenum) {
  constexpr size_t kOpenerLen = sizeof "(envelope-from" - 1;
  // The host cut above writes its NULs only at brackets, blanks and "by ",
  // none of which the opener holds; checked all the same.
  if (std::strlen(env) < kOpenerLen) return;
  char* a = env + kOpenerLen;
  while (*a == ' ' || *a == '<') ++a;
  char* end = a + std::strcspn(a, " >)");
  *end = '\0';
  if (*envenum >= 0 && *envenum < MAILHDR_MAX_ENVELOPES) envelope[(*envenum)++] = a;
}

const char* shown(const char* s) { return s != nullptr ? s : "(null)"; }

}  // namespace

char* rfc822_unfold(char* bgn, char* end) {
  char* w = bgn;
  const char* r = bgn;
  while (r < end && *r != '\0') {
    if (*r == '\r' && r + 1 < end && r[1] == '\n') {
      ++r;
      continue;
    }
    if (*r == '\n' && r + 1 < end && is_blank(r[1])) {
      ++r;
      while (r < end && is_blank(*r)) ++r;
      continue;
    }
    *w++ = *r++;
  }
  *w = '\0';
  return w;
}

int m_str_unquote(char** pstr, int len) {
  if (pstr == nullptr || *pstr == nullptr || len <= 0) return 0;
  char* s = *pstr;
  char* open = nullptr;
  for (int i = 0; i < len && s[i] != '\0'; ++i) {
    if (s[i] != '"' || (i > 0 && s[i - 1] == '\\')) continue;
    if (open == nullptr) {
      open = s + i;
      *pstr = open + 1;
    } else {
      s[i] = '\0';
      return 1;
    }
  }
  return 0;
}

int mailhdr_atoi(const char* s) {
  if (s == nullptr) return 0;
  while (*s == ' ' || (*s >= '\t' && *s <= '\r')) ++s;
  bool negative = false;
  if (*s == '+' || *s == '-') negative = *s++ == '-';
  long long v = 0;
  for (; *s >= '0' && *s <= '9'; ++s) {
    v = v * 10 + (*s - '0');
    if (v > static_cast<long long>(INT_MAX) + 1) v = static_cast<long long>(INT_MAX) + 1;
  }
  if (negative) return static_cast<int>(-v);
  return v > INT_MAX ? INT_MAX : static_cast<int>(v);
}

void mailhdr_partial_params(mailhdr* mhdr, const char* params, char** id, size_t* idlen) {
  *id = nullptr;
  *idlen = 0;
  auto value_of = [params](const char* name, size_t n) -> const char* {
    const char* p = MSTR_LocStrCase(params, name, 0);
    if (p == nullptr) return nullptr;
    p += n;
    while (*p == ' ' || *p == '"') ++p;
    return p;
  };
  if (const char* v = value_of("total=", 6)) mhdr->partial_total = mailhdr_atoi(v);
  if (const char* v = value_of("number=", 7)) mhdr->partial_number = mailhdr_atoi(v);
  if (const char* v = value_of("id=", 3)) {
    *id = const_cast<char*>(v);
    *idlen = std::strcspn(v, "\" ;");
  }
}

void mailhdr_place_converted(mailhdr* mhdr, char** field, const char* converted, size_t inlen, int cut_charset) {
  const size_t n = std::strlen(converted);
  char* text = mhdr->text;
  char* tail = mhdr->data_tail;
  if (n > inlen && text != nullptr && tail != nullptr && tail > text &&
      static_cast<size_t>(tail - text) > n + 1) {
    // The text and its NUL end at data_tail; the byte below becomes the
    // new tail and a terminator, which may cut the preview short.
    char* dst = tail - n;
    std::memcpy(dst, converted, n);
    dst[n] = '\0';
    mhdr->data_tail = dst - 1;
    *mhdr->data_tail = '\0';
    *field = dst;
    return;
  }
  MSTR_Copy(*field, inlen + 1, converted, cut_charset);
}

const char* s_my_str_decode(mailhdr* mhdr, char** data, int* isjp, const char* def_cset) {
  if (mhdr == nullptr || data == nullptr || *data == nullptr || **data == '\0') return nullptr;
  const size_t len = std::strlen(*data);
  const char* cset = MSTR_Decode(*data);
  if (cset == nullptr || *cset == '\0') cset = def_cset != nullptr ? def_cset : "";
  char* converted = nullptr;
  int cut_charset = 0;
  if (starts_with_nocase(cset, kIso2022jp, kIso2022jpLen)) {
    MLG_JPInit();
    converted = MLG_JPJis2Sjis2(*data);
    cut_charset = kJisCutCharset;
  } else if (starts_with_nocase(cset, kEucJp, kEucJpLen)) {
    MLG_JPInit();
    converted = MLG_JPEuc2Sjis2(*data);
    cut_charset = kEucCutCharset;
  } else {
    return cset;
  }
  if (converted != nullptr) {
    mailhdr_place_converted(mhdr, data, converted, len, cut_charset);
    std::free(converted);
  }
  if (isjp != nullptr) *isjp = 1;
  return cset;
}

extern "C" {

TARNMAIL_API const char* mailhdr_str_decode(mailhdr* mhdr, char** data, const char* def_cset) {
  int isjp = 0;
  const char* cset = s_my_str_decode(mhdr, data, &isjp, def_cset);
  return isjp != 0 ? kIso2022jp : cset;
}

TARNMAIL_API int str_receive(char* ptr, char** hosts, int* hostnum, char** envelope, int* envenum) {
  if (ptr == nullptr || hosts == nullptr || hostnum == nullptr || envelope == nullptr || envenum == nullptr)
    return -2;
  // Both searches come first: the host cut writes NULs into the value.
  char* from = std::strstr(ptr, "from");
  char* env = std::strstr(ptr, "(envelope-from");
  if (from != nullptr) receive_hosts(from + 4, hosts, hostnum);
  if (env != nullptr) receive_envelope(env, envelope, envenum);
  return 0;
}

TARNMAIL_API void mailhdr_dump(const mailhdr* m) {
  if (m == nullptr) return;
  std::printf("Message-ID: '%s'\n", shown(m->msgid));
  std::printf("From: '%s'\n", shown(m->from));
  std::printf("Resent-From: '%s'\n", shown(m->resent_from));
  std::printf("Subject: '%s'\n", shown(m->subject));
  std::printf("CC: '%s'\n", shown(m->cc));
  std::printf("To: '%s'\n", shown(m->to));
  std::printf("BCC: '%s'\n", shown(m->bcc));
  std::printf("Content-Type: '%s'\n", shown(m->content_type));
  std::printf("Reply-To:  '%s'\n", shown(m->reply_to));
  std::printf("In-Reply-To:  '%s'\n", shown(m->in_reply_to));
  std::printf("Refrences:  '%s'\n", shown(m->references));
  std::printf("Date: '%s'\n", shown(m->date));
  std::printf("Charset: '%.*s'\n", static_cast<int>(strnlen(m->charset, sizeof m->charset)), m->charset);
  std::printf("Hops: %d\n", m->hops);
  std::printf("Important: %d\n", m->important_level);
  std::printf("Partial:  %d/%d\n", m->partial_number, m->partial_total);
  const int envenum = m->envenum < 0 ? 0 : m->envenum > MAILHDR_MAX_ENVELOPES ? MAILHDR_MAX_ENVELOPES : m->envenum;
  std::printf("Envelope num: %d\n", m->envenum);
  for (int i = 0; i < envenum; ++i) std::printf("Envelope %d: '%s'\n", i + 1, shown(m->envelope[i]));
  const int hostnum = m->hostnum < 0 ? 0 : m->hostnum > MAILHDR_MAX_HOSTS ? MAILHDR_MAX_HOSTS : m->hostnum;
  std::printf("Hostnum: %d\n", m->hostnum);
  for (int i = 0; i < hostnum; ++i) std::printf("Host %d: '%s'\n", i + 1, shown(m->hosts[i]));
  std::printf("Text:\n");
  constexpr size_t kShownText = 512;
  const char* text = shown(m->text);
  const size_t n = strnlen(text, kShownText);
  std::fwrite(text, 1, n, stdout);
  std::fputc('\n', stdout);
}

}  // extern "C"
