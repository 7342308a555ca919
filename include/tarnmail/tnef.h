/*
 * tarnmail/tnef.h - the TNEF reader.
 *
 * Reads an application/ms-tnef body (winmail.dat) into a list of records:
 * the message's own property record and one record per attachment, in
 * stream order.  The reader never copies data: every data pointer of a
 * record points into the caller's buffer, which must outlive the list.
 * Every length and offset of the stream is checked against the bytes that
 * remain, so a damaged stream yields the records read up to the damage and
 * a negative status, never a read outside the buffer.
 *
 * A typical walk over the files of a body:
 *
 *   int nStat = 0;
 *   TNEF_Attach* pstList = MLC_TNEFParse(pcBody, unBodyLen, &nStat);
 *   for (TNEF_Attach* p = pstList; p; p = p->pstNext) {
 *     char szName[256], szCharset[32];
 *     int nUTF8 = 0;
 *     if (MLC_TNEFFilename(p, szName, sizeof szName, &nUTF8) != 0)
 *       continue;                        (no file data: the message record)
 *     MLC_TNEFCharset(p, szCharset, sizeof szCharset);   ("" when unknown)
 *     ... p->pvFileData, p->unFileLen ...
 *   }
 *   MLC_TNEFFree(pstList);
 */
#ifndef TARNMAIL_TNEF_H
#define TARNMAIL_TNEF_H

#include <stddef.h>
#include <stdint.h>

#include "tarnmail/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Statuses of the reader (0 is success). */
#define TNEF_ERR_NOMEM     (-1) /* an allocation failed */
#define TNEF_ERR_ARG       (-2) /* missing argument; a stream without a signature */
#define TNEF_ERR_SHORT     (-3) /* checksum mismatch, or the data ends too soon */
#define TNEF_ERR_PROPTYPE  (-4) /* a property of a type the reader does not know */
#define TNEF_ERR_CODEPAGE  (-6) /* a code page with no charset name */

/* Flag of MLC_MAPIPropsParse: print a trace of the block on stdout. */
#define TNEF_MAPI_TRACE 0x1

/* A TNEF date-time. */
typedef struct TNEF_Date {
  uint16_t unYear;
  uint16_t unMonth;
  uint16_t unDay;
  uint16_t unHour;
  uint16_t unMinute;
  uint16_t unSecond;
  uint16_t unWeek;
} TNEF_Date;

/* One value of a MAPI property. */
typedef struct MAPI_Val_t {
  uint32_t unSize; /* byte count of the value */
  uint32_t unIID;  /* interface id of an object value (type 13) */
  void* pvData;    /* the value's bytes, inside the parsed buffer */
} MAPI_Val_t;

typedef struct MAPI_GUID_t {
  uint32_t data1;
  uint16_t data2;
  uint16_t data3;
  uint8_t data[8];
} MAPI_GUID_t;

/* One MAPI property. */
typedef struct MAPI_Prop_t {
  uint16_t unID;          /* property id; for a named property its numeric name */
  uint16_t unType;        /* property type; 0x1000 marks a multi-valued one */
  MAPI_GUID_t* pstGUID;   /* not filled (NULL) */
  char* pszName;          /* not filled: string names are skipped */
  uint32_t unNameLen;     /* not filled */
  uint32_t unCount;       /* number of values in pstVals */
  MAPI_Val_t* pstVals;    /* malloc'd array of unCount values */
} MAPI_Prop_t;

/* A block of MAPI properties. */
typedef struct TNEF_MAPI_t {
  uint32_t unCount;       /* number of properties in pstProps */
  int nProperty;          /* free for the caller; the reader leaves it alone */
  MAPI_Prop_t* pstProps;  /* malloc'd array of unCount properties */
} TNEF_MAPI_t;

/* One record of the list. */
typedef struct TNEF_Attach {
  TNEF_Date stAccess;           /* not filled */
  TNEF_Date stCreate;           /* attAttachCreateDate */
  TNEF_Date stModify;           /* attAttachModifyDate */
  const char* pszFileName;      /* attAttachTitle text, NUL-terminated */
  uint32_t unMetaLen;           /* attAttachMetaFile */
  void* pvMetaFile;
  char* pszTransportName;       /* not filled */
  uint64_t unCodePage;          /* the stream's code page (attOemCodepage) */
  uint16_t unATYP;              /* attAttachRenddata, as read */
  uint32_t unPosition;
  uint16_t unWidth;
  uint16_t unHeight;
  uint32_t unFlag;
  TNEF_MAPI_t stMAPI;           /* attMsgProps or attAttachment properties */
  struct TNEF_Attach* pstNext;  /* next record, NULL at the end */
  uint32_t unFileLen;           /* attAttachData: the file's bytes */
  void* pvFileData;             /* NULL when the record holds no file */
  uint32_t unIconLen;           /* not filled */
  void* pvFileIcon;
} TNEF_Attach;

/* A row of the code page table. */
typedef struct OEM_CP_t {
  const char* pszCharset;   /* MIME charset name */
  unsigned int unCodePage;  /* Windows code page; 0 ends the table */
  const char* pszDesc;      /* description, for display */
} OEM_CP_t;

/*
 * Parses unLen bytes at psFile and returns the first record of the list
 * (NULL when none was made).  pnStat may be NULL; when it points at 1 on
 * entry a trace of the stream is printed on stdout.  It is set to 0 on
 * entry and holds 0 or a negative status on return: -2 when not even the
 * signature is there, -3 for a checksum mismatch (the attribute is
 * skipped, parsing goes on) or a stream cut short (parsing stops), -1 when
 * memory ran out, or the status of a property block that failed.  The
 * list holds whatever was read up to the fault; free it with MLC_TNEFFree.
 * The buffer is not written to; its pointer is not const because the
 * records hand out writable pointers into it.
 */
TARNMAIL_API TNEF_Attach* MLC_TNEFParse(char* psFile, unsigned int unLen, int* pnStat);

/*
 * Parses a block of MAPI properties (unLen bytes at psMAPI) into
 * *pstObject, whose previous contents are overwritten.  Returns 0, -1 (no
 * memory), -2 (pstObject missing), -3 (the block is too short for what
 * it declares) or -4 (unsupported property type).  After a failure
 * pstObject holds the properties read so far.  The arrays are malloc'd:
 * free every pstProps[i].pstVals, then pstProps (MLC_TNEFFree does this
 * for the records of a list).
 */
TARNMAIL_API int MLC_MAPIPropsParse(char* psMAPI, unsigned int unLen, TNEF_MAPI_t* pstObject,
                                    unsigned int unFlags);

/*
 * Writes the record's best file name into psFileBuf (cut to stLen - 1
 * bytes, always terminated): the long file name property, else the
 * display name, else the short file name, else the attAttachTitle, else
 * "Untitled" followed by the extension property.  *pnCSetValue (may be
 * NULL) becomes 1 when the name was converted from UTF-16 to UTF-8, else
 * 0.  Returns 0, or -2 when the buffer is missing or empty, or the record
 * is missing or holds no file data.
 */
TARNMAIL_API int MLC_TNEFFilename(const TNEF_Attach* pstObject, char* psFileBuf, size_t stLen,
                                  int* pnCSetValue);

/*
 * The charset name of the record's code page, copied into psCharset (at
 * most stLen - 1 bytes; "" when there is none).  Returns 0, -2 for a
 * missing argument or stLen 0, -6 when the code page is not known.
 */
TARNMAIL_API int MLC_TNEFCharset(const TNEF_Attach* pstObject, char* psCharset, size_t stLen);

/*
 * The same as a pointer to a static name: *ppszCharset is first set to
 * "", then to the name when the code page is known.
 */
TARNMAIL_API int MLC_TNEFCharset2(const TNEF_Attach* pstObject, const char** ppszCharset);

/* Frees the list, each record's property array and each property's values. */
TARNMAIL_API void MLC_TNEFFree(TNEF_Attach* pstObject);

/*
 * Converts wide characters to UTF-8 into a static 4096-byte buffer and
 * returns it (NULL when szUTF16 is NULL or unLen * 3 / 2 reaches 4096).
 * The characters are taken as 32-bit little-endian words, the i-th one
 * (i = 0, 2, 4, ... while i + 1 < unLen) standing 4 * i bytes into the
 * input; the walk stops at the first word that would end past unLen
 * bytes.  A character up to 0x7F gives one byte, up to 0x7FE two, any
 * larger one three (of its low 16 bits).  Not for file names, which go
 * through MUC_UTF16LE2UTF8.
 */
TARNMAIL_API char* s_UTF16XUTF8(unsigned int unLen, const char* szUTF16);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_TNEF_H */
