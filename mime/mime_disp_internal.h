/*
 * mime_disp_internal.h - functions and state the display engine's files
 * share.  Not installed: the shared library keeps these hidden; tests reach
 * them through the static build.
 */
#ifndef TARNMAIL_MIME_DISP_INTERNAL_H
#define TARNMAIL_MIME_DISP_INTERNAL_H

#include <cstddef>

#include "tarnmail.h"
#include "tarnmail/disp.h"

/* Set by mime_disp_run and mime_view_run when a message with a UTF-7 part
 * renders as UTF-8; read by the walk while it renders. */
extern int MMIME_ConvertUtf72Utf8;

/* ---- context helpers (mime_disp_engine.cpp) ---- */

/* Zero-filled block from the context's arena (MIME_ptr, created on first
 * use); the whole arena goes at mime_disp_shutdown. */
void* mime_disp_alloc(MIME_DISP* disp_info, size_t size);
/* Path of a form file: "%s/%s" of form_base and `form` when form_base is
 * not empty, else `form` alone; cut to nzPath - 1 bytes.  Returns pszPath. */
char* mime_disp_form_path(const MIME_DISP* disp_info, const char* form, char* pszPath, size_t nzPath);

/* ---- the growing output buffer (mime_output.cpp) ---- */

/* Allocates the first 65,536 free bytes of the growing buffer behind the
 * nResultSize bytes already counted; returns the new pcResult (NULL when
 * the memory cannot be had). */
char* s_DynamicBufInit(MIME_DISP* disp_info);
/* Grows the buffer to the larger of 1.7 times its capacity and 1.7 times
 * (nResultSize + nDataSize).  0, or -1 when it cannot grow: the buffer is
 * then released and pcResult is NULL. */
int s_DynamicBufExt(MIME_DISP* disp_info, long nDataSize);

/* ---- the rendering walk ---- */

void disp_mime(ME* me, MIME_DISP* disp_info);
void show_m_body(ME* me, MIME_DISP* disp_info);
void parse_child(ME* me, MIME_DISP* disp_info);
void disp_alt_mail(ME* me, MIME_DISP* disp_info);
void disp_alt_others(ME* me, MIME_DISP* disp_info);
int showed_CID(const char* cid, MIME_DISP* disp_info);
int showed_LOC(const char* loc, MIME_DISP* disp_info);
int showed_contentdisp(const char* cid, const char* loc, MIME_DISP* disp_info);
void prepare_view(ME* me, MIME_DISP* disp_info);
void view_m_noheader(ME* me, MIME_DISP* disp_info);
void view_mime(ME* me, MIME_DISP* disp_info);
void view_alt_mail(ME* me, MIME_DISP* disp_info);
void view_child(ME* me, MIME_DISP* disp_info);
void view_m_body(ME* me, MIME_DISP* disp_info);

/* ---- message headers ---- */

void show_m_header(ME* me, MIME_DISP* disp_info);
void show_m_noheader(ME* me, MIME_DISP* disp_info);
void show_address(char* mailaddress, char* bgn, char* end, MIME_DISP* disp_info, int charset);
void show_single_address(char* mailaddress, char* bgn, char* end, MIME_DISP* disp_info, int charset);
void show_mail_header_disp_func(RFC822_HEADER* rfc822, MIME_DISP* disp_info);

/* ---- saved parts and the attachment list ---- */

/* Computes attFilePrefix for the message of `showdata`. */
void init_cache_path(MIME_DISP* disp_info);
void prepare_attachment(ME* me, MIME_DISP* disp_info);
void cid2link(char* cid, char* filename, char* file_id, char* ctypestr, int ctypeint,
              char* charset_str, MIME_DISP* disp_info);
void loc2link(char* loc, char* filename, char* file_id, char* ctypestr, int ctypeint,
              char* charset_str, MIME_DISP* disp_info);
void sort_loc(MIME_DISP* disp_info);
int HaveShowAttachment(ME* me);
int is_preview_type(const char* ext, const char* ext_list);
int is_docviewer_type(const char* ext);
void disp_attachment(ME* me, char* bgn, char* end, MIME_DISP* disp_info);

/* ---- shared by the walk and the saved parts (mime_attach.cpp) ---- */

/* Extension of a saved part as it goes into file names and links: ct2ext
 * of the content type and file name, every byte but letters, digits and
 * - _ + turned into "_".  Returns pszExt. */
char* mime_att_ext(const char* ctype_str, const char* filename, char* pszExt, size_t nzExt);
/* Passes a text through Filter1 .. Filter5 (each that is set, with 0);
 * returns the last filter's answer. */
char* mime_disp_filters(MIME_DISP* disp_info, char* text);
/* Whether a Content-Disposition value begins with "attachment" (any case). */
bool mime_is_attachment_disp(const char* contdisp);

/* ---- vCard (mime_vcard.cpp) ---- */

/* Writes the card of a text/x-vcard body; `pszForm` is the vCard form. */
void disp_vcard(char* pszBody, char* pszForm, MIME_DISP* disp_info);

#endif /* TARNMAIL_MIME_DISP_INTERNAL_H */
