/*
 * tarnmail/mailhdr.h - the flat header record of mail lists.
 *
 * A `mailhdr` holds what a list of messages shows about one message: the
 * main header fields, the charset, priority, partial-message numbers, the
 * relay hosts of the Received lines, a short plain-text preview of the body
 * and a summary of the attachments, all in one fixed-size record.
 *
 * Two ways to fill it:
 *
 *   - from raw header text, without building an entity tree:
 *         mailhdr m;                            (about 13 KiB: not on a small stack)
 *         mailhdr_init(&m, "iso-8859-1", text, len);
 *         mailhdr_parse(&m);
 *         ... use m.subject, m.from, m.text ...
 *         mailhdr_free(&m);
 *     every string then lives in the record's own buffer (or in the heap
 *     copy of a very long header made by mailhdr_init2);
 *
 *   - from a decoded message (tarnmail/decode.h): get_mail_hdr borrows the
 *     decode context's strings (valid until mime_decode_shutdown);
 *     dup_mail_hdr and dup_mail_hdr_ex copy them to the heap, released by
 *     free_dup_mail_hdr.
 *
 * Absent fields point at `null_buf` (an empty string inside the record),
 * except msgid, in_reply_to, references and notification_to after parsing,
 * which stay NULL when the header has no such field.  Every copy into the
 * record is bounded by the size of its field; too-long text is cut.
 * Not reentrant: the parse decodes encoded words through MSTR_Decode, which
 * keeps its answer in a static buffer.
 */
#ifndef TARNMAIL_MAILHDR_H
#define TARNMAIL_MAILHDR_H

#include "tarnmail/api.h"
#include "tarnmail/decode.h"

#ifdef __cplusplus
extern "C" {
#endif

#define MAILHDR_CHARSET_SIZE    32
#define MAILHDR_DATA_SIZE       8192
#define MAILHDR_MAX_HOSTS       20
#define MAILHDR_MAX_ENVELOPES   10
#define MAILHDR_ATTACHMENT_SIZE 4096
#define MAILHDR_ENVP_RCPT_SIZE  256

/* dup_mail_hdr_ex: which parts of the record to fill. */
#define MAILHDR_DUP_TEXT        0x1     /* text: the body rendered as plain text */
#define MAILHDR_DUP_CHARSET     0x2     /* charset and subject_charset */
#define MAILHDR_DUP_MSGID       0x4
#define MAILHDR_DUP_FROM        0x8
#define MAILHDR_DUP_SUBJECT     0x20
#define MAILHDR_DUP_BCC         0x40
#define MAILHDR_DUP_CC          0x80
#define MAILHDR_DUP_TO          0x100
#define MAILHDR_DUP_CTYPE       0x200   /* content_type, partial numbers and id */
#define MAILHDR_DUP_REPLY_TO    0x400
#define MAILHDR_DUP_DATE        0x800
#define MAILHDR_DUP_IN_REPLY_TO 0x1000
#define MAILHDR_DUP_REFERENCES  0x2000
#define MAILHDR_DUP_RECEIVED    0x4000  /* hosts, envelope senders, hops */
#define MAILHDR_DUP_ATTACHMENT  0x8000  /* attachment summary */
#define MAILHDR_DUP_PRIORITY    0x10000 /* resent_from, priority, e-newsletter mark */
#define MAILHDR_DUP_ALL         0x1ffff

typedef struct mailhdr {
  char* msgid;            /* Message-ID (or the id= of a message/partial) */
  char* from;
  char* resent_from;
  char* subject;
  char* bcc;
  char* cc;
  char* to;
  char* content_type;     /* without parameters after parsing */
  char* reply_to;
  char* date;
  char charset[MAILHDR_CHARSET_SIZE];  /* charset of the body; starts as the caller's default */
  int forum_monitor;      /* always 0 */
  int hops;               /* number of Received lines */
  char data[MAILHDR_DATA_SIZE];        /* raw header text and the start of the body */
  char* hosts[MAILHDR_MAX_HOSTS];      /* relay hosts and addresses, in order met */
  int hostnum;
  char* envelope[MAILHDR_MAX_ENVELOPES]; /* "(envelope-from" senders */
  int envenum;
  char* text;             /* body preview, or NULL */
  char null_buf;          /* always 0: what absent fields point at */
  int important_level;    /* 1 (high) to 5 (low); 3 is normal */
  int partial_number;     /* message/partial number= */
  int partial_total;      /* message/partial total= */
  int size;               /* message size given by the caller */
  char* data_tail;        /* last usable byte of the working buffer */
  char attachment[MAILHDR_ATTACHMENT_SIZE]; /* "name\nsize\ntype\n" per attachment */
  char envp_rcpt[MAILHDR_ENVP_RCPT_SIZE];   /* always empty */
  char* malloc_data;      /* heap copy of a header longer than 8192 bytes, or NULL */
  char* in_reply_to;
  char* references;
  int tarn_enews_flag;    /* "X-TARN-Enews" value, 0 when absent */
  char* notification_to;  /* Disposition-Notification-To */
  char subject_charset[MAILHDR_CHARSET_SIZE]; /* charset of the Subject's encoded words */
} mailhdr;

/* Zeroes the record and copies the start of the message (at most 8191 of
 * the `len` bytes of `data`, up to a NUL) into it; `cset` is the default
 * charset.  Returns 0, or -2 without a record. */
TARNMAIL_API int mailhdr_init(mailhdr* mhdr, const char* cset, const char* data, int len);
/* As mailhdr_init, but a header block longer than 8192 bytes is copied
 * whole into a heap buffer (malloc_data); the record then has no preview. */
TARNMAIL_API int mailhdr_init2(mailhdr* mhdr, const char* cset, const char* data, int len);
/* Parses the copied text: fields, charset, priority, Received hosts, the
 * preview (first leaf part, transfer decoding undone, Japanese text as
 * Shift_JIS).  mailhdr_parse decodes the encoded words of every field;
 * mailhdr_parse_raw only those of the Subject.  Returns 0, or -2. */
TARNMAIL_API int mailhdr_parse(mailhdr* mhdr);
TARNMAIL_API int mailhdr_parse_raw(mailhdr* mhdr);
/* Decodes one more string of the record (*data points into it) the way the
 * parse decodes fields; returns the charset name met (def_cset when none),
 * "iso-2022-jp" when the text was Japanese and converted to Shift_JIS, or
 * NULL for an absent or empty string.  The name may be a static buffer
 * that the next decoding overwrites. */
TARNMAIL_API const char* mailhdr_str_decode(mailhdr* mhdr, char** data, const char* def_cset);
/* Frees the heap copy of mailhdr_init2; the record is the caller's. */
TARNMAIL_API void mailhdr_free(mailhdr* mhdr);

/* Fills the record from a decoded message, borrowing the decode context's
 * strings.  `charset` is the default charset.  Returns 0, or -2. */
TARNMAIL_API int get_mail_hdr(MIME_DECODE* decode_info, mailhdr* mhdr, const char* charset, int size);
/* Fills the parts of the record chosen by `flags` (MAILHDR_DUP_*) from a
 * decoded message with heap copies; release them with free_dup_mail_hdr.
 * Returns 0, or -2. */
TARNMAIL_API int dup_mail_hdr_ex(MIME_DECODE* decode_info, mailhdr* mhdr, const char* charset, int size,
                                 int flags);
TARNMAIL_API int dup_mail_hdr(MIME_DECODE* decode_info, mailhdr* mhdr, const char* charset, int size);
TARNMAIL_API void free_dup_mail_hdr(mailhdr* mhdr);

/* Prints the record to standard output (debugging aid). */
TARNMAIL_API void mailhdr_dump(const mailhdr* mhdr);

/* Appends the relay hosts and the envelope sender that one Received value
 * names (the value is cut into pieces in place; the entries point into
 * it).  At most 20 hosts and 10 senders are kept.  Returns 0, or -2. */
TARNMAIL_API int str_receive(char* ptr, char** hosts, int* hostnum, char** envelope, int* envenum);

/* Appends "name\nsize\ntype\n" to the 4096-byte `attachment` buffer for
 * every named entity of `me`'s sibling list and their children. */
TARNMAIL_API void MailHdrGetAttInfo(ME* me, char* attachment);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_MAILHDR_H */
