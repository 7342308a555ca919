// msg_utility_rcpt_internal.h - the recipient list's byte-level helpers, for
// the list code itself and for the tests.
#ifndef TARN_MSG_UTILITY_RCPT_INTERNAL_H
#define TARN_MSG_UTILITY_RCPT_INTERNAL_H

#include <cstddef>

// Length of the double-byte (or GB18030 four-byte) character at p, 0 when p
// starts a single byte.  nCharset is a MIME charset value; 1 asks the
// platform about Shift_JIS, anything else uses the lead-byte test shared by
// Big5, GB, EUC and Shift_JIS.  Never reads past a NUL.
int ChkWideChar(const char* p, int nCharset);

// Whether the ";" at pcSemi ends a numeric character reference ("&#123;",
// "&#D123;" or "&#x1F;"), looking no further back than pcStart.
bool s_ChkUniSemicolon(const char* pcStart, const char* pcSemi);

// Copies pszSrc into pszDst (nzDst bytes, terminator included) without
// splitting a character as ChkWideChar with charset 0 sees it.
void WideCharChkCopy(char* pszDst, std::size_t nzDst, const char* pszSrc);

#endif
