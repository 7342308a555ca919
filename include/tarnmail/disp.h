/*
 * tarnmail/disp.h - the display context and the output sink.
 *
 * One rendering of a decoded message (an HME from tarnmail/decode.h) is
 * driven by one MIME_DISP.  Copy one of the ready contexts below into a
 * record of your own, adjust it with the set-up calls, run it, collect the
 * result and shut it down:
 *
 *     MIME_DISP d = mailreadDE;
 *     mime_disp_setfp(&d, stdout);            (before init: init only fills a null stream)
 *     mime_disp_init(&d, &dec.result, "", "/path/to/forms");
 *     mime_disp_run(&d);
 *     mime_disp_shutdown(&d);
 *
 * Everything the rendering writes goes through MMIME_Fprintf, MMIME_Fputs
 * and MMIME_Fwrite, which send it to the stream, a fixed buffer, a growing
 * buffer, or the stream and one buffer at once (MIME_DISP_OUT_* bits).
 * Set-up calls always return 0.  Single-threaded: the ready contexts and
 * the UTF-7 switch are process-wide.
 */
#ifndef TARNMAIL_DISP_H
#define TARNMAIL_DISP_H

#include <stddef.h>
#include <stdio.h>

#include "tarnmail/api.h"
#include "tarnmail/decode.h"

#ifdef __cplusplus
extern "C" {
#endif

/* disp_flag bits. */
#define MIME_DISP_INCLUDE_PAGE    0x1      /* include, reply, forward, draft pages (not consulted) */
#define MIME_DISP_NO_INLINE_ATT   0x2      /* no embedded media; attachments hidden unless message/rfc822 */
#define MIME_DISP_TEXT_MODE       0x4      /* HTML bodies reduced to text; "$iftextmode" first branch */
#define MIME_DISP_RFC822_INLINE   0x8      /* message/rfc822 shown only with disposition "inline" */
#define MIME_DISP_READ_PAGE       0x10     /* reading pages (not consulted) */
#define MIME_DISP_UTF7            0x20     /* a message with a UTF-7 part renders as UTF-8 */
#define MIME_DISP_OUT_STREAM      0x40     /* output to pfOut */
#define MIME_DISP_OUT_FIXED       0x80     /* output into the fixed buffer; wins over OUT_GROWING */
#define MIME_DISP_NO_FORM_HEADER  0x100    /* message headers are not rendered with the header form */
#define MIME_DISP_LIST_SHOWN_IMG  0x200    /* list referenced images among the attachments too */
#define MIME_DISP_NO_BODY         0x400    /* headers only */
#define MIME_DISP_IFEXT           0x800    /* "$ifext" first branch */
#define MIME_DISP_PLAIN_HEADER    0x1000   /* with NO_FORM_HEADER: header without the form */
#define MIME_DISP_IFDC            0x2000   /* keep "$ifdc" sections */
#define MIME_DISP_PREVIEW         0x4000   /* preview links for extensions in preview_type */
#define MIME_DISP_IFDL            0x8000   /* keep "$ifdl" sections */
#define MIME_DISP_IFTRUST         0x10000  /* keep "$iftrust" sections */
#define MIME_DISP_SENDER_INADB    0x20000  /* "$ifsender_inadb" first branch */
#define MIME_DISP_IF_BLOCK_IMG    0x40000  /* keep "$if_have_block_img" sections */
#define MIME_DISP_OUT_GROWING     0x80000  /* output into the growing buffer */
#define MIME_DISP_DOCVIEWER       0x100000 /* "$ifdocviewer" sections for docviewer types */
#define MIME_DISP_NO_INLINE_TEXT_ATT 0x200000 /* text/plain attachments are not shown inline */

/* disp_image_flag bits. */
#define MIME_DISP_IMG_IMAGE 0x1
#define MIME_DISP_IMG_VIDEO 0x2
#define MIME_DISP_IMG_AUDIO 0x4
#define MIME_DISP_IMG_FLASH 0x8

/* disp_alt_flag bits (multipart/alternative). */
#define MIME_DISP_ALT_HTML   0x1 /* prefer the HTML alternative (or a nested multipart) */
#define MIME_DISP_ALT_PLAIN  0x2 /* prefer the plain-text alternative */
#define MIME_DISP_ALT_OTHERS 0x4 /* also render the alternatives that are neither text nor image */

struct MIME_DISP;

/* Takes over the rendering of a text or HTML body (no ready context sets one). */
typedef void disp_func_ptr(char* pszText);
/* Body, form or file-name filter: returns the text to go on with. */
typedef char* (*filter_func_ptr)(struct MIME_DISP* disp_info, char* pszText, int nFlag);
/* Maps a saved part to the directory of its web path: called with the
 * file-name prefix, the configured directory and 1. */
typedef char* (*filename2path_ptr)(char* pszPrefix, char* pszPath, int nFlag, ...);
/* Attachment viewer: the filtered body, the form text and the name of the
 * page's charset; writes its own output. */
typedef char* (*attshow_func_ptr)(char* pszBody, char* pszForm, const char* pszCharset);

/* One registered attachment viewer. */
typedef struct attShow {
  char ctype[128];            /* content-type prefix to match (any case) */
  char form[256];             /* form file name */
  int nDefCset;               /* charset value for parts that declare none */
  attshow_func_ptr showfunc;
  struct attShow* next;
  int nFlags;                 /* stored, not consulted */
} attShow;

/* One saved part that has a Content-ID. */
typedef struct fileCID {
  char* fileid;
  char* filename;
  char ext[28];
  int flag;                   /* 1 once an HTML body referenced the part */
  char* cid;                  /* without angle brackets */
  int ctype;                  /* content class (MIME_CT_*) */
  struct fileCID* next;
} fileCID;

/* One saved part that has a Content-Location. */
typedef struct fileLOC {
  char* fileid;
  char* filename;
  char ext[28];
  int flag;
  char* loc;
  int ctype;
  struct fileLOC* next;
} fileLOC;

typedef struct MIME_DISP {
  char preview_type[256];     /* "%ext%ext%": extensions offered for preview */
  disp_func_ptr* disp_func;
  char form_base[128];        /* directory of the form files ("%s/%s") */
  char header_form[128];
  char vcard_form[128];       /* empty: vCards are not rendered */
  char att_cache_level;       /* carried, not consulted */
  char disp_base[128];        /* prefix of every generated link */
  char filedownload[128];     /* directory of saved parts */
  char attFilePrefix[128];    /* per-message prefix of saved parts' names */
  char attFileDir1[5];        /* carried, not consulted */
  char attFileDir2[5];
  char attFileDir3[5];
  int disp_flag;              /* MIME_DISP_* bits */
  int text2disp_flag;
  int html2disp_flag;
  int disp_image_flag;        /* MIME_DISP_IMG_* bits */
  int disp_alt_flag;          /* MIME_DISP_ALT_* bits */
  char mark_begin;            /* highlight marker bytes */
  char Q_mark_begin;
  char Q_mark_end;
  char mark_end;
  const char* Q_link;         /* search URL prefix of query highlights */
  const char* Q_mark_color;
  const char* mark_color;
  char reply_sign[16];
  filter_func_ptr Filter1;
  filter_func_ptr Filter2;
  filter_func_ptr Filter3;
  filter_func_ptr Filter4;
  filter_func_ptr Filter5;
  fileCID _fileCID;           /* head nodes of the saved-part lists */
  fileLOC _fileLOC;
  fileCID* fileCID_ptr;
  fileLOC* fileLOC_ptr;
  int _show;
  int _MHTML_found;
  char is_first_header;
  char is_block_image;
  HME* showdata;              /* the decoded message */
  const char* homesrv_url;
  int txt_show_size;          /* largest attachment-disposition body shown inline */
  filename2path_ptr filename2path;
  FILE* pfOut;
  long nTotalBytesRetrict;    /* bytes still free at pcOutBuf */
  char* pcOutBuf;             /* write position in the active buffer */
  long nResultSize;           /* bytes in the growing buffer, NUL not counted */
  char* pcResult;             /* the growing buffer (owned by the context) */
  const char* pszVar1;        /* "$var1" .. "$var3" of the forms; kept, not copied */
  const char* pszVar2;
  const char* pszVar3;
  int nDispCharsetVal;
  int nFormCharsetVal;
  int nTextCharsetVal;
  filter_func_ptr fpFormFilter;
  char cgipath[128];          /* download program in links */
  char webrelatepath[128];    /* web path of the download directory */
  attShow* pstAttShowList;
  int nDefTextCharsetVal;
  char downfile_arg[16];
  char logo_url[124];
  void* MIME_ptr;             /* the context's arena */
} MIME_DISP;

/* Ready display contexts: copy one, then adjust the copy. */
TARNMAIL_API extern MIME_DISP mailhdrDE;
TARNMAIL_API extern MIME_DISP imapDE;
TARNMAIL_API extern MIME_DISP downfileDE;
TARNMAIL_API extern MIME_DISP mailprnDE;
TARNMAIL_API extern MIME_DISP mailreadDE;
TARNMAIL_API extern MIME_DISP msgreadDE;
TARNMAIL_API extern MIME_DISP html_incDE;
TARNMAIL_API extern MIME_DISP html_fwdDE;
TARNMAIL_API extern MIME_DISP html_replyDE;
TARNMAIL_API extern MIME_DISP html_draftDE;
TARNMAIL_API extern MIME_DISP text_incDE;
TARNMAIL_API extern MIME_DISP text_fwdDE;
TARNMAIL_API extern MIME_DISP text_replyDE;
TARNMAIL_API extern MIME_DISP text_draftDE;
TARNMAIL_API extern MIME_DISP imodeDE;
TARNMAIL_API extern MIME_DISP wapDE;
TARNMAIL_API extern MIME_DISP show_htmlDE;
TARNMAIL_API extern MIME_DISP mailsendDE;
TARNMAIL_API extern MIME_DISP show_syslogDE;

/* Binds the context to a decoded message and resets the per-rendering
 * state; disp_base and form_base are copied when not null. */
TARNMAIL_API int mime_disp_init(MIME_DISP* disp_info, HME* hme, const char* disp_base,
                                const char* form_base);
TARNMAIL_API int mime_disp_setfp(MIME_DISP* disp_info, FILE* fp);
TARNMAIL_API int mime_disp_setcharset(MIME_DISP* disp_info, int nFormCharsetVal, int nDispCharsetVal);
TARNMAIL_API int mime_disp_setdefcharset(MIME_DISP* disp_info, int nTextCharsetVal);
/* Installs a fixed output buffer of `size` bytes (set MIME_DISP_OUT_FIXED
 * too).  What lands in it stays a NUL-terminated text inside those bytes;
 * output beyond the limit is cut silently. */
TARNMAIL_API int mime_disp_setbuf(MIME_DISP* disp_info, char* pcBuf, long size);
/* The growing buffer and its length; it stays owned by the context. */
TARNMAIL_API int mime_disp_getresult(MIME_DISP* disp_info, char** ppcBuf, long* pnSize);
TARNMAIL_API int mime_disp_setvar(MIME_DISP* disp_info, const char* pszVar1, const char* pszVar2,
                                  const char* pszVar3);
TARNMAIL_API int mime_disp_setfilter1(MIME_DISP* disp_info, filter_func_ptr FFP);
TARNMAIL_API int mime_disp_setfilter2(MIME_DISP* disp_info, filter_func_ptr FFP);
TARNMAIL_API int mime_disp_setfilter3(MIME_DISP* disp_info, filter_func_ptr FFP);
TARNMAIL_API int mime_disp_setfilter4(MIME_DISP* disp_info, filter_func_ptr FFP);
TARNMAIL_API int mime_disp_setfilter5(MIME_DISP* disp_info, filter_func_ptr FFP);
TARNMAIL_API int mime_disp_setformfilter(MIME_DISP* disp_info, filter_func_ptr FFP);
TARNMAIL_API int mime_disp_set_downfilepath(MIME_DISP* disp_info, const char* bathpath,
                                            filename2path_ptr filename2path);
TARNMAIL_API int mime_disp_set_webrelatepath(MIME_DISP* disp_info, const char* path);
TARNMAIL_API int mime_disp_set_cgipath(MIME_DISP* disp_info, const char* path);
/* Registers an attachment viewer.  Only the first registration takes
 * effect: later ones are allocated but not linked in. */
TARNMAIL_API int mime_disp_setattshow(MIME_DISP* disp_info, const char* ctype, const char* form,
                                      attshow_func_ptr FFP, int nDefCsetVal, int nFlags);
TARNMAIL_API int mime_disp_setdownfile_arg(MIME_DISP* disp_info, const char* arg);
/* Preview extensions: lower case, each enclosed in "%" ("%pdf%doc%"). */
TARNMAIL_API int mime_engine_set_preview_ext(MIME_DISP* disp_info, const char* extlist);

/* Renders the message; mime_view_run only prepares (registers the parts an
 * HTML body references) and writes no page. */
TARNMAIL_API int mime_disp_run(MIME_DISP* disp_info);
TARNMAIL_API int mime_view_run(MIME_DISP* disp_info);
/* Releases the context's arena and the growing buffer. */
TARNMAIL_API int mime_disp_shutdown(MIME_DISP* disp_info);

/* The output sink.  Each returns the stream call's result when
 * MIME_DISP_OUT_STREAM is set, otherwise the bytes counted for the buffer
 * (0 when no target is set). */
TARNMAIL_API int MMIME_Fprintf(MIME_DISP* disp_info, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));
TARNMAIL_API int MMIME_Fputs(MIME_DISP* disp_info, const char* str);
/* fwrite's argument order; the buffers take `size` bytes (callers pass
 * nmemb 1), the stream gets size x nmemb. */
TARNMAIL_API int MMIME_Fwrite(MIME_DISP* disp_info, const void* ptr, size_t size, size_t nmemb);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_DISP_H */
