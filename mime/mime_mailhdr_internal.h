/*
 * mime_mailhdr_internal.h - what the header record's files share.
 * Not installed: the shared library keeps these hidden; tests reach them
 * through the static build.
 */
#ifndef TARNMAIL_MIME_MAILHDR_INTERNAL_H
#define TARNMAIL_MIME_MAILHDR_INTERNAL_H

#include <cstddef>

#include "tarnmail/mailhdr.h"

/* Unfolds the header text in [bgn, end) in place: a CR before LF goes, an
 * LF followed by blanks goes with all of them ("a\n b" gives "ab"), any
 * other LF stays.  Stops early at a NUL.  The result is terminated, at
 * worst at `end`, which must therefore be writable; returns the position
 * of that terminator. */
char* rfc822_unfold(char* bgn, char* end);

/* Quote removal over the first `len` bytes of *pstr: an opening double
 * quote not escaped by a backslash moves *pstr past it, the next unescaped
 * one becomes the end of the string.  1 when both were found, else 0 (an
 * opening quote alone has still moved the pointer). */
int m_str_unquote(char** pstr, int len);

/* Decodes one field of the record in place (encoded words, then Japanese
 * text to Shift_JIS); sets *isjp to 1 for Japanese text.  Returns the
 * charset name (def_cset when the text named none), or NULL for an absent
 * or empty string. */
const char* s_my_str_decode(mailhdr* mhdr, char** data, int* isjp, const char* def_cset);

/* The parse behind mailhdr_parse (header_decode 1) and mailhdr_parse_raw (0). */
int s_mailhdr_parse_internal(mailhdr* mhdr, int header_decode);

/* Puts a converted field where it fits: a longer text goes to the top of
 * the working buffer when there is room above the preview (data_tail moves
 * below it), anything else replaces the field in place, cut to its old
 * length `inlen` without splitting a character of `cut_charset`. */
void mailhdr_place_converted(mailhdr* mhdr, char** field, const char* converted, size_t inlen, int cut_charset);

/* The message/partial parameters in `params`: partial_total and
 * partial_number are set when given; the id's position and length come
 * back through *id and *idlen (NULL and 0 without one). */
void mailhdr_partial_params(mailhdr* mhdr, const char* params, char** id, size_t* idlen);

/* atoi without its undefined overflow: leading blanks, a sign, digits;
 * out-of-range values saturate. */
int mailhdr_atoi(const char* s);

/* free() unless the pointer is NULL or the record's null_buf; the field is
 * cleared. */
void m_fakefree(mailhdr* mhdr, char** field);
/* Frees the hosts and envelope entries up to the first NULL one. */
void free_hosts_envelope(mailhdr* mhdr);
/* Replaces every hosts and envelope entry by a heap copy; a copy that
 * cannot be made ends its list there. */
void dup_hosts_envelope(mailhdr* mhdr);

#endif /* TARNMAIL_MIME_MAILHDR_INTERNAL_H */
