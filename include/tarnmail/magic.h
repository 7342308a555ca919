/*
 * tarnmail/magic.h - content-type detection.
 *
 * Two answers for a part whose declared type is useless: its MIME type,
 * from its file name's extension in a mime.types file and, failing that,
 * from its first bytes (a magic file whose descriptions are MIME types,
 * then a plain-text test); and the reverse, a file-name extension for a
 * MIME type.
 *
 * The tables are process-wide and loaded once, on first use; results live
 * in static buffers.  Single-threaded: copy a result before the next call.
 */
#ifndef TARNMAIL_MAGIC_H
#define TARNMAIL_MAGIC_H

#include <stdint.h>

#include "tarnmail/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------
 * Magic entries.  One line of a magic file becomes one entry.
 * ---------------------------------------------------------------------- */

/* struct magic.flag bits */
#define MAGIC_INDIR    1 /* the offset is indirect: read a pointer there first */
#define MAGIC_UNSIGNED 2 /* compare without sign */
#define MAGIC_ADD      4 /* the offset counts from the end of the parent's match */

/* struct magic.type codes */
#define MAGIC_BYTE    1
#define MAGIC_SHORT   2
#define MAGIC_LONG    4
#define MAGIC_STRING  5
#define MAGIC_DATE    6
#define MAGIC_BESHORT 7
#define MAGIC_BELONG  8
#define MAGIC_BEDATE  9
#define MAGIC_LESHORT 10
#define MAGIC_LELONG  11
#define MAGIC_LEDATE  12

#define MAGIC_MAXSTRING 32 /* string values: at most 31 bytes */
#define MAGIC_MAXDESC   50 /* descriptions: at most 49 bytes */

union magic_value {
  unsigned char b;
  unsigned short h;
  uint32_t l;
  char s[MAGIC_MAXSTRING];
  unsigned char hs[2]; /* a short in a fixed byte order */
  unsigned char hl[4]; /* a long in a fixed byte order */
};

struct magic {
  short flag;       /* MAGIC_INDIR, MAGIC_UNSIGNED, MAGIC_ADD */
  short cont_level; /* number of '>' in front of the line; 0 at top level */
  struct {
    char type;      /* size of the pointer: 1 byte, 2 short, 4 long */
    int32_t offset; /* added to the pointer read */
  } in;
  int32_t offset;        /* where the value is read */
  unsigned char reln;    /* '=', '!', '<', '>', '&', '^' or 'x' */
  char type;             /* MAGIC_BYTE ... MAGIC_LEDATE */
  char vallen;           /* length of a string value */
  union magic_value value;
  uint32_t mask;         /* applied to a number before comparing; all ones when none */
  char nospflag;         /* the description asks for no separating blank */
  char desc[MAGIC_MAXDESC];
};

/* The loaded entries, in file order, and their count. */
TARNMAIL_API extern struct magic* MIMETYPE_magic;
TARNMAIL_API extern int MIMETYPE_nmagic;
/* Line being parsed (for messages). */
TARNMAIL_API extern int MIMETYPE_lineno;
/* Non-zero: the matcher traces its comparisons on the error stream. */
TARNMAIL_API extern int MIMETYPE_debug;
/* Lines of the last apprentice() run that were dropped (unknown type
 * keyword, no memory) and lines kept with a complaint (bad offset, bad or
 * unclosed indirect offset, string value too long). */
TARNMAIL_API extern int MIMETYPE_nrejected;
TARNMAIL_API extern int MIMETYPE_nwarned;

/*
 * Loads magic files into the entry table, replacing what was loaded
 * before.  `fn` lists files separated by ':'; every file's entries go into
 * the one table.  Returns the highest result of the files: 0 all well,
 * 1 some lines were rejected, -1 a file could not be read ("couldn't find
 * any magic files" when none could).  With `check` 0 a result of -1 ends
 * the process with exit status 1.  Paths under "/quillnet" follow
 * QUILLNET_ROOT (MSYS_RootPath).
 */
TARNMAIL_API int apprentice(const char* fn, int check);

/*
 * Matches the first `nbytes` bytes of `buf` against the table: the first
 * top-level entry that matches, and then those of its continuations that
 * match, append their descriptions to MIMETYPE_outputstr.  Returns 1 when
 * a top-level entry matched, else 0.  Never reads outside the buffer:
 * values past its end read as zeros.
 */
TARNMAIL_API int softmagic(const unsigned char* buf, int nbytes);

/* ------------------------------------------------------------------------
 * Type lookup by name and content.
 * ---------------------------------------------------------------------- */

#define MIMETYPE_PATHSIZE 128
#define MIMETYPE_OUTSIZE  1024

/* Path of the extension table, default "/quillnet/httpd/conf/mime.types". */
TARNMAIL_API extern char MIMETYPE_mtypefile[MIMETYPE_PATHSIZE];
/* Path (or ':' list) of the magic files, default "/quillnet/httpd/conf/magic". */
TARNMAIL_API extern char MIMETYPE_magicfile[MIMETYPE_PATHSIZE];
/* Result of the last content test. */
TARNMAIL_API extern char MIMETYPE_outputstr[MIMETYPE_OUTSIZE];

/* Sets either path when not NULL (at most 127 characters kept); call it
 * before the first lookup: the tables are loaded once.  Returns 0. */
TARNMAIL_API int mime_type_init(const char* mtypefile, const char* magicfile);

/*
 * MIME type of a part whose first `nbytes` bytes are `buf` and whose file
 * name is `filename` (may be NULL): the type of the name's extension when
 * the extension table knows it, else the content's type (magic file, then
 * "text/plain" for text, else "application/octet-stream").  At most 8191
 * bytes are looked at.  Never NULL; a static buffer or a table entry.
 */
TARNMAIL_API char* mime_type_checking(const unsigned char* buf, int nbytes,
                                      const unsigned char* filename);

/* Type for a file name (the text after its last '.', or the whole name)
 * from the extension table, compared without regard to case; NULL when
 * unknown or when the table cannot be read. */
TARNMAIL_API char* ct_check(const char* ext);

/* Reads the extension table; 0, or -1 when the file could not be read. */
TARNMAIL_API int ct_init(void);

/*
 * Extension (without the dot) for a part: the one of `filename` when it
 * has one (at most 31 characters), else the first one the mime.types file
 * lists for `ctype_str` (a line's type matches when `ctype_str` starts
 * with it, without regard to case), else "".  Static buffer; never NULL.
 */
TARNMAIL_API char* ct2ext(const char* ctype_str, const char* filename);

#ifdef __cplusplus
}
#endif

#endif /* TARNMAIL_MAGIC_H */
