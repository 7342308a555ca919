/* tarnmail/msgutil.h - mailbox upkeep: the index record of a moved message. */
#ifndef TARNMAIL_MSGUTIL_H
#define TARNMAIL_MSGUTIL_H

#include "tarnmail/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* nFlag of MSGU_IdxUpd: store the first recipient instead of the sender. */
#define MSGU_IDX_RCPT 4

/*
 * Call after a message moved from pszSrcMBox to pszDesMBox.  Mailboxes whose
 * names begin with "@.sent" or "@.draft" (without regard to case) list their
 * messages by the first recipient, all others by the sender; when the move
 * crossed between the two kinds, the message's index record in the
 * destination is rewritten with MSGU_IdxUpd.  Nothing is done when an
 * argument is NULL or empty, or when "MAIL_MOVE_INDEX_UPDATE_DISABLE" in
 * section "DS" of "tarnapp.conf" is not 0 for the user's domain.  A failed
 * update is written to "/quillnet/log/error.log"; the move stands.
 */
TARNMAIL_API void MSGU_MoveCheck(const char* pszUserID, const char* pszSrcMBox, const char* pszDesMBox,
                                 const char* pszMsgID);

/*
 * Rewrites the index record of a message from its headers: with
 * MSGU_IDX_RCPT in nFlag, the first To recipient (else the first Cc one) and
 * the record's recipient flag set; without it, the From address and
 * nickname and the flag cleared.  Texts are cut to the record's fields
 * without splitting a character of the record's charset.  Returns 0, -2 when
 * the user or message id is NULL or empty, 0 without doing anything when the
 * mailbox name is, -1 when the message cannot be read or the mailbox opened,
 * else the result of MBX_IdxUpd.
 */
TARNMAIL_API int MSGU_IdxUpd(const char* pszUserID, const char* pszMBox, const char* pszMsgID, int nFlag);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_MSGUTIL_H */
