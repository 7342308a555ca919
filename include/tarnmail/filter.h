/* tarnmail/filter.h - content filters that make an HTML body harmless
 * before it is shown, and a small URL decoder.  They work on plain byte
 * strings and need no decode or display context. */
#ifndef TARNMAIL_FILTER_H
#define TARNMAIL_FILTER_H

#include "tarnmail/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Defuses the words "javascript", "vbscript" and "expression" in place,
 * also when their letters are written as numeric character entities or
 * broken by CR, LF, tab, backslash or the entities of those controls: the
 * last letter of the word becomes an x written the same way ("javascrip"
 * + "x", "&#116;" -> "&#120;").  Looks at no more than nLen bytes and stops
 * at a NUL; the content keeps its length.  With bInTagOnly non-zero only
 * text between '<' and '>' is examined.  Returns 1 when any letter form of
 * the three words was met (even a single first letter), 0 otherwise or for
 * a NULL pszContent. */
TARNMAIL_API int replace_script(char* pszContent, int nLen, int bInTagOnly);

/* Copies at most nInputBufLen bytes of pszInput (stopping at a NUL) into
 * pszOutput, which holds nOutputBufSize bytes, leaving out whole elements
 * selected by nFlags: 1 script, 2 iframe, 4 xml, 8 object (start tag,
 * content and end tag) and 16 embed (the tag alone).  Names are matched as
 * prefixes after '<' ("<scripts>" counts as script).  The copy is cut, and
 * still NUL-terminated, when the output is too small.  Returns 1 when at
 * least one complete start tag was removed, 0 otherwise or for a NULL
 * input. */
TARNMAIL_API int remove_script_block(const char* pszInput, int nInputBufLen, char* pszOutput,
                                     int nOutputBufSize, int nFlags);

/* Decodes URL encoding ("%XX" and '+') in place.  The two bytes after a
 * '%' are not checked to be hexadecimal digits; a '%' with fewer than two
 * bytes after it is kept as it is.  Always returns 0. */
TARNMAIL_API int str_html_dec(char* pszStr);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_FILTER_H */
