// msg_utility_internal.h - the mailbox kind test of the index upkeep, for
// the tool and the tests.
#ifndef TARN_MSG_UTILITY_INTERNAL_H
#define TARN_MSG_UTILITY_INTERNAL_H

extern "C" {
// 1 when the mailbox lists its messages by recipient (its name begins with
// "@.sent" or "@.draft", without regard to case), else 0 (also for NULL
// or "").
int s_IsRcpt(const char* pszMBox);
}

#endif
