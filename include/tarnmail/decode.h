/*
 * tarnmail/decode.h - the decode context and the entity tree.
 *
 * A message is decoded in the caller's own buffer: the engine writes NUL
 * terminators and decoded bytes into it, and every pointer of the tree
 * points into it or into the run's arena.  The buffer handed to
 * mime_decode_init must be writable for datasize + 1 bytes: the byte at
 * data[datasize] receives the terminator of the last body.
 */
#ifndef TARNMAIL_DECODE_H
#define TARNMAIL_DECODE_H

#include <stdint.h>

#include "tarnmail/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Offsets inside a message are signed 32-bit, whatever the platform's off_t. */
typedef int32_t tm_off_t;

/* Content-type codes (MIME_HEADER.ctype). */
enum {
  MIME_CT_NONE = 0,
  MIME_CT_RFC822 = 1,
  MIME_CT_TEXT = 2,
  MIME_CT_HTML = 3,
  MIME_CT_IMAGE = 4,
  MIME_CT_MULTIPART = 5,
  MIME_CT_ALTERNATIVE = 6,
  MIME_CT_MIXED = 7,
  MIME_CT_DIGEST = 8,
  MIME_CT_OTHER = 9,
  MIME_CT_VCARD = 10,
  MIME_CT_PKCS7_SIGNATURE = 11,
  MIME_CT_PKCS7_MIME = 12,
  MIME_CT_VIDEO = 13,
  MIME_CT_AUDIO = 14,
  MIME_CT_FLASH = 15,
  MIME_CT_TIFF = 16,
  MIME_CT_TNEF = 17
};

/* Transfer-encoding codes (MIME_HEADER.enc_type). */
enum {
  MIME_ENC_NONE = 0,
  MIME_ENC_BASE64 = 1,
  MIME_ENC_QP = 2,
  MIME_ENC_UUENCODE = 3,
  MIME_ENC_8BIT = 4,
  MIME_ENC_7BIT = 5
};

/* decode_level bits. */
#define MIME_DL_BASE64      0x1
#define MIME_DL_QP          0x2
#define MIME_DL_UUENCODE    0x4
#define MIME_DL_UUE_IN_TEXT 0x8
#define MIME_DL_HEADERS     0x20
#define MIME_DL_RFC822_ATT  0x40
#define MIME_DL_RETYPE      0x100
#define MIME_DL_TNEF        0x200
#define MIME_DL_UTF8        0x400
#define MIME_DL_NO_REFILL   0x800
#define MIME_DL_KEEP_RFC822 0x1000
#define MIME_DL_SUBJECT_EML 0x2000

/* error_code bits. */
#define MIME_ERR_NO_CLOSE_BOUNDARY 1
#define MIME_ERR_NO_HEADER_END     2
#define MIME_ERR_TOO_DEEP          64

typedef struct HE {
  char* ent_name;
  char* ent_ptr;
  tm_off_t ent_offset;
  int ent_len;
  char flag;
  int ent_charset;
  struct HE* next;
} HE;

typedef struct MIME_HEADER {
  char ctype;
  char enc_type;
  char* org_text;
  char* ctype_str;
  char* enc_type_str;
  char* cbase;
  char* contdisp;
  char* contdes;
  char* contid;
  char* contLocation;
  char* body_MD5;
  char* body_language;
  char* x_brindle_ctype_str;
  int charset;
  char* filename;
  char file_id[10];
  char charset_str[16];
  int file_name_flags;
  char szReserved[128];
} MIME_HEADER;

typedef struct RFC822_HEADER {
  char** msgid;
  char** from;
  char** to;
  char** date;
  char** cc;
  char** bcc;
  char** subject;
  char** sender;
  char** reply_to;
  char** notification_to;
  char** in_reply_to;
  char** newsgroups;
  char** organization;
  char** x_forward_by;
  char** references;
  char** from_raw;
  char** to_raw;
  char** cc_raw;
  char** bcc_raw;
  char** reply_to_raw;
  char szReserved[128];
} RFC822_HEADER;

typedef struct GET_RFC822_HEADER {
  char* msgid;
  char* from;
  char* to;
  char* date;
  char* cc;
  char* bcc;
  char* subject;
  char* sender;
  char* reply_to;
  char* notification_to;
  char* in_reply_to;
  char* newsgroups;
  char* organization;
  char* x_forward_by;
  char* references;
  char* from_raw;
  char* to_raw;
  char* cc_raw;
  char* bcc_raw;
  char* reply_to_raw;
  char szReserved[128];
} GET_RFC822_HEADER;

typedef struct ME_HEADER {
  char* boundary;
  HE* he;
  MIME_HEADER mime;
  RFC822_HEADER* rfc822;
  char* data;
  int datalen;
} ME_HEADER;

typedef struct ME {
  tm_off_t ent_offset;
  tm_off_t ent_len;
  int datalen;
  char* header_bgn;
  char* header_end;
  ME_HEADER* h;
  char* body_bgn;
  char* body_end;
  struct ME* next;
  struct ME* child;
  int me_flag;
} ME;

typedef struct fileTMP {
  char* filename;
  struct fileTMP* next;
} fileTMP;

typedef struct ME_INFO {
  const char* msgpath;
  char default_type[64];
  void* MIME_ptr;
  fileTMP _fileTMP;
  fileTMP* fileTMP_ptr;
  int _attachment;
  int tmp_i;
  int _FILE_ID;
  int result_cset;
} ME_INFO;

typedef struct HME {
  ME me_node;
  ME_INFO me_info;
} HME;

typedef struct MIME_DECODE {
  int (*smime_callback)(void);
  char smime_key_dir[256];
  char smime_ca_file[128];
  char smime_passwd[80];
  int dup_header;
  int decode_level;
  int auto_convert;
  int error_code;
  int default_enc_cset;
  char* data;
  HME result;
} MIME_DECODE;

/* Ready decode contexts (may be used as they are or copied). */
TARNMAIL_API extern MIME_DECODE imapME;
TARNMAIL_API extern MIME_DECODE generalME;
TARNMAIL_API extern MIME_DECODE msgreadME;
TARNMAIL_API extern MIME_DECODE mailerdME;

TARNMAIL_API int mime_decode_init(MIME_DECODE* decode_info, char* data, int datasize,
                                  const char* msgpath, const char* default_enc_cset);
TARNMAIL_API int mime_decode_run(MIME_DECODE* decode_info);
TARNMAIL_API int mime_decode_shutdown(MIME_DECODE* decode_info);

TARNMAIL_API int mime_get_rfc822_header(MIME_DECODE* decode_info, GET_RFC822_HEADER* rfc822);
TARNMAIL_API char* mime_get_header_field(MIME_DECODE* decode_info, const char* field_name);
TARNMAIL_API char* mime_get_header_field2(MIME_DECODE* decode_info, const char* field_name);
TARNMAIL_API char* array_get_header_field(MIME_DECODE* decode_info, const char* field_name, int* x);

/* Strips a quoted or line-ended parameter value in place. */
TARNMAIL_API char* unquote(char* data);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_DECODE_H */
