/*
 * mime_text2disp_internal.h - plain text to HTML: the entry points and the
 * routines behind them.  Not installed; tests reach them through the static
 * build.
 */
#ifndef TARNMAIL_MIME_TEXT2DISP_INTERNAL_H
#define TARNMAIL_MIME_TEXT2DISP_INTERNAL_H

#include <cstddef>

#include "mime_disp_internal.h"

/* text2disp_flag bits. */
#define T2D_NBSP          0x1      /* second and further spaces of a run as "&nbsp;" */
#define T2D_LINK          0x2      /* URLs and mailto: addresses become links */
#define T2D_BR            0x4      /* line feed as "<br>\n"; quoted lines coloured */
#define T2D_REPLY         0x8      /* reply_sign at the start of every line */
#define T2D_BR_XHTML      0x40     /* "<br/>" before every line feed */
#define T2D_QUOT          0x80     /* '"' as "&quot;" */
#define T2D_LT            0x100    /* '<' as "&lt;" */
#define T2D_GT            0x200    /* '>' as "&gt;" */
#define T2D_QUOT2         0x400    /* '"' as "&amp;quot;" */
#define T2D_LT2           0x800    /* '<' as "&amp;lt;" */
#define T2D_GT2           0x1000   /* '>' as "&amp;gt;" */
#define T2D_QUOTE_COLOUR  0x2000   /* quoted lines coloured without "<br>" */
#define T2D_JS            0x4000   /* the HTML escaped for a JavaScript string */
#define T2D_AMP           0x8000   /* '&' as "&amp;" unless it begins a reference */
#define T2D_AMP2          0x10000  /* '&' as "&amp;amp;" unless it begins a reference */

/* One row of the scheme table. */
struct WWW_HEAD {
  const char* name; /* "http://" */
  int pre_len;      /* letters before the ':' */
  int len;          /* length of name */
};
/* http, https, gopher, ftp, mailto (row 4), telnet, wais, news; ended by a
 * row with an empty name. */
extern const WWW_HEAD www_link[];
constexpr int kMailtoRow = 4;

/* Bytes that may follow ESC inside an ANSI escape sequence. */
extern const char* const ansicode;

/* Finds the end of a URL-like token.  Forward (way 1): the last byte of
 * the token that starts at data; backward (way 0): its first byte; NULL
 * when len steps ran out first.  pass_2_byte 0 also ends the token before
 * a multibyte character that follows an ASCII letter or digit.  A
 * multibyte character (charset 1: UTF-8; any other value: two bytes) is
 * passed whole, except that it never swallows a NUL, a blank, a line end,
 * a quote, '<', '>' or ':'.  The two bytes before the current one are
 * read when pass_2_byte is 0: they must belong to the buffer; backward,
 * len must not reach past the buffer's start. */
char* spacesearch(char* data, int way, int len, int pass_2_byte, int charset);

/* Builds one link at the ':' at *p (see text2disp_link in the sources):
 * returns 1 with *p after the URL and *q after the link written, or 0 with
 * nothing changed.  The caller's output before *q must mirror the input
 * before *p (as many bytes), and at least T2D_LINK_ROOM bytes must be free
 * at *q. */
int url_process(char* data, int datasize, char** p, char** q, MIME_DISP* disp_info);
constexpr size_t T2D_LINK_ROOM = 2 * 1040 + 64;

/* Prints the finished HTML, turning the marker bytes of the context into
 * coloured spans and search links. */
void printout(char* buf, MIME_DISP* disp_info);

/* ---- shared by the rendering files ---- */

namespace t2d {

/* The token ends of the forward walks from the ':' of one text, for
 * queries at rising positions.  A ':' is never passed as part of a
 * multibyte character, so every walk from an earlier ':' that reaches a
 * later ':' lands on it and goes on exactly as a walk from there would:
 * one walk answers them all, and the whole text is walked at most once. */
class TokenEnds {
 public:
  TokenEnds(const char* text, int charset) : s_(text), charset_(charset) {}
  /* The byte that ends the token walked from x (a ':' of the text), when it
   * lies fewer than `limit` bytes after x; else NULL. */
  const char* stop_from(const char* x, size_t limit);

 private:
  const char* s_;
  int charset_;
  const char* start_ = nullptr;
  const char* front_ = nullptr;
  bool stopped_ = false;
};

/* Where links may be written: the output buffer's bounds. */
struct LinkOut {
  char* begin;
  char* end;
};

/* url_process on a text whose token walks are cached in `ends`; the
 * pull-back never passes out.begin and nothing is written at or past
 * out.end (a link that would not fit is not made). */
int link_at(const char* data, size_t datasize, const char** p, char** q, const MIME_DISP* disp_info,
            TokenEnds& ends, const LinkOut& out);

/* Bytes a link at the ':' x may add to the output beyond the input it
 * replaces; 0 when no link can start there. */
size_t link_room(const char* data, const char* x, const MIME_DISP* disp_info, TokenEnds& ends);

}  // namespace t2d

#endif /* TARNMAIL_MIME_TEXT2DISP_INTERNAL_H */
