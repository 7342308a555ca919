/* tarnmail/filter.h - content filters that make an HTML body harmless
 * before it is shown, and a small URL decoder.  They work on plain byte
 * strings and need no decode or display context. */
#ifndef TARNMAIL_FILTER_H
#define TARNMAIL_FILTER_H

#include "tarnmail/api.h"
#include "tarnmail/disp.h"

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


/* ------------------------------------------------------------------------
 * HTML rewriting for display.  Steered by the context's html2disp_flag;
 * everything goes through the output sink (tarnmail/disp.h).
 * ---------------------------------------------------------------------- */

/* Writes the HTML body `data` into the page so that it cannot take the page
 * over: script-like elements dropped, event attributes disabled (onload=
 * becomes xonload=), document-level elements as placeholder tags, links
 * into a new window, mailto: links to the compose program, cid: and
 * Content-Location references as links to the saved parts, external images
 * blocked.  `data` is rewritten in place (script words defused) and must be
 * NUL-terminated; the filters Filter1..Filter5 of the context run first.
 * `cbase`, when not NULL, is written first as "<base href=%s>".  Nothing
 * happens for a NULL data. */
TARNMAIL_API void html2disp(char* data, char* cbase, MIME_DISP* disp_info);

/* Writes nothing: with html2disp_flag 0x800, sets is_block_image to 1 when
 * an img tag of `data` shows a picture that is not a saved part of the
 * message, stopping at the first. */
TARNMAIL_API void view_html_entity(char* data, char* cbase, MIME_DISP* disp_info);

/* When *q begins with a URI attribute's name (background, datasrc, href,
 * longdesc, src, usemap, classid, codebse, data, cite, action, profile,
 * for; any case), white space, '=', white space, an optional double quote
 * (which toggles *inquote), an optional single quote and white space:
 * writes all of that, moves *q to the value and returns 1; else 0. */
TARNMAIL_API int lookaheadURI(char** q, MIME_DISP* disp_info, int* inquote);

/* ------------------------------------------------------------------------
 * Plain text to HTML.
 * ---------------------------------------------------------------------- */

/* filter_flags bits of text2disp_filter: which of Filter1 to Filter5 run. */
#define T2D_FILTER1 1
#define T2D_FILTER2 4
#define T2D_FILTER3 8
#define T2D_FILTER4 16
#define T2D_FILTER5 32
#define T2D_FILTER_ALL 61

/* Renders a NUL-terminated text as HTML through the output sink, steered
 * by text2disp_flag: escaped, URLs and mail addresses linked, quoted lines
 * marked; runs Filter1 to Filter5.  The text is not modified. */
TARNMAIL_API void text2disp(char* data, MIME_DISP* disp_info);
/* The same with the filters chosen by filter_flags (T2D_FILTER*). */
TARNMAIL_API void text2disp_filter(char* data, MIME_DISP* disp_info, int filter_flags);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_FILTER_H */
