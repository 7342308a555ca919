// Uuencoded blocks inside text bodies: each "begin MODE NAME" ... "end"
// block is cut out of the text and becomes an entity of its own that
// follows the text entity.

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "mime_internal.h"

namespace {

constexpr size_t kBegin = 6;        // strlen("begin ")
constexpr long kMaxModeSpan = 12;   // from the "b" of "begin" to the blank after the mode
constexpr long kMaxNameSpan = 128;  // from that blank to the LF that ends the name

struct BeginLine {
  char* begin;  // the "b" of "begin"
  char* name;   // the name text
  char* lf;     // the LF that ends the line
};

// Parses a "begin MODE NAME" line at `b`; false when it is not one.
bool parse_begin(char* b, BeginLine* out) {
  char* mode = b + kBegin;
  char* blank = mode;
  while (*blank != '\0' && *blank != ' ' && blank - b <= kMaxModeSpan) ++blank;
  if (*blank != ' ' || blank - b > kMaxModeSpan) return false;
  char digits[256];
  MSTR_NCopy(digits, sizeof digits, mode, static_cast<size_t>(blank - mode));
  long value = strtol(digits, nullptr, 10);
  if (value < 1 || value > 5000) return false;
  char* lf = blank + 1;
  while (*lf != '\0' && *lf != '\n' && lf - blank <= kMaxNameSpan) ++lf;
  if (*lf != '\n' || lf - blank > kMaxNameSpan) return false;
  *out = {b, blank + 1, lf};
  return true;
}

// The body's text as the search sees it.  Everything the cutting writes
// (NULs, decoded bytes) lies before the next search's start, so the text
// from there up to `end` stays as it was: searches take the length instead
// of measuring the rest of the body again each time.
struct Text {
  char* body;
  char* end;  // the body's terminator
  // Where the next "\nend\n" and "\nend\r\n" stand, once searched for:
  // blocks ended by CR LF would otherwise each search the whole rest of
  // the body again for an "end" ended by LF alone.
  struct Found {
    char* at = nullptr;
    bool searched = false;
  } lf_end, crlf_end;
};

char* find(char* from, char* end, std::string_view pattern) {
  if (from >= end) return nullptr;
  size_t at = std::string_view(from, static_cast<size_t>(end - from)).find(pattern);
  return at != std::string_view::npos ? from + at : nullptr;
}

// Next begin line from `from`: one at the body's start or after an LF.
bool find_begin(const Text& text, char* from, BeginLine* out) {
  for (char* b = find(from, text.end, "begin "); b != nullptr; b = find(b + kBegin, text.end, "begin ")) {
    if (b != text.body && b[-1] != '\n') continue;
    if (parse_begin(b, out)) return true;
  }
  return false;
}

// The next `pattern` from `from`, reusing the last answer while it still
// lies ahead or said there is none (searches only move forward).
char* find_cached(const Text& text, char* from, const char* pattern, Text::Found* found) {
  if (!found->searched || (found->at != nullptr && found->at < from)) {
    found->at = find(from, text.end, pattern);
    found->searched = true;
  }
  return found->at;
}

// The LF in front of "end" that closes the block begun at `begin`.
char* find_end(Text& text, char* begin) {
  char* e = find_cached(text, begin, "\nend\n", &text.lf_end);
  if (e == nullptr) e = find_cached(text, begin, "\nend\r\n", &text.crlf_end);
  return e;
}

char* japanese_name(char* name, int charset, MIME_DECODE* decode_info) {
  if (!(decode_info->auto_convert & 1) || (charset != MIME_CS_ISO2022JP && charset != MIME_CS_EUCJP)) return name;
  char* sjis = mime_jp_to_sjis(name, charset, decode_info);
  return sjis != nullptr ? sjis : name;
}

}  // namespace

void OLD_UUE_DECODE(ME* me, MIME_DECODE* decode_info) {
  ME* former_next = me->next;
  if (me->ent_len == 0) me->h->mime.filename = nullptr;
  char* body = me->body_bgn;
  if (body == nullptr) return;
  ME* last = me;
  bool first_block = true;
  Text text{body, body + strlen(body), {}, {}};
  BeginLine line;
  for (char* from = body; find_begin(text, from, &line);) {
    char* end_lf = find_end(text, line.begin);
    // No "end": stop at once.  Blocks already cut end the chain there; the
    // entity that followed the text is not linked back.
    if (end_lf == nullptr) return;
    *line.begin = '\0';
    *end_lf = '\0';

    ME* block = static_cast<ME*>(mime_alloc(decode_info, sizeof(ME)));
    block->h = static_cast<ME_HEADER*>(mime_alloc(decode_info, sizeof(ME_HEADER)));
    last->next = block;
    last = block;
    MIME_HEADER& mime = block->h->mime;
    mime.ctype = MIME_CT_OTHER;
    mime.enc_type = MIME_ENC_NONE;
    *line.lf = '\0';
    if (line.lf > line.name && line.lf[-1] == '\r') line.lf[-1] = '\0';
    block->header_bgn = line.begin;
    block->header_end = line.lf;
    block->body_bgn = line.lf + 1;
    mime.filename = line.name;

    me->h->mime.filename = nullptr;
    mime_next_file_id(&mime, decode_info);
    decode_info->result.me_info._attachment |= 1;
    mime.filename = japanese_name(unquote(mime.filename), me->h->mime.charset, decode_info);

    block->datalen = MTX_UUDec(block->body_bgn);
    block->body_end = block->body_bgn + block->datalen;
    // The text's own offset plus the way into it: the position of "begin"
    // in the message, and still a sound number when the text is a TNEF
    // file in the arena.
    block->ent_offset = me->ent_offset + static_cast<tm_off_t>(line.begin - me->header_bgn);
    block->ent_len = static_cast<tm_off_t>(end_lf - line.begin + 5);
    if (first_block) me->datalen = static_cast<int>(line.begin - me->body_bgn);
    first_block = false;

    const char* type = mime_type_checking(reinterpret_cast<unsigned char*>(block->body_bgn), block->datalen,
                                          reinterpret_cast<unsigned char*>(mime.filename));
    mime.ctype_str = mime_strndup(decode_info, type, strlen(type));
    fill_mime_header_ctype(block->h);
    from = end_lf + 5;  // inside the "\nend\n" or "\nend\r\n" just found
  }
  last->next = former_next;
}
