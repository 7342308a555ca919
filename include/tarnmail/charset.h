/* tarnmail/charset.h - MIME charset values and the charset queries over a tree. */
#ifndef TARNMAIL_CHARSET_H
#define TARNMAIL_CHARSET_H

#include "tarnmail/api.h"
#include "tarnmail/decode.h"

#ifdef __cplusplus
extern "C" {
#endif

/* MIME charset values (MIME_HEADER.charset); 0: no known charset. */
enum {
  MIME_CS_NONE = 0,
  MIME_CS_ISO2022JP = 1,
  MIME_CS_BIG5 = 2,
  MIME_CS_UTF8 = 3,
  MIME_CS_EUCJP = 4,
  MIME_CS_UTF7 = 5,
  MIME_CS_ISO8859_1 = 6,
  MIME_CS_ISO8859_2 = 7,
  MIME_CS_ISO8859_3 = 8,
  MIME_CS_ISO8859_4 = 9,
  MIME_CS_GB2312 = 10,
  MIME_CS_EUCKR = 11,
  MIME_CS_GB18030 = 12
};

typedef struct MIMECharsetMapEntry {
  const char* pszCharset;
  int nValue;
} MIMECharsetMapEntry;

/* The known charset names, ended by an entry with a NULL name. */
TARNMAIL_API extern const MIMECharsetMapEntry g_pstCharsetList[];

TARNMAIL_API int MLC_CharsetToMIMEVal(const char* pszCharset);
TARNMAIL_API int MLC_MIMEToMLGCharset(int nCharset);
TARNMAIL_API int MLC_MLGToMIMECharset(int nCharset);

TARNMAIL_API int mime_has_charset(ME* me, int nMIME_Charset);
TARNMAIL_API char* mime_get_charset(ME* me);
TARNMAIL_API char* mime_get_subject_charset(ME* me);
TARNMAIL_API int mime_diff_charset(ME* me, char* charset);
TARNMAIL_API int mime_refill_charset(ME* me, char* charset_str);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_CHARSET_H */
