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
/* Cuts uuencoded blocks out of a text body as entities that follow it. */
void OLD_UUE_DECODE(ME* me, MIME_DECODE* decode_info);
/* Retypes an application/octet-stream part from its content. */
void retyping(MIME_HEADER* mime, const char* body, int len);
/* Links one entity per file of a TNEF body behind `me`; returns the entity
 * the walk goes on from. */
ME* tnef_extend(ME* me, MIME_DECODE* decode_info);
/* A body declared ISO-8859-1 to -4 whose bytes say otherwise: returns the
 * MIME charset value it really has (charset_str follows), else `charset`. */
int retyping_charset(ME* me, int charset, char* charset_str, int len);
/* Converts every field value of a header block to the display charset
 * (MLG value) into arena copies; ctype_str and contdisp follow. */
void encode_header(ME_HEADER* h, int display_charset, MIME_DECODE* decode_info);
/* Replaces a body by its conversion (a new arena copy); body_bgn,
 * datalen and body_end follow. */
void mime_replace_body(ME* me, const char* text, size_t len, MIME_DECODE* decode_info);
/* Japanese text to Shift_JIS: JIS for MIME charset 1, EUC for 4; returns
 * an arena copy, or NULL when nothing changed. */
char* mime_jp_to_sjis(const char* text, int mime_charset, MIME_DECODE* decode_info);

/* Attachment names and file ids. */
void get_filename(MIME_HEADER* mime, MIME_DECODE* decode_info);
char* s_ParamCont(char* pszStr, const char* pszParamName, char* pszBuf, int nBufSize, char* pszCharsetBuf,
                  int nCharsetBufSize);
char* random_att_name(int x, MIME_HEADER* mime, MIME_DECODE* decode_info);
char* dup_att_name(char* name, MIME_DECODE* decode_info);
char* des2att_name(char* des, MIME_DECODE* decode_info);
void s_generate_file_id(MIME_HEADER* pstMimeHeader, int nFileNo, char* pszFileID, size_t nzFileID);
/* Increments the run's file-id counter and gives the part its id. */
void mime_next_file_id(MIME_HEADER* mime, MIME_DECODE* decode_info);

/* Charsets. */
int strip_charset(char* ctype_str, MIME_DECODE* decode_info, char* charset_str, int len);
/* MIME charset value of a declared charset name by the prefix rule of
 * strip_charset; `fallback` for names it does not know. */
int charset_prefix_value(const char* charset_name, int fallback);
/* Decodes the encoded words of every field of a header block in place;
 * returns 1 when some field held encoded text, else 0. */
int decode_header(ME_HEADER* h, char* charset_str, int len, MIME_DECODE* decode_info);

#endif /* TARNMAIL_MIME_INTERNAL_H */
