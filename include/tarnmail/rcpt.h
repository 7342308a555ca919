/* tarnmail/rcpt.h - recipient lists: parsing typed address boxes, defaults, base64 form. */
#ifndef TARNMAIL_RCPT_H
#define TARNMAIL_RCPT_H

#include "tarnmail/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Sizes of the text fields of a node, terminator included. */
#define RCPT_ADDR_SIZE 128
#define RCPT_NAME_SIZE 128

/* Recipient kinds.  The library stores the kind a caller passes as it is;
 * these are the values the mail programs use. */
enum CgiRcptType {
  RCPT_TYPE_TO = 0,
  RCPT_TYPE_CC = 1,
  RCPT_TYPE_BCC = 2
};

/* Delivery state of a recipient; the list calls leave it at 0. */
enum CgiRcptStatus {
  RCPT_STATUS_NONE = 0
};

/*
 * One recipient.  A list is a head record owned by the caller (on the stack
 * or anywhere) followed by heap nodes the list owns: cgircpt_free releases
 * them.  An empty addr in the head means an empty list.  Texts are cut to
 * 127 bytes without splitting a double-byte character.
 */
typedef struct CgiRcpt {
  char addr[RCPT_ADDR_SIZE];  /* e-mail address */
  struct CgiRcpt* next;       /* next node, NULL at the end */
  struct CgiRcpt* tail;       /* in the head: the last node appended */
  char name[RCPT_NAME_SIZE];  /* display name, may be empty */
  int type;                   /* enum CgiRcptType or any value of the caller's */
  int status;                 /* enum CgiRcptStatus */
} CgiRcpt;

/* Empties a head record: no nodes, empty address and name, kind and state 0. */
TARNMAIL_API void cgircpt_init(CgiRcpt* rl);
/* Frees every node after the head and empties the head's address; the
 * head's name is left as it was. */
TARNMAIL_API void cgircpt_free(CgiRcpt* rl);
/* 1 when the list is empty (the head's address is empty, or rl is NULL), else 0. */
TARNMAIL_API int cgircpt_empty(const CgiRcpt* rl);
/* Number of nodes, head included; 0 for NULL or a head with empty address
 * and name and no nodes after it. */
TARNMAIL_API int cgircpt_count(const CgiRcpt* rl);

/*
 * Adds a recipient (NULL texts count as "").  An empty head is filled in
 * place; otherwise nothing is added when a node already holds the address
 * (compared without regard to ASCII case), else a node is appended.
 * Returns 1, -1 when no memory is left (after perror("insertbydn_malloc()")),
 * -2 when rl is NULL.
 */
TARNMAIL_API int cgircpt_add(CgiRcpt* rl, const char* addr, const char* name, int type);
/* cgircpt_add without the duplicate test. */
TARNMAIL_API int cgircpt_add_nocheck(CgiRcpt* rl, const char* addr, const char* name, int type);

/*
 * Parses a typed recipient text ("Joe" <joe@x>, 'Ann' <ann@y>; bob@z (Bob)
 * ...) and adds its entries with cgircpt_add.  Entries are separated by ","
 * and ";" and by the byte `delimiter` (0: none more).  A ";" that ends a
 * numeric character reference ("&#20013;") is text, not a separator.
 * nCharset is a MIME charset value (MIME_CS_*): 1 (the Japanese forms, typed
 * as Shift_JIS) walks Shift_JIS characters, any other value takes the
 * double-byte lead bytes of Big5, GB, EUC and Shift_JIS alike, so a trail
 * byte is never taken for a quote, a backslash or a separator.  Returns 1
 * (also for a NULL text), 0 when adding failed or cr is NULL.
 */
TARNMAIL_API int build_rcpt_charset(CgiRcpt* cr, const char* addr_list, int type, int delimiter,
                                    int nCharset);
/* build_rcpt_charset with charset value 0. */
TARNMAIL_API int build_rcpt(CgiRcpt* cr, const char* addr_list, int type, int delimiter);

/* Completes every non-empty address without "@" with "@" and the domain,
 * when the result fits the field (else the address stays as it is).
 * Returns 0, -2 when cr or domain is NULL. */
TARNMAIL_API int cgircpt_normalize(CgiRcpt* cr, const char* domain);

/*
 * Copies pszSrc into psDest (nSize bytes, terminator included) with a
 * backslash before every backslash and double quote.  Unless nCharsetVal is
 * 1, double-byte characters (as for build_rcpt_charset) are copied whole and
 * unescaped.  The copy stops at the first character or escaped pair that
 * does not fit.  Returns 0, -1 for a NULL argument or a size below 1.
 */
TARNMAIL_API int RCPT_AddQuotChar(char* psDest, int nSize, const char* pszSrc, int nCharsetVal);

/*
 * Writes the list as base64 of "\"name\" <addr>, " per node (a node without
 * name or address as its quoted address and ", ") into a new buffer handed
 * over through *ppszStrBuf (when not NULL); the caller free()s it.  Returns
 * 0 (*ppszStrBuf is NULL when no memory was left), -1 when pstRcpts is NULL.
 */
TARNMAIL_API int RCPT_SaveToB64(const CgiRcpt* pstRcpts, char** ppszStrBuf);
/*
 * Reads such a text back, adding its entries to the list with the kind
 * nRcptType (only "," and ";" separate).  Returns 0, -1 for a NULL or empty
 * text, a NULL list, or when no memory was left.
 */
TARNMAIL_API int RCPT_LoadFromB64(const char* pszB64, CgiRcpt* pstRcpts, int nRcptType);

/* Clears the trailing blanks (space, tab, CR, LF) of the string held in the
 * first len bytes of str. */
TARNMAIL_API void filter_space(char* str, int len);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_RCPT_H */
