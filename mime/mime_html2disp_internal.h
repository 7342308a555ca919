/*
 * mime_html2disp_internal.h - the state of one HTML rewriting and the
 * rewriters that work inside tags.  Not installed; tests reach them through
 * the static build.
 *
 * Every search here is bounded by the end of the text (its terminator) and
 * remembers its last answer, so that a body full of unclosed tags, quotes
 * or attribute names is still read a bounded number of times.
 */
#ifndef TARNMAIL_MIME_HTML2DISP_INTERNAL_H
#define TARNMAIL_MIME_HTML2DISP_INTERNAL_H

#include <cstddef>
#include <string_view>

#include "mime_disp_internal.h"
#include "tarnmail/filter.h"

/* html2disp_flag bits. */
constexpr int kH2dScript = 0x1;          /* defuse script words, disable on...=, drop script */
constexpr int kH2dTextarea = 0x2;        /* "</textarea>" written as text */
constexpr int kH2dAmp = 0x4;             /* every '&' as "&amp;" */
constexpr int kH2dBodyBg = 0x8;          /* body colours and backgrounds on a wrapping div */
constexpr int kH2dHtml = 0x10;           /* html tags to placeholders */
constexpr int kH2dHead = 0x20;           /* head element to a placeholder, base kept */
constexpr int kH2dStyle = 0x40;          /* style elements to a placeholder */
constexpr int kH2dMailto = 0x80;         /* mailto: links to the compose program */
constexpr int kH2dBlank = 0x100;         /* links open a new window */
constexpr int kH2dBody = 0x200;          /* body tags to placeholders */
constexpr int kH2dIframe = 0x400;        /* iframe elements to a placeholder */
constexpr int kH2dBlockImg = 0x800;      /* external images blocked */
constexpr int kH2dBlankInline = 0x1000;  /* referenced inline images shown blank */
constexpr int kH2dMetaRefresh = 0x2000;  /* meta refresh disabled */
constexpr int kH2dLink = 0x4040;         /* link elements neutralised (either bit) */
constexpr int kH2dObject = 0x8000;       /* object elements dropped */
constexpr int kH2dEmbed = 0x10000;       /* embed tags dropped */
constexpr int kH2dXml = 0x20000;         /* xml elements to a placeholder */
constexpr int kH2dRemovePasses = 0x40000; /* removal passes before the walk */
constexpr int kH2dIsindex = 0x80000;     /* isindex elements to a placeholder */

/* The picture written in place of a blocked or blanked image. */
constexpr const char* kBlankImage = "/img/rrblk.gif";

/* Attributes whose value is a URI, tried in this order; ended by an empty
 * name.  "codebse" is spelled so on purpose. */
struct html_uri_t {
  const char* name;
  int len;
};
extern const html_uri_t html_uri[14];
/* The first letters of those names. */
extern const char uri_charset[];

/* First `c` at or after a position, for a series of searches whose starts
 * mostly move forward: an answer is reused while it still lies ahead. */
class ByteFinder {
 public:
  ByteFinder(const char* end, char c) : end_(end), c_(c) {}
  const char* next(const char* from);

 private:
  const char* end_;
  char c_;
  const char* from_ = nullptr;
  const char* hit_ = nullptr;  // nullptr: none at or after from_
};

/* First occurrence of a text (compared without regard to case) at or
 * after a position, remembered the same way. */
class TextFinder {
 public:
  TextFinder(const char* end, std::string_view text) : end_(end), text_(text) {}
  const char* next(const char* from);

 private:
  const char* end_;
  std::string_view text_;
  const char* from_ = nullptr;
  const char* hit_ = nullptr;
};

/* First attribute `name` (any case, even inside a longer word) that is
 * followed by optional white space and '=', at or after a position;
 * remembered the same way.  Returns the name's position. */
class AttrFinder {
 public:
  AttrFinder(const char* end, std::string_view name) : end_(end), name_(name) {}
  const char* next(const char* from);
  std::string_view name() const { return name_; }

 private:
  const char* end_;
  std::string_view name_;
  const char* from_ = nullptr;
  const char* hit_ = nullptr;
};

/* First white space or '>' at or after a position (where an attribute
 * value without quotes ends), remembered the same way. */
class TermFinder {
 public:
  explicit TermFinder(const char* end) : end_(end) {}
  const char* next(const char* from);

 private:
  const char* end_;
  const char* from_ = nullptr;
  const char* hit_ = nullptr;
};

/* An attribute value found in the text. */
struct AttrValue {
  const char* pos = nullptr;    /* the value (its opening quote when quoted); nullptr: none */
  const char* after = nullptr;  /* the byte after it (after the closing quote) */
};

/* One rendering of one HTML body. */
struct HtmlWalk {
  HtmlWalk(MIME_DISP* disp_info, char* text, char* text_end);

  MIME_DISP* disp;
  int flags;
  int charset;          /* charset mode of attribute values, see html_charset_mode */
  char* begin;
  char* end;            /* the text's terminator */
  char* q;              /* the walk's position */
  char* mark;           /* input from here up to q is still to be copied as it is */

  ByteFinder gt;        /* the next '>' */
  TermFinder term;      /* the end of the next value without quotes */
  AttrFinder src, width, height, http_equiv;
  /* Bytes before this were passed over inside an attribute's name and '='
   * without being looked at one by one. */
  const char* unvisited_end;

  /* The value last read by href_value, and the img and meta decisions last
   * taken, by position, so that a name repeated inside one tag does not
   * read the same long value again. */
  const char* href_at = nullptr;
  AttrValue href;
  char href_buf[1024];
  const char* src_at = nullptr;
  bool src_saved = false;
  const char* equiv_at = nullptr;
  AttrValue equiv;
  bool equiv_refresh = false;

  /* Writes the input held back so far (mark up to q). */
  void flush();
  /* Writes the input held back up to `to` and drops what lies between
   * `to` and q. */
  void flush_to(const char* to);
  void emit(const char* text);
  void emit(const char* text, size_t len);
  /* The walk goes on at `to`, nothing held back. */
  void jump(char* to) { q = mark = to; }
};

/* 1 for UTF-8, 4 for ISO-2022-JP, 3 for GB2312, 14 for GB18030 and 2 (two
 * bytes to a character, as Big5) for any other charset value. */
int html_charset_mode(int nTextCharsetVal);

/* The value of attribute `name` written at p: the name (any case), white
 * space, '=', white space, then a value quoted with '"' or '\'' (a
 * backslash escapes the next byte; a double-byte character of the charset
 * mode is kept whole) or running up to white space or '>'.  The value is
 * copied into buf without its quotes (cut to nz - 1 bytes).  Nothing is
 * read at or after `limit`. */
AttrValue attr_value_at(const char* p, const char* limit, std::string_view name, int charset,
                        TermFinder& term, char* buf, size_t nz);
/* The same for the first such attribute between `from` and `limit`. */
AttrValue find_attr_value(AttrFinder& finder, const char* from, const char* limit, int charset,
                          TermFinder& term, char* buf, size_t nz);

/* The rewriters.  Each is called at the position of its word inside a tag
 * (walk.q) and returns the position to go on from; the same position when
 * it left the input alone. */
char* conv_mailto(char* q, HtmlWalk& walk);
char* conv_dataurl(char* q, HtmlWalk& walk);
char* conv_outurl(char* q, HtmlWalk& walk);
char* conv_meta(char* q, HtmlWalk& walk);
char* block_imgtag(char* q, HtmlWalk& walk);
/* The test of block_imgtag without writing: sets is_block_image when the
 * img tag at q shows an external picture. */
char* chk_imgtag(char* q, HtmlWalk& walk);

/* At a `cid:` value (convert_CID) or a saved part's location (convert_LOC):
 * writes the link of the saved part, marks it referenced, moves *ptr past
 * the reference and returns 1; otherwise 0. */
int convert_CID(char** ptr, MIME_DISP* disp_info);
int convert_LOC(char** ptr, MIME_DISP* disp_info);
/* 1 when the value names a saved part: "cid:" and a Content-ID of the list
 * (check_CID), or a Content-Location of the list (check_LOC).  The list
 * walks compare each entry over its own length. */
int check_CID(const char* value, MIME_DISP* disp_info);
int check_LOC(const char* value, MIME_DISP* disp_info);
int check_CID2(const char* id, const fileCID* list);
int check_LOC2(const char* value, const fileLOC* list);

/* One field of a mailto: URL as a heap copy (free() it), or NULL when the
 * URL has none.  nFlag kStrMailtoAddress: the address after pszPattern
 * ("mailto") and ':' up to '?' or '&'; kStrMailtoAmp: the text after the
 * first of "&", "&amp;", "&#38;", "&#x26;", "&#d38;" followed by pszPattern
 * ("cc="), up to the next '&'; kStrMailtoLiteral: the text after pszPattern
 * itself ("?subject="), up to the next '&'. */
constexpr int kStrMailtoAddress = 0;
constexpr int kStrMailtoAmp = 1;
constexpr int kStrMailtoLiteral = 2;
char* str_mailto(char* pszMailTo, char* pszPattern, int nFlag);

/* Length of a URI attribute's name, white space, '=', white space, quotes
 * and white space at q (nothing read at or after end), or 0; *dquote tells
 * whether a double quote was among them. */
size_t uri_attr_prefix(const char* q, const char* end, bool* dquote);

#endif /* TARNMAIL_MIME_HTML2DISP_INTERNAL_H */
