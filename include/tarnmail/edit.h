/*
 * tarnmail/edit.h - editing stored messages, new boundaries and Content-IDs.
 *
 * Parts are cut out of a message, or replaced, by their byte ranges: the
 * ent_offset and ent_len of the entities of a decoded copy of the message
 * (decode a copy: decoding writes into its buffer).  A range covers a part
 * from its first header line up to the line break in front of the next
 * delimiter line.
 *
 *   SMMIME_DelEntity stDel = { me->ent_offset, me->ent_len };
 *   nNewSize = MMIME_AttachmentDel(pcMessage, nSize, &stDel, 1);
 *
 * Ranges that reach outside the message are cut to it; the calls never
 * read or write outside the message or the buffer they make.
 */
#ifndef TARNMAIL_EDIT_H
#define TARNMAIL_EDIT_H

#include "tarnmail/api.h"
#include "tarnmail/decode.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A part to delete. */
typedef struct SMMIME_DelEntity {
  tm_off_t offset; /* the part's first header line */
  tm_off_t len;    /* up to the line break in front of the next delimiter line */
} SMMIME_DelEntity;

/* Bit of SMMIME_RepEntity.nFlag: keep the part's header, replace its body. */
#define MMIME_REP_BODY 1

/* A range to replace. */
typedef struct SMMIME_RepEntity {
  tm_off_t nOffset;
  tm_off_t nLen;
  const char* pszData; /* the new text, NUL-terminated; NULL deletes the range */
  int nFlag;           /* MMIME_REP_BODY */
} SMMIME_RepEntity;

/*
 * Deletes parts from the message in place and returns its new length; the
 * message shrinks and is not terminated again.  Each range is first widened
 * backwards over the delimiter line in front of the part (from the line
 * break that ends the line before it; a CR of that line break stays).
 * rgstDelList must be sorted by offset and is edited: ranges widened, and a
 * range that starts before the end of the one kept before it dropped (not
 * merged: what it held beyond that range stays).  -1 when nSize or nCnt is
 * below 1, -2 for a NULL message or list.
 */
TARNMAIL_API int MMIME_AttachmentDel(char* pcContent, int nSize, SMMIME_DelEntity* rgstDelList, int nCnt);

/*
 * Copies the message with each range replaced by its data into a new
 * malloc'ed, NUL-terminated buffer, stores it through ppszContent (the old
 * buffer stays the caller's) and returns its length: nSize plus, for each
 * range applied, the length of its data minus its own.  rgstRepList is
 * sorted by offset and edited: a range that starts before the end of the
 * one before it is moved behind the others, outside the nCnt first
 * entries, and not applied; a range with MMIME_REP_BODY is narrowed to
 * what follows the first empty line inside it (the whole range when it
 * holds none).  A part with an empty body ends at its empty line's LF, so
 * its narrowed range starts one byte behind its end (length -1) and the
 * copy takes that LF again after the data.  nSize itself, with nothing
 * done, when nCnt is below 1; -1 when nSize is negative or the new buffer
 * cannot be had; -2 for a NULL message or list.
 */
TARNMAIL_API int MMIME_AttachmentRep(char** ppszContent, int nSize, SMMIME_RepEntity* rgstRepList, int nCnt);

/* A new multipart boundary: "---" and 27 random characters, in a static
 * buffer that the next call overwrites.  Reseeds random(). */
TARNMAIL_API char* mime_boundary(void);

/* A Content-ID for the part saved as cidfile: the time in seconds and the
 * file's inode number in hexadecimal, joined by "$", and the session's
 * mail address; in a static buffer that the next call overwrites.  NULL
 * when the file cannot be examined. */
TARNMAIL_API char* gen_cid(const char* cidfile);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_EDIT_H */
