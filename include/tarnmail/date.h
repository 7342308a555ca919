/* tarnmail/date.h - free-form date parsing and RFC 822 date formatting. */
#ifndef TARNMAIL_DATE_H
#define TARNMAIL_DATE_H

#include <stddef.h>
#include <time.h>

#include "tarnmail/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A moment and the zone it was seen in. */
typedef struct _TIMEINFO {
  time_t time; /* seconds since 1970-01-01 00:00 UTC */
  long usec;   /* always 0 here */
  long tzone;  /* local zone, minutes west of UTC */
} TIMEINFO;

/*
 * Turns a date text into seconds since the epoch: RFC 822 Date values
 * ("Mon, 05 Jan 2026 10:00:00 +0800") and looser forms ("12/25/99 10:00pm",
 * "+3 days").  Fields the text leaves out come from `now` (the current time
 * and zone when `now` is NULL).  Returns -1 when the text does not parse or
 * names an impossible date, and 0 for a result of exactly -1.  Not
 * reentrant: the parser keeps its state in globals.
 */
TARNMAIL_API time_t parsedate(const char* p, TIMEINFO* now);

/* Fills Now with the current time, usec 0 and the local zone in minutes
 * west (worked out at most once an hour).  Returns 0, or -1 when the clock
 * cannot be broken down or Now is NULL. */
TARNMAIL_API int GetTimeInfo(TIMEINFO* Now);

/*
 * Formats *pnTime (now when pnTime is NULL) as an RFC 822 date in local
 * time, with the numeric zone and the standard-time zone name:
 * "Mon, 05 Jan 2026 10:00:00 +0800 (CST)".  The text is cut to nSize - 1
 * bytes.  Returns pszBuf, or NULL when pszBuf is NULL or the time cannot be
 * formatted.
 */
TARNMAIL_API char* MTM_RFC822Str2(char* pszBuf, size_t nSize, const time_t* pnTime);
/* The same into a static 256-byte buffer that the next call overwrites. */
TARNMAIL_API char* MTM_RFC822Str(const time_t* pnTime);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_DATE_H */
