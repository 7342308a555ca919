/* tarnmail/encword.h - RFC 2047 encoded-word decoding. */
#ifndef TARNMAIL_ENCWORD_H
#define TARNMAIL_ENCWORD_H

#include "tarnmail/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Decodes the encoded words of a header value in place and removes its
 * folding; returns the charset name met (a static buffer, "" when none), or
 * NULL for a NULL argument. */
TARNMAIL_API char* MSTR_Decode(char* str);
/* Value of one hexadecimal digit, -1 for any other byte. */
TARNMAIL_API int qp_code(int x);
/* Value of one base64 character of the standard alphabet, -1 for any other. */
TARNMAIL_API int base64_code(int x);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_ENCWORD_H */
