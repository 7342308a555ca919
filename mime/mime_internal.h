/*
 * mime_internal.h - functions the decoding engine's files share.
 * Not installed: the shared library keeps these hidden; tests reach them
 * through the static build.
 */
#ifndef TARNMAIL_MIME_INTERNAL_H
#define TARNMAIL_MIME_INTERNAL_H

#include <cstddef>

#include "tarnmail.h"

/* The first header block of a run not yet parsed (content-type rule 22). */
extern int nFirstTimeStripHeader;

/* Zero-filled block from the run's arena. */
void* mime_alloc(MIME_DECODE* decode_info, size_t size);
/* Arena copy of len bytes, NUL-terminated. */
char* mime_strndup(MIME_DECODE* decode_info, const char* s, size_t len);

/* Header block parsing. */
void header_strip_parse(ME* me, int isrfc822, const char* default_type, MIME_DECODE* decode_info);
void strip_header(ME_HEADER* h, char* bgn, char* end, MIME_DECODE* decode_info);
void fill_mime_header(ME_HEADER* h, const char* default_type, MIME_DECODE* decode_info);
int fill_mime_header_ctype(ME_HEADER* h);
void fill_rfc822_header(ME_HEADER* h, MIME_DECODE* decode_info);
char** dup_pp_buf(char** pp_buf, MIME_DECODE* decode_info);
int he_convert_null(HE* header_ent);
void mime_unfold(char* str);
char* mime_dos2unix(char* buf, int len);

/* Multipart structure walk. */
void mime_strip(ME* me, MIME_DECODE* decode_info);
char* mime_strip_parse(ME* me, char* p_boundary, int isrfc822, const char* default_type,
                       MIME_DECODE* decode_info, int curr_level);
char* mime_boundary_find(char* bgn, char* end, char* boundary, int b_size);
char* mime_body_end_fill(ME* me, char* body_end, char* p_boundary);

/* Body decoding walk. */
void mime_decode(ME* me, char d_enc_type, MIME_DECODE* decode_info);

/* Charsets. */
int strip_charset(char* ctype_str, MIME_DECODE* decode_info, char* charset_str, int len);
/* Decodes the encoded words of every field of a header block in place;
 * returns 1 when some field held encoded text, else 0. */
int decode_header(ME_HEADER* h, char* charset_str, int len, MIME_DECODE* decode_info);

#endif /* TARNMAIL_MIME_INTERNAL_H */
