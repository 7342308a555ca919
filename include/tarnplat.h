/*
 * tarnplat.h - the platform layer under libtarnmail.
 *
 * Strings, transfer codings, charset numbering and conversion, whole-file
 * reading and the arena allocator.  Plain C interface; every call is
 * bounded by the sizes it is given and never writes past them.
 */
#ifndef TARNPLAT_H
#define TARNPLAT_H

#include <stddef.h>
#include <stdint.h>

#if defined(TARNPLAT_BUILD)
#define TARNPLAT_API __attribute__((visibility("default")))
#else
#define TARNPLAT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------
 * Arena.  A growing region registered under a handle that the caller passes
 * by address (the handle starts out NULL).  Blocks are zero-filled and
 * aligned for any type; they are never freed singly.  my_Xfree releases the
 * whole region and sets the handle back to NULL.  An allocation that cannot
 * be satisfied ends the process (callers never test for NULL).
 * ---------------------------------------------------------------------- */
TARNPLAT_API void* my_Xalloc(void** ppArena, size_t nzSize);
TARNPLAT_API void my_Xfree(void** ppArena);
/* Bytes handed out from the arena so far (statistics and tests). */
TARNPLAT_API size_t my_Xused(void* const* ppArena);

/* ------------------------------------------------------------------------
 * Strings.  Sizes are whole buffer sizes including the terminator; a copy
 * that does not fit is cut to size - 1 bytes and always terminated.  A
 * charset argument is an MLG value (below): when non-zero the cut never
 * splits a multibyte character of that charset; 0 cuts at any byte.
 * ---------------------------------------------------------------------- */
TARNPLAT_API int MSTR_Cmp(const char* a, const char* b);
TARNPLAT_API int MSTR_NCmp(const char* a, const char* b, size_t n);
TARNPLAT_API int MSTR_CaseCmp(const char* a, const char* b);              /* ASCII case folding */
TARNPLAT_API int MSTR_NCaseCmp(const char* a, const char* b, size_t n);

/* strchr: finds the terminator itself when c is 0. */
TARNPLAT_API char* MSTR_LocChr(const char* s, int c);
/* strrchr; nFlag is reserved, pass 0. */
TARNPLAT_API char* MSTR_RLocChr(const char* s, int c, int nFlag);
/* strstr. */
TARNPLAT_API char* MSTR_LocStr(const char* s, const char* pattern);
/* strstr without regard to ASCII case; nFlag is reserved, pass 0. */
TARNPLAT_API char* MSTR_LocStrCase(const char* s, const char* pattern, int nFlag);

/* Returns the length of the result. */
TARNPLAT_API int MSTR_Copy(char* pszDst, size_t nzDst, const char* pszSrc, int nCharset);
/* Copies at most nCount bytes of pszSrc (fewer at its terminator). */
TARNPLAT_API int MSTR_NCopy(char* pszDst, size_t nzDst, const char* pszSrc, size_t nCount);
/* Appends to the string already in pszDst; returns the new length. */
TARNPLAT_API int MSTR_Cat(char* pszDst, size_t nzDst, const char* pszSrc, int nCharset);
/* snprintf semantics: returns the length the whole result would have. */
TARNPLAT_API int MSTR_Printf(char* pszDst, size_t nzDst, const char* pszFormat, ...)
    __attribute__((format(printf, 3, 4)));

/* Token modes for MSTR_TokPtr and MSTR_TokVal. */
#define MSTR_TOK_ANYWHERE 0  /* the name may stand anywhere, even inside a longer word */
#define MSTR_TOK_ANCHORED 1  /* the name must start the text (after skip characters) */
#define MSTR_TOK_CASE     2  /* compare the name with case */

/*
 * Finds `pszName` in `pszText` (without regard to case unless
 * MSTR_TOK_CASE), followed by any of `pszSkip`, then one of the characters
 * of `pszSep`, then any of `pszSkip` again.  Occurrences not followed so are
 * passed over and the search goes on.  Returns the position of the value
 * (the byte after the separator and the skipped characters), or NULL.
 * `nEsc` is reserved (pass 0).
 */
TARNPLAT_API char* MSTR_TokPtr(const char* pszText, const char* pszName, const char* pszSkip,
                               const char* pszSep, int nEsc, int nMode);
/*
 * As MSTR_TokPtr, then copies the value into `pszBuf` (bounded by `nzBuf`,
 * always terminated).  A value that begins with one of `pszQuote` runs to
 * the next occurrence of that same quote character (or the end of the
 * text), the quotes not copied; `nEsc`, when not 0, is an escape byte that
 * makes the next byte part of a quoted value.  Any other value runs to the
 * first of `pszTerm` or the end of the text.  Returns the position of the
 * value in the text (at the opening quote when quoted), or NULL, in which
 * case `pszBuf` is emptied.  `nFlag` is reserved (pass 0).
 */
TARNPLAT_API char* MSTR_TokVal(const char* pszText, const char* pszName, const char* pszSkip,
                               const char* pszSep, const char* pszTerm, const char* pszQuote,
                               int nEsc, int nFlag, char* pszBuf, size_t nzBuf, int nMode);

/* Trims blanks, tabs, CR and LF from both ends in place; returns pszStr. */
TARNPLAT_API char* MSTR_TrimSpace(char* pszStr);

/* ------------------------------------------------------------------------
 * Transfer codings.  The decoders work in place on a NUL-terminated text
 * and return the number of decoded bytes, which start at the text's first
 * byte; the decoded bytes are followed by a NUL when room allows (it always
 * does: output is never longer than input).
 * ---------------------------------------------------------------------- */
/* Base64: bytes outside the alphabet are skipped; decoding stops at the
 * padding that completes a group.  A trailing incomplete group yields the
 * whole bytes it holds. */
TARNPLAT_API int MTX_Base64Dec(char* pszText);
/* Base64 of exactly nLen bytes of pszText (no terminator needed). */
TARNPLAT_API int MTX_Base64Dec2(char* pszText, int nLen);
/* Quoted-printable: "=XY" (either case) becomes one byte, "=" at the end of
 * a line (before LF or CR LF, trailing blanks allowed) joins the lines,
 * any other "=" stands as written. */
TARNPLAT_API int MTX_QPDec(char* pszText);
/* Uuencoded lines from the text's start up to "end", a zero-length line
 * or the end of the text. */
TARNPLAT_API int MTX_UUDec(char* pszText);
/* Finds the "begin MODE NAME" line, copies NAME into pszName (bounded by
 * nzName, emptied when no begin line exists) and decodes the lines after
 * it as MTX_UUDec does.  Without a begin line the text is decoded from its
 * first byte. */
TARNPLAT_API int MTX_UUDec2(char* pszText, char* pszName, int nzName);
/* Encodes nLen bytes of pvSrc as base64 into pszDst (bounded by nzDst,
 * always terminated); nLineLen > 0 breaks lines with CR LF after that many
 * characters (a multiple of 4).  Returns the encoded length, or -1 when the
 * result does not fit (pszDst then holds an empty string). */
TARNPLAT_API int MTX_Base64Enc(const void* pvSrc, int nLen, char* pszDst, int nzDst, int nLineLen);
/* Size of the buffer MTX_Base64Enc needs, terminator included. */
TARNPLAT_API int MTX_Base64EncSize(int nLen, int nLineLen);

/* ------------------------------------------------------------------------
 * Charsets.  MLG values number the charsets the platform knows:
 * ---------------------------------------------------------------------- */
#define MLG_UNKNOWN    0
#define MLG_UTF8       1
#define MLG_BIG5       2
#define MLG_GB2312     3  /* GB2312 and GBK */
#define MLG_JAPANESE   4  /* ISO-2022-JP, EUC-JP and Shift_JIS */
#define MLG_EUCKR      5
#define MLG_ISO8859_1  6
#define MLG_ISO8859_2  7
#define MLG_ISO8859_3  8
#define MLG_ISO8859_4  9
#define MLG_SJIS       10 /* Shift_JIS when it must be told apart from the other Japanese forms */
#define MLG_UTF7       11
#define MLG_EUCJP      12 /* EUC-JP, likewise */
#define MLG_ISO2022JP  13 /* ISO-2022-JP, likewise */
#define MLG_GB18030    14
/* Further single-byte and legacy charsets start at MLG_EXTENDED; their
 * numbers are the platform's own and only meaningful within one build. */
#define MLG_EXTENDED   32

/* Charset name (MIME or web name, any case, aliases included) to MLG value;
 * 0 for NULL, empty or unknown names. */
TARNPLAT_API int MLG_CharsetWEncToValue(const char* pszName);
/* MLG value to the charset's MIME name ("iso-2022-jp" for MLG_JAPANESE);
 * "" for unknown values.  Static strings. */
TARNPLAT_API const char* MLG_CharsetToMEncName(int nCharset);
/* MLG value to the name a browser page declares ("Shift_JIS" for
 * MLG_JAPANESE, whose pages are shown in Shift_JIS); "" when unknown. */
TARNPLAT_API const char* MLG_CharsetToWEncName(int nCharset);
/* MLG value to a language option: 0 single byte, 2 UTF-8, 3 Shift_JIS,
 * 1 Big5, 4 GB, 5 Korean. */
TARNPLAT_API int MLG_CharsetValToOpt(int nCharset);
/* Byte length of the character that starts at p in the given charset
 * (1 for a single byte or an invalid sequence, 0 at the terminator);
 * never reaches past a NUL. */
TARNPLAT_API int MLG_CharacterLength(const char* p, int nCharset);
/*
 * Makes a name safe to store and offer as a file name: path separators,
 * control bytes and  : * ? " < > |  become "_", leading dots and blanks
 * are dropped, trailing dots and blanks too, multibyte characters of the
 * charset are kept whole (a trail byte of 0x5C is no separator there), and
 * the result is cut to nzDst - 1 bytes without splitting a character.  A
 * name that ends up empty becomes "_".  Returns the result's length.
 */
TARNPLAT_API int MLG_SafeFileName(const char* pszName, char* pszDst, int nzDst, int nCharset);

/* Japanese conversions to Shift_JIS.  MLG_JPInit prepares the tables (may
 * be called any number of times).  The converters return a new heap string
 * (free() it), or NULL when the input needs no change or cannot be read. */
TARNPLAT_API int MLG_JPInit(void);
TARNPLAT_API char* MLG_JPJis2Sjis2(const char* pszText);
TARNPLAT_API char* MLG_JPEuc2Sjis2(const char* pszText);

/* ------------------------------------------------------------------------
 * Unicode conversions (iconv).  Results are new heap strings (free() them).
 * ---------------------------------------------------------------------- */
/* Text in the charset of MLG value nCharset to UTF-8.  Returns the input
 * pointer itself when no conversion is needed (UTF-8, US-ASCII text,
 * unknown charsets), NULL when the input is NULL.  Bytes that cannot be
 * converted become U+FFFD.  MLG_JAPANESE text is told apart by its bytes
 * (escape sequences: ISO-2022-JP; else Shift_JIS when it reads as such,
 * else EUC-JP). */
TARNPLAT_API char* MUC_Text2UTF8(const char* pszText, int nCharset);
/* The same for a text of nLen bytes that may hold NULs; *pnOutLen gets the
 * result's length.  Returns NULL when no conversion is needed. */
TARNPLAT_API char* MUC_Text2UTF8N(const char* pText, size_t nLen, int nCharset, size_t* pnOutLen);
/* UTF-7 (RFC 2152) to UTF-8; nFlag is reserved (pass 1). */
TARNPLAT_API char* MUC_UTF72UTF8(const char* pszText, int nFlag);
/* UTF-8 to UTF-7. */
TARNPLAT_API char* MUC_UTF82UTF7(const char* pszText);
/* nLen bytes of UTF-16LE (surrogate pairs joined, unpaired ones become
 * U+FFFD) to UTF-8; stops at a NUL code unit. */
TARNPLAT_API char* MUC_UTF16LE2UTF8(const void* pvText, size_t nLen);

/* ------------------------------------------------------------------------
 * CGI and files.  Request variables come from QUERY_STRING and, once the
 * program hands it over, from an application/x-www-form-urlencoded POST
 * body; both are parsed when a variable is first asked for and again
 * whenever QUERY_STRING changes.  Names are compared case-sensitively;
 * '+' and "%XX" are decoded in names and values (a value is cut at a
 * decoded NUL); the first occurrence of a name wins, the query string
 * before the POST body.  Single-threaded, like the CGI programs.
 * ---------------------------------------------------------------------- */
#include <sys/stat.h>
/* Value of the request variable pszName, or NULL when the request has no
 * such variable ("" when it has one without a value).  The text stays
 * valid until the request changes (a new QUERY_STRING or POST body). */
TARNPLAT_API const char* MCGI_VarStrGet(const char* pszName);
/* Hands over the request's POST body (nLen bytes, copied; NULs allowed and
 * read as separators).  NULL forgets the body.  Returns 0, or -1 when the
 * copy cannot be made (the old body is forgotten then too). */
TARNPLAT_API int MCGI_SetPostBody(const char* pBody, size_t nLen);

/* stat(2): 0 and *pstStat filled, or -1 (errno set; EINVAL for NULL). */
TARNPLAT_API int MFS_Stat(const char* pszPath, struct stat* pstStat);
/* open(2) with this system's O_* flags (O_CLOEXEC is always added) and
 * permission bits; returns the descriptor, or -1 (errno set).  Close it
 * with close(2). */
TARNPLAT_API int MIO_Open(const char* pszPath, int nFlags, int nMode);

/* ------------------------------------------------------------------------
 * Escaping.  A NULL text reads as "".  The calls ending in _s return a
 * string they keep themselves (never free() it): each call keeps its last
 * eight results, per thread, so several can stand in one print; a result
 * stays valid until the same call has been made eight more times.  The
 * bounded calls write at most nzDst - 1 bytes and a terminator, never cut
 * an escape in half, and return the length written (-1 without a
 * destination).
 * ---------------------------------------------------------------------- */
/* Escape modes of MSTR_Escape. */
#define MSTR_ESC_HTML 1   /* as MSTR_HTMLEscape_s */
#define MSTR_ESC_URI  2   /* as MSTR_URIEscape */
#define MSTR_ESC_JS   12  /* a JavaScript string literal, see MSTR_JSEscape */

/* & < > " ' as "&amp;" "&lt;" "&gt;" "&quot;" "&#39;"; safe in text and in
 * quoted attribute values. */
TARNPLAT_API const char* MSTR_HTMLEscape_s(const char* pszStr);
/* Every byte but A-Z a-z 0-9 - _ . ~ as %XX (upper-case hex). */
TARNPLAT_API int MSTR_URIEscape(const char* pszSrc, char* pszDst, size_t nzDst);
TARNPLAT_API const char* MSTR_URIEscapeStr(const char* pszStr);
/* pszIn escaped by nMode into pszOut.  nCharset (an MLG value, 0: byte by
 * byte) keeps multibyte characters whole in the JavaScript mode.  -1 for an
 * unknown mode. */
TARNPLAT_API int MSTR_Escape(const char* pszIn, char* pszOut, size_t nzOut, int nMode, int nCharset);
/* For a JavaScript string between single or double quotes, in a script
 * element or an event attribute: backslash as "\\", LF, CR and tab as
 * "\n" "\r" "\t", the quotes, < > & / and other control bytes as "\xHH",
 * U+2028 and U+2029 (UTF-8) as "\u2028" "\u2029"; byte by byte. */
TARNPLAT_API int MSTR_JSEscape(const char* pszSrc, char* pszDst, size_t nzDst);
/* The text without bidirectional embedding, override and isolate controls
 * (U+202A..U+202E, U+2066..U+2069): their UTF-8 bytes when nCharset is
 * MLG_UTF8 or 0, and their numeric character references in any charset. */
TARNPLAT_API const char* MSTR_RLORemove_s(const char* pszStr, int nCharset);
/* Reduces nSrcLen bytes of HTML (fewer at a NUL) to plain text: tags,
 * comments, script, style and title elements removed; <br> and the ends of
 * blocks as line feeds; white space runs as one space outside <pre>; the
 * references &lt; &gt; &amp; &quot; &apos; &nbsp; (as a space) and numeric
 * ones decoded where the charset nCharset (MLG value; MLG_JAPANESE follows
 * ISO-2022-JP escapes) can hold the character.  pszDst must hold nSrcLen + 1
 * bytes and may be pszSrc itself.  Returns the text's length (also stored
 * through pnDstLen when not NULL), or -1. */
TARNPLAT_API int MSTR_HtmlTagRemove(const char* pszSrc, int nSrcLen, char* pszDst, int* pnDstLen, int nCharset);
/* The length of the numeric character reference that pszStr begins with
 * ("&#233;", "&#x20AC;", up to U+10FFFF, ';' required), or 0.  Named
 * references are not counted.  nFlag is reserved (pass 0). */
TARNPLAT_API int MUC_IsUnicodeEnt(const char* pszStr, int nFlag);
/* MLG_SafeFileName without a length limit, for a name that goes into a
 * link's path. */
TARNPLAT_API const char* MLG_SafeFileName_s(const char* pszName, int nCharset);

/* ------------------------------------------------------------------------
 * User settings.  The settings of the user a page is made for ("Timezone"
 * and the like), held for the process: the CGI program loads the user's
 * profile once it knows who the user is.  Names are compared
 * case-sensitively.  Single-threaded, like the CGI programs.
 * ---------------------------------------------------------------------- */
/* Loads a profile file as the user's settings, replacing any earlier ones:
 * one "Name=Value" a line, blanks around name and value trimmed, empty
 * lines, lines starting with "#" and lines without "=" skipped; a later
 * line for a name wins.  NULL forgets the profile.  Returns 0, or -1 when
 * the file cannot be read (no profile is configured then). */
TARNPLAT_API int MUPRF_GlobalLoad(const char* pszPath);
/* Sets one setting, configuring an empty profile first when none is; a
 * NULL value removes the setting.  Returns 0, or -1 for a NULL or empty
 * name (or when no memory is left). */
TARNPLAT_API int MUPRF_GlobalSetStr(const char* pszName, const char* pszValue);
/* The user's setting pszName, copied into pszBuf (cut to nzBuf - 1 bytes,
 * always terminated); returns pszBuf, or NULL with "" in the buffer when
 * the setting is absent.  With no profile configured, "Timezone" is the
 * environment variable TZ (absent when TZ is not set). */
TARNPLAT_API char* MUPRF_GlobalGetStr(const char* pszName, char* pszBuf, size_t nzBuf);

/* ------------------------------------------------------------------------
 * Mailboxes, configuration and log.
 *
 * Mailboxes live under QUILLNET_ROOT ("/quillnet" unless set):
 *   <root>/mbox/<user>/<mailbox>/<message id>   one file per message
 *   <root>/mbox/<user>/<mailbox>/.index         MBX_Idx records, nothing else
 *   <root>/mbox/<user>/<mailbox>/.lock          taken with flock by writers
 * The user id is normalised first (MUSER_IDNormalize with GINI.sMYDOMAIN),
 * and the user id, mailbox name and message id are each percent-encoded
 * into one path component: bytes other than A-Z a-z 0-9 - _ . @ + = become
 * "%XX", and so does a leading ".", so no name can climb out of its
 * directory, two names never share a file and no message file can be taken
 * for ".index" or ".lock".
 *
 * Every change to an index is made under the mailbox's lock: the whole
 * index is written to ".index.new", flushed, and renamed over ".index".
 * Readers need no lock: they see the old index or the new one, never a mix,
 * and a process killed in the middle leaves the old index whole.  Message
 * files are written the same way (a temporary file renamed into place).
 * With TARN_MBX_NOFSYNC=1 in the environment the flushes are skipped (for
 * tests on slow disks; a crash may then lose recent changes).
 *
 * Results: 0 for success, -1 for a system failure (errno tells which),
 * -2 for a missing or unusable argument, MBX_ENOTFOUND when the mailbox
 * holds no such message, MBX_EEXIST when it already holds one.
 * ---------------------------------------------------------------------- */
#define MBX_ENOTFOUND (-3)
#define MBX_EEXIST    (-4)

/* nFlags bit: szSenderEmail and szSenderNick hold the first recipient
 * rather than the sender (sent-mail and draft mailboxes). */
#define MBX_IDX_RCPT 0x4

/* One index record; the index file is an array of them, in this layout
 * (304 bytes; the four bytes after nIdx are padding, written as zero). */
typedef struct MBX_Idx {
  int64_t tCreateTime;   /* seconds since the epoch */
  uint32_t nFlags;
  uint32_t nMailSize;    /* bytes of the message file */
  uint8_t nCharset;      /* MIME charset value of szSenderNick and szSubject */
  uint8_t nRSType;
  uint8_t nLabelType;
  uint8_t nBucketNo;
  char szFile[20];
  char szSenderEmail[40];
  char szSenderNick[24];
  char szMsgID[80];      /* the message's key in its mailbox */
  char szSubject[72];
  uint8_t nStorageType;
  uint8_t nStorageMode;
  char szReserved1[6];
  char szReserved2[32];
  uint32_t nIdx;
} MBX_Idx;

/* An open mailbox. */
typedef struct MBX MBX;

/* Modes of MBX_Open, combined with "|". */
#define MBX_MODE_READ   1  /* list and read */
#define MBX_MODE_UPDATE 2  /* also append and change the index */
#define MBX_MODE_CREATE 4  /* create the mailbox when missing (implies UPDATE) */

/* Opens a mailbox of a user; NULL when it does not exist (errno ENOENT),
 * cannot be created, or an argument is missing (errno EINVAL). */
TARNPLAT_API MBX* MBX_Open(const char* pszUserID, const char* pszMBox, int nMode);
/* Closes the mailbox and frees the handle (NULL is allowed); returns 0. */
TARNPLAT_API int MBX_Close(MBX* pstMbx);
/* Replaces the index record whose szMsgID is pszMsgID with *pstIdx (its
 * szMsgID is forced to pszMsgID, so the record stays that message's). */
TARNPLAT_API int MBX_IdxUpd(MBX* pstMbx, const char* pszMsgID, const MBX_Idx* pstIdx);
/* Stores a new message of nSize bytes under pszMsgID (1 to 79 bytes) and
 * appends its index record: *pstIdx when given, else a zero record; either
 * way szMsgID is set to the id and nMailSize to nSize, and tCreateTime to
 * now when it is 0.  MBX_EEXIST when the id is taken. */
TARNPLAT_API int MBX_MsgAppend(MBX* pstMbx, const char* pszMsgID, const char* pContent, size_t nSize,
                               const MBX_Idx* pstIdx);
/* The index records in their order: *ppList gets a malloc'ed array
 * (free() it; NULL when empty) and *pnCount its length. */
TARNPLAT_API int MBX_IdxList(MBX* pstMbx, MBX_Idx** ppList, size_t* pnCount);
/* Moves a message and its index record from one mailbox of the user to
 * another (both locked, in a fixed order).  A crash part way leaves the
 * message in one mailbox or both, never in neither; moving it again then
 * completes the move.  MBX_ENOTFOUND when the source lacks it, MBX_EEXIST
 * when the destination holds another message of that id. */
TARNPLAT_API int MBX_MsgMove(const char* pszUserID, const char* pszSrcMBox, const char* pszDesMBox,
                             const char* pszMsgID);
/* Reads a message and its index record.  *ppContent gets a malloc'ed copy
 * followed by a NUL (free() it) and *pnSize its length, without the NUL;
 * pstIdx may be NULL. */
TARNPLAT_API int MSG_Read(const char* pszUserID, const char* pszMBox, const char* pszMsgID,
                          char** ppContent, size_t* pnSize, MBX_Idx* pstIdx);

/*
 * Configuration files: "[Section]" lines open sections, "[Section@domain]"
 * sections hold one domain's values, "Key = Value" lines (blanks trimmed,
 * surrounding double quotes dropped) set values; empty lines and lines
 * starting with "#" or ";" are skipped.  Sections, domains and keys are
 * compared without regard to ASCII case; a later line wins.  A relative
 * file name is read under "/quillnet/etc", any name through MSYS_RootPath.
 * Files are read afresh on every call.
 */
/* The integer pszKey of section pszSection for domain pszDomain: the
 * domain's section first, then the plain section.  nDefault when the key
 * is absent, the value is not a decimal integer or lies outside
 * [nMin, nMax]. */
TARNPLAT_API int MCF_S_IntGet(const char* pszFile, const char* pszSection, const char* pszKey,
                              const char* pszDomain, int nDefault, int nMin, int nMax);
/* The text value, looked up the same way, copied into pszBuf (cut to
 * nzBuf - 1 bytes); returns pszBuf, or NULL with pszDefault (or "") copied
 * when the key is absent. */
TARNPLAT_API char* MCF_S_StrGet(const char* pszFile, const char* pszSection, const char* pszKey,
                                const char* pszDomain, const char* pszDefault, char* pszBuf, size_t nzBuf);

/* The global configuration: section "Global" of "tarnapp.conf". */
typedef struct MCF_GLOBAL {
  int nLoaded;             /* 1 once MCF_GlobalLoad has run */
  char sMYDOMAIN[256];     /* "MYDOMAIN": domain of user ids given without one */
  char sSENTMAILENC[64];   /* "SENT_MAIL_ENCODING": charset of sent mail ("utf-8") */
} MCF_GLOBAL;
TARNPLAT_API extern MCF_GLOBAL GINI;
/* (Re)reads GINI from pszFile (NULL: "tarnapp.conf"); a missing file
 * leaves the defaults.  The mailbox calls load it on first use.  Returns 0. */
TARNPLAT_API int MCF_GlobalLoad(const char* pszFile);
/* The charset name mail is sent in: the user's "SentMailEncoding" setting
 * (MUPRF_GlobalGetStr), else GINI.sSENTMAILENC.  nFlag is reserved (0). */
TARNPLAT_API const char* MSLG_GlobalGetSentMailEnc(int nFlag);

/* A user id as the system keys it: blanks trimmed, ASCII lower-cased, and
 * "@" with pszDefDomain appended when it has no "@" and the domain is not
 * empty.  Cut to nzBuf - 1 bytes.  Returns 0, -2 for a NULL argument. */
TARNPLAT_API int MUSER_IDNormalize(const char* pszID, const char* pszDefDomain, char* pszBuf, size_t nzBuf);
/* The domain of a user id (the text after its last "@", "" when none);
 * returns pszBuf. */
TARNPLAT_API char* MSYS_GetIDDomain(const char* pszID, char* pszBuf, size_t nzBuf);

/* Appends one line to a log file (through MSYS_RootPath; its directory is
 * created when missing): the formatted text with CR and LF turned into
 * blanks, then LF, in one write(2) on an O_APPEND descriptor, so lines of
 * concurrent processes never mix.  Returns 0, or -1. */
TARNPLAT_API int LOG_FileLine(const char* pszPath, const char* pszFormat, ...)
    __attribute__((format(printf, 2, 3)));

/* ------------------------------------------------------------------------
 * Session.  Who the request is served for: the CGI program fills the
 * record once it has checked the sign-in (copy with MSTR_Copy, bounded by
 * the field); every field is empty until then.  The library reads the
 * mail address for the Content-IDs it makes.  One record per process,
 * like the CGI programs.
 * ---------------------------------------------------------------------- */
typedef struct MSESSION {
  char email[256]; /* the signed-in user's mail address */
} MSESSION;
TARNPLAT_API extern MSESSION g_stSession;

/* ------------------------------------------------------------------------
 * Files.
 * ---------------------------------------------------------------------- */
/* Reads a whole file, shared between processes through the page cache
 * (a read-only private mapping).  On success returns 0 and sets *pnSize
 * and *ppContent; the content is followed by a NUL (the mapping is padded,
 * or a heap copy is made when the size is a multiple of the page size).
 * nFlag 1 keeps the content for the life of the process (cached by path,
 * later calls return the same pointer); 0 hands it to the caller, who
 * releases it with MSHM_FileFree.  Returns -1 when the file cannot be read. */
TARNPLAT_API int MSHM_FileRead(const char* pszPath, size_t* pnSize, char** ppContent, int nFlag);
TARNPLAT_API void MSHM_FileFree(char* pContent, size_t nSize);

/* The fixed "/quillnet/..." paths: when QUILLNET_ROOT is set in the
 * environment, its value replaces the leading "/quillnet".  Writes the
 * result into pszDst (bounded by nzDst) and returns pszDst. */
TARNPLAT_API char* MSYS_RootPath(const char* pszPath, char* pszDst, size_t nzDst);

/* ------------------------------------------------------------------------
 * Time.  strftime-style formatting into a bounded buffer: a text that does
 * not fit is cut to nzBuf - 1 bytes.  Both return pszBuf, or NULL (with ""
 * in the buffer when there is one) when pszBuf or pszFormat is NULL, nzBuf
 * is 0 or the time cannot be broken down.
 * ---------------------------------------------------------------------- */
#include <time.h>
/* *pnTime (now when pnTime is NULL) in the process's local time. */
TARNPLAT_API char* MTM_ToStr2(char* pszBuf, size_t nzBuf, const char* pszFormat, const time_t* pnTime);
/* nTime in the zone a user chose in pszTimezone: an offset east of UTC
 * ("+0800", "-05:30", "+8", "GMT+8", "UTC-03:30"; "GMT" and "UTC" are 0),
 * or a zone name of the C library ("Asia/Taipei", "EST5EDT").  NULL or ""
 * means the process's local time, and so does a name that holds anything
 * but letters, digits and / _ - + , . < > (or starts with "/" or holds
 * "..").  With an offset, %Z gives "GMT+08:00". */
TARNPLAT_API char* MTM_UTC2LocalStr_s(char* pszBuf, size_t nzBuf, const char* pszFormat, time_t nTime,
                                      const char* pszTimezone);

#ifdef __cplusplus
}
#endif

#endif /* TARNPLAT_H */
