/*
 * eml.cpp - one e-mail address: From values, local part, domain and order.
 *
 * MLG_FromParse splits a sender value the way the mail lists and the reading
 * page show it.  It is deliberately simple and keeps its long-standing
 * results: it looks at the last "<" and the last byte only, and in the
 * "addr (nick)" form it cuts the address one byte before the "(" whether or
 * not that byte is a blank, so "a@b.c(Nick)" gives the address "a@b.".
 * Stored lists and address books hold values made this way, so the rules
 * stay as they are.  Every step is one linear pass over the value.
 */
#include "tarnmail/address.h"

#include <bit>
#include <climits>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "tarnmail/charset.h"
#include "tarnmail/encword.h"
#include "tarnplat.h"

namespace {

// Values up to this length are parsed in a stack buffer, longer ones on the heap.
constexpr std::size_t kWorkSize = 2048;
// Size of the shared result of MEML_DomainGet_s without a caller's buffer.
constexpr std::size_t kStaticDomainSize = 512;

// Language options of the platform (MLG_CharsetValToOpt).
constexpr int kOptSingle = 0;
constexpr int kOptUtf8 = 2;
constexpr int kOptSjis = 3;
constexpr int kOptMax = 5;

const char* or_empty(const char* s) { return s != nullptr ? s : ""; }

std::size_t size_of(int n) { return n > 0 ? static_cast<std::size_t>(n) : 0; }

// Bytes of the character that `ch` (0x80 or above) starts.  The double-byte
// options (1 Big5, 4 GB, 5 Korean/EUC) always pair; unknown options too.
int s_GetByteCnt(unsigned char ch, int nLangOpt) {
  if (nLangOpt < 0 || nLangOpt > kOptMax) return 2;
  switch (nLangOpt) {
    case kOptSingle: return 1;
    case kOptUtf8: return std::countl_one(ch);
    case kOptSjis: return (ch >= 0x81 && ch <= 0x9F) || (ch >= 0xE0 && ch <= 0xFC) ? 2 : 1;
    default: return 2;
  }
}

// Removes quoting in place.  `pcMark` holds the opening mark; the text after
// it, up to `pcBound` (exclusive) or its terminator, is moved down over the
// mark: a backslash makes the next byte literal, `chClose` ends the walk.
// A multibyte character is moved whole without looking at its trail bytes,
// so a Big5 or Shift_JIS trail of 0x5C is never taken for a backslash.
void s_Unquote(char* pcMark, const char* pcBound, char chClose, int nLangOpt) {
  const char* rd = pcMark + 1;
  char* wr = pcMark;
  while (rd < pcBound && *rd != '\0') {
    const auto ch = static_cast<unsigned char>(*rd);
    if (ch >= 0x80) {
      // A character cut by the bound or the terminator moves only what is there.
      for (int n = s_GetByteCnt(ch, nLangOpt); n > 0 && rd < pcBound && *rd != '\0'; --n)
        *wr++ = *rd++;
    } else if (ch == '\\') {
      ++rd;
      if (rd >= pcBound || *rd == '\0') break;
      *wr++ = *rd++;
    } else if (ch == static_cast<unsigned char>(chClose)) {
      break;
    } else {
      *wr++ = *rd++;
    }
  }
  *wr = '\0';
}

// Parts of a From value inside the work buffer; `nick` is null when there is none.
struct FromParts {
  const char* addr;
  const char* nick;
};

// "nick <addr>": the caller saw a "<" at `lt` and a ">" as the last byte.
FromParts split_angle(char* buf, std::size_t len, char* lt, int nLangOpt) {
  buf[len - 1] = '\0';
  if (lt == buf) return {lt + 1, nullptr};
  *lt = '\0';
  if (lt[-1] == ' ') lt[-1] = '\0';  // one blank only: "Joe  <a>" keeps "Joe "
  if (buf[0] == '"')
    s_Unquote(buf, lt, '"', nLangOpt);
  else if (buf[0] == '(')
    s_Unquote(buf, lt, ')', nLangOpt);
  return {lt + 1, buf};
}

// "addr (nick)": the last byte is ")".  The byte before the first "(" is
// cleared whatever it is; the address is everything in front of it.
FromParts split_comment(char* buf, std::size_t len, int nLangOpt) {
  char* close = buf + len - 1;
  *close = '\0';
  char* open = std::strchr(buf, '(');
  if (open == nullptr) return {buf, nullptr};
  if (open != buf) open[-1] = '\0';
  char* comment = open + 1;
  if (*comment == '"') s_Unquote(comment, close, '"', nLangOpt);
  return {buf, comment};
}

FromParts split_from(char* buf, int nLangOpt) {
  const std::size_t len = std::strlen(buf);
  if (len == 0) return {buf, nullptr};
  char* lt = std::strrchr(buf, '<');
  if (lt != nullptr && buf[len - 1] == '>') return split_angle(buf, len, lt, nLangOpt);
  if (buf[len - 1] == ')') return split_comment(buf, len, nLangOpt);
  return {buf, nullptr};
}

// A nickname that still stands in double quotes (say after decoding) loses them.
void strip_outer_quotes(char* nick) {
  const std::size_t n = std::strlen(nick);
  if (n < 2 || nick[0] != '"' || nick[n - 1] != '"') return;
  std::memmove(nick, nick + 1, n - 2);
  nick[n - 2] = '\0';
}

void empty_out(char* out, int size) {
  if (size > 0) out[0] = '\0';
}

}  // namespace

extern "C" {

TARNMAIL_API int MLG_FromParse(const char* pszFrom, char* pszEmail, int nEmailSize, char* pszNick,
                               int nNickSize, int nCharset) {
  if (pszEmail == nullptr || pszNick == nullptr) return -2;
  empty_out(pszEmail, nEmailSize);
  empty_out(pszNick, nNickSize);
  if (pszFrom == nullptr || *pszFrom == '\0') return -2;

  // nCharset is a MIME charset value; the platform's string and language
  // calls number charsets their own way, so translate it once for both.
  const int nMLG = MLC_MIMEToMLGCharset(nCharset);
  const int nLangOpt = MLG_CharsetValToOpt(nMLG);

  const std::size_t len = std::strlen(pszFrom);
  char stack_buf[kWorkSize];
  std::unique_ptr<char[]> heap_buf;
  char* buf = stack_buf;
  if (len >= kWorkSize) {
    heap_buf.reset(new (std::nothrow) char[len + 1]);
    if (heap_buf == nullptr) return -1;
    buf = heap_buf.get();
  }
  std::memcpy(buf, pszFrom, len + 1);
  MSTR_TrimSpace(buf);

  const FromParts parts = split_from(buf, nLangOpt);
  if (parts.nick != nullptr && nNickSize > 0) {
    MSTR_Copy(pszNick, size_of(nNickSize), parts.nick, nMLG);
    MSTR_Decode(pszNick);
  }
  MSTR_Copy(pszEmail, size_of(nEmailSize), parts.addr, nMLG);
  if (nNickSize > 0) strip_outer_quotes(pszNick);
  return 0;
}

TARNMAIL_API int MEML_FromParse(const char* pszFrom, char* pszEmail, int nEmailSize, char* pszNick,
                                int nNickSize) {
  return MLG_FromParse(pszFrom, pszEmail, nEmailSize, pszNick, nNickSize, MIME_CS_BIG5);
}

TARNMAIL_API int MEML_IDGet(const char* pszEmail, char* pszID, int nSize) {
  if (pszID == nullptr) return -2;
  const char* email = or_empty(pszEmail);
  const char* at = std::strrchr(email, '@');
  if (at != nullptr)
    MSTR_NCopy(pszID, size_of(nSize), email, static_cast<std::size_t>(at - email));
  else
    MSTR_Copy(pszID, size_of(nSize), email, 0);
  return 0;
}

TARNMAIL_API int MEML_DomainGet(const char* pszEmail, char* pszDomain, int nSize) {
  if (pszDomain == nullptr) return -2;
  const char* at = std::strrchr(or_empty(pszEmail), '@');
  MSTR_Copy(pszDomain, size_of(nSize), at != nullptr ? at + 1 : "", 0);
  return 0;
}

TARNMAIL_API char* MEML_DomainGet_s(const char* pszEmail, const char* pszDefaultDomain,
                                    char* pszDomain, int nzDomain) {
  static char s_domain[kStaticDomainSize];
  const char* at = std::strrchr(or_empty(pszEmail), '@');
  // Decided on the address, not on the copy: a buffer too small to hold the
  // domain still answers with the buffer.
  const bool has_domain = at != nullptr && at[1] != '\0';
  auto* deflt = const_cast<char*>(pszDefaultDomain);
  if (pszDomain != nullptr && nzDomain > 0) {
    MSTR_Copy(pszDomain, size_of(nzDomain), has_domain ? at + 1 : pszDefaultDomain, 0);
    return has_domain ? pszDomain : deflt;
  }
  if (!has_domain) return deflt;
  MSTR_Copy(s_domain, sizeof s_domain, at + 1, 0);
  return s_domain;
}

TARNMAIL_API int MEML_Cmp(const char* pszEmail1, const char* pszEmail2, int nOpt) {
  const char* a = or_empty(pszEmail1);
  const char* b = or_empty(pszEmail2);
  const char* at_a = std::strrchr(a, '@');
  const char* at_b = std::strrchr(b, '@');
  if (at_a == nullptr && at_b == nullptr) return nOpt != 0 ? MSTR_Cmp(a, b) : MSTR_CaseCmp(a, b);
  if (at_a == nullptr) return -1;
  if (at_b == nullptr) return 1;
  if (int d = MSTR_CaseCmp(at_a + 1, at_b + 1); d != 0) return d;
  const std::ptrdiff_t len_a = at_a - a;
  const std::ptrdiff_t len_b = at_b - b;
  if (len_a != len_b) {
    const std::ptrdiff_t d = len_a - len_b;
    return d > INT_MAX ? INT_MAX : d < -INT_MAX ? -INT_MAX : static_cast<int>(d);
  }
  const auto n = static_cast<std::size_t>(len_a);
  return nOpt != 0 ? MSTR_NCmp(a, b, n) : MSTR_NCaseCmp(a, b, n);
}

TARNMAIL_API int MEML_DCmp(const char* pszEmail1, const char* pszEmail2) {
  const char* at_a = std::strrchr(or_empty(pszEmail1), '@');
  const char* at_b = std::strrchr(or_empty(pszEmail2), '@');
  if (at_a != nullptr && at_b != nullptr) return MSTR_CaseCmp(at_a + 1, at_b + 1);
  if (at_a != nullptr) return 1;
  if (at_b != nullptr) return -1;
  return 0;
}

}  // extern "C"
