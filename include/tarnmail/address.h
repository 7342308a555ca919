/* tarnmail/address.h - one e-mail address: From values, local part, domain, order. */
#ifndef TARNMAIL_ADDRESS_H
#define TARNMAIL_ADDRESS_H

#include "tarnmail/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Splits a From value ("Nick <addr>", "addr (Nick)" or a bare address) into
 * the address and the nickname.  The nickname is unquoted and its encoded
 * words are decoded (raw bytes of the word's charset, through MSTR_Decode's
 * static charset buffer).  nCharset is a MIME charset value (MIME_CS_*):
 * it tells how multibyte nicknames are walked and where copies may be cut.
 * Both results are cut to their sizes minus one and terminated.  Returns 0,
 * or -2 when pszFrom is NULL or empty (the output buffers are then emptied)
 * or either output buffer is NULL, -1 when no memory was left for a long
 * value.  Not reentrant.
 */
TARNMAIL_API int MLG_FromParse(const char* pszFrom, char* pszEmail, int nEmailSize,
                               char* pszNick, int nNickSize, int nCharset);
/* MLG_FromParse for Big5 text (MIME charset value 2). */
TARNMAIL_API int MEML_FromParse(const char* pszFrom, char* pszEmail, int nEmailSize,
                                char* pszNick, int nNickSize);

/* Local part: the text before the last "@", or the whole address when it has
 * none (a NULL address counts as "").  Returns 0, -2 when pszID is NULL. */
TARNMAIL_API int MEML_IDGet(const char* pszEmail, char* pszID, int nSize);
/* Domain: the text after the last "@", or "" when there is none.  Returns 0,
 * -2 when pszDomain is NULL. */
TARNMAIL_API int MEML_DomainGet(const char* pszEmail, char* pszDomain, int nSize);
/*
 * Domain of an address, or a default.  With a buffer (pszDomain not NULL and
 * nzDomain above 0): the domain is copied into it and the buffer is returned;
 * when the address has no domain (no "@", or nothing after it) the default is
 * copied into the buffer instead ("" for a NULL default) and pszDefaultDomain
 * itself is returned.  Without a buffer: a static 512-byte buffer holding the
 * domain (shared by all callers), or pszDefaultDomain when there is none.
 * Like strchr, the result may point at a const argument.
 */
TARNMAIL_API char* MEML_DomainGet_s(const char* pszEmail, const char* pszDefaultDomain,
                                    char* pszDomain, int nzDomain);

/*
 * Order of two addresses (NULL counts as ""): by domain without regard to
 * case, then by the length of the local part, then by the local part, with
 * regard to case when nOpt is not 0.  An address with an "@" sorts after one
 * without; two without are compared whole.  Negative, 0 or positive.
 */
TARNMAIL_API int MEML_Cmp(const char* pszEmail1, const char* pszEmail2, int nOpt);
/* Order of the domains only, without regard to case; an address without "@"
 * sorts first, two without are equal. */
TARNMAIL_API int MEML_DCmp(const char* pszEmail1, const char* pszEmail2);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_ADDRESS_H */
