// The structure walk: finds each entity's header block, cuts multipart
// bodies at their delimiters and descends into embedded messages.  Every
// position points into the caller's buffer; only message/rfc822 bodies are
// copied.  The buffer is NUL-terminated one byte past the message, which
// bounds every look-ahead of one byte.

#include <algorithm>
#include <cstring>

#include "mime_internal.h"

namespace {

// End of the message being walked (its terminating NUL).
char* s_pcDataEnd = nullptr;

// The furthest entity start the walk has reached.  A multipart whose part
// ran off without a further delimiter searches again from that part's
// start, and may meet delimiter lines that a deeper multipart already cut
// into entities; starting a part there again would walk the same text a
// second time (and decode it twice in place), and with one boundary shared
// by many unclosed levels the work would double with every level.
char* s_pcWalked = nullptr;

// Embedded messages nest at most this deep; the entity at the limit keeps
// its header block only.
constexpr int kMaxMessageLevel = 9;

// Multiparts nested deeper than this are treated as opaque leaves, so the
// walk's recursion stays far from the end of the stack.  No real message
// comes near it.
constexpr int kMaxMultipartDepth = 200;
int s_nMultipartDepth = 0;

struct DepthGuard {
  DepthGuard() { ++s_nMultipartDepth; }
  ~DepthGuard() { --s_nMultipartDepth; }
  DepthGuard(const DepthGuard&) = delete;
  DepthGuard& operator=(const DepthGuard&) = delete;
};

constexpr char kTextPlain[] = "text/plain";
constexpr char kRfc822[] = "message/rfc822";

bool is_line_break(char c) { return c == '\r' || c == '\n'; }

size_t header_search_len(const ME* me) {
  if (me->body_end != nullptr && me->body_end > me->body_bgn)
    return static_cast<size_t>(me->body_end - me->body_bgn);
  return static_cast<size_t>(s_pcDataEnd - me->body_bgn);
}

// A search to the end of the message that found no empty line, and where
// its last line started.  Any later search to the end from a byte at or
// after that start (and not itself on an LF, which would be an empty line)
// cannot find one either: the walk writes NULs over LFs but never adds one.
// Remembering this keeps a message of many header-only parts linear.
char* s_pcNoEmptyLineFrom = nullptr;
char* s_pcLastLineStart = nullptr;

// Finds the empty line that ends the header block.  On success leaves
// header_end on the LF that ends the last header line and body_bgn on the
// body's first byte; on failure body_bgn rests on the last line's start.
bool find_header_end(ME* me) {
  char* start = me->body_bgn;
  const bool to_the_end = start + header_search_len(me) == s_pcDataEnd;
  if (to_the_end && s_pcNoEmptyLineFrom != nullptr && start >= s_pcNoEmptyLineFrom && *start != '\n') {
    me->body_bgn = std::max(start, s_pcLastLineStart);
    return false;
  }
  for (;;) {
    char* lf = static_cast<char*>(memchr(me->body_bgn, '\n', header_search_len(me)));
    if (lf == nullptr) {
      if (to_the_end && (s_pcNoEmptyLineFrom == nullptr || start < s_pcNoEmptyLineFrom)) {
        s_pcNoEmptyLineFrom = start;
        s_pcLastLineStart = me->body_bgn;
      }
      return false;
    }
    me->header_end = lf;
    if (lf[1] == '\n') {
      me->body_bgn = lf + 2;
      return true;
    }
    if (lf[1] == '\r' && lf[2] == '\n') {
      me->body_bgn = lf + 3;
      return true;
    }
    if (lf == me->body_bgn) {  // an empty line at the very start
      me->body_bgn = lf + 1;
      return true;
    }
    me->body_bgn = lf + 1;
  }
}

// Matches "--" and the first b_size bytes of the boundary at p.  The text
// is NUL-terminated, so the compare stops at its end.
bool delimiter_at(const char* p, const char* boundary, int b_size) {
  return p[0] == '-' && p[1] == '-' && strncmp(p + 2, boundary, static_cast<size_t>(b_size)) == 0;
}

ME* new_entity(MIME_DECODE* decode_info) { return static_cast<ME*>(mime_alloc(decode_info, sizeof(ME))); }

struct PartRule {
  int isrfc822;
  const char* default_type;
};

PartRule part_rule(int parent_ctype) {
  if (parent_ctype == MIME_CT_DIGEST) return {1, kRfc822};
  if (parent_ctype == MIME_CT_MIXED) return {1, kTextPlain};
  return {0, kTextPlain};
}

// Where the next part begins: after the boundary text, one CR and one LF.
char* after_line_break(char* p) {
  if (*p == '\r') ++p;
  if (*p == '\n') ++p;
  return p;
}

char* strip_multipart(ME* me, int curr_level, MIME_DECODE* decode_info) {
  ME_HEADER* h = me->h;
  char* boundary = h->boundary;
  int b_size = static_cast<int>(strlen(boundary));
  char* found = MSTR_LocStr(me->body_bgn, boundary);
  if (found == nullptr) return nullptr;  // no parts: preamble and body are ignored

  char* start = found + b_size;
  start = (start[0] == '\r' && start[1] == '\n') ? start + 2 : std::min(start + 1, s_pcDataEnd);
  PartRule rule = part_rule(h->mime.ctype);
  ME* child = new_entity(decode_info);
  me->child = child;

  DepthGuard depth;
  for (;;) {
    child->body_bgn = start;
    char* resumed = mime_strip_parse(child, boundary, rule.isrfc822, rule.default_type, decode_info, curr_level);
    char* from = resumed != nullptr ? std::max(start, resumed) : start;
    char* next_start = nullptr;
    while (next_start == nullptr) {
      char* d = mime_boundary_find(from, s_pcDataEnd, boundary, b_size);
      if (d == nullptr) {
        decode_info->error_code |= MIME_ERR_NO_CLOSE_BOUNDARY;
        if (child->body_end == nullptr) child->body_end = s_pcDataEnd;
        return nullptr;
      }
      if (child->body_end == nullptr) child->body_end = d;
      char* q = std::min(after_line_break(d) + 2 + b_size, s_pcDataEnd);
      if (q[0] == '-' && q[1] == '-') {
        // A closing delimiter.  One ended by CR LF leaves the result on the
        // LF: the CR alone is stepped over.  Callers rely on it.
        char* e = q + 2;
        if (*e == '\0') return e;
        if (is_line_break(*e)) return e + 1;
        // "--" followed by anything else does not close the multipart.
      }
      next_start = after_line_break(q);
      if (next_start <= s_pcWalked) {
        next_start = nullptr;
        from = s_pcWalked;
      }
    }
    ME* next = new_entity(decode_info);
    child->next = next;
    child = next;
    start = next_start;
  }
}

// A transfer-encoded embedded message is kept whole: its decoded text goes
// to org_text and it gets no child.
char* strip_encoded_message(ME* me, char* p_boundary, MIME_DECODE* decode_info) {
  mime_body_end_fill(me, s_pcDataEnd, p_boundary);
  if (me->body_end == nullptr || me->body_end <= me->body_bgn) return me->body_end;
  size_t len = static_cast<size_t>(me->body_end - me->body_bgn);
  char* copy = mime_strndup(decode_info, me->body_bgn, len);
  me->h->mime.org_text = copy;
  int level = decode_info->decode_level;
  int decoded = static_cast<int>(len);
  switch (me->h->mime.enc_type) {
    case MIME_ENC_QP:
      if (level & MIME_DL_QP) decoded = MTX_QPDec(copy);
      break;
    case MIME_ENC_BASE64:
      if (level & MIME_DL_BASE64) decoded = MTX_Base64Dec(copy);
      break;
    default:
      if (level & MIME_DL_UUENCODE) {
        char name[128];  // the begin line's file name is not wanted here
        decoded = MTX_UUDec2(copy, name, sizeof name);
      }
      break;
  }
  me->datalen = decoded;
  return me->body_end;
}

bool kept_as_attachment(const ME_HEADER* h, int decode_level) {
  if (!(decode_level & MIME_DL_RFC822_ATT) || h->mime.contdisp == nullptr) return false;
  return MSTR_NCaseCmp(h->mime.contdisp, "attachment", 10) == 0 ||
         MSTR_TokPtr(h->mime.contdisp, "name", "* \n\t", "=", 0, 0) != nullptr;
}

char* strip_message(ME* me, char* p_boundary, int curr_level, MIME_DECODE* decode_info) {
  ME_HEADER* h = me->h;
  char enc = h->mime.enc_type;
  if (enc == MIME_ENC_BASE64 || enc == MIME_ENC_QP || enc == MIME_ENC_UUENCODE)
    return strip_encoded_message(me, p_boundary, decode_info);
  if (kept_as_attachment(h, decode_info->decode_level)) {
    mime_body_end_fill(me, s_pcDataEnd, p_boundary);
    return me->body_end;
  }

  ME* child = new_entity(decode_info);
  me->child = child;
  child->body_bgn = me->body_bgn;
  char* resumed = mime_strip_parse(child, h->boundary, 1, kTextPlain, decode_info, curr_level + 1);
  if (resumed == nullptr) {
    mime_body_end_fill(me, s_pcDataEnd, p_boundary);
    if (p_boundary == nullptr) me->body_end = s_pcDataEnd;
  } else {
    me->body_end = resumed;
  }
  // Come to rest on the last byte of a run of line breaks.
  char* e = me->body_end;
  while (e[0] != '\0' && e[1] != '\0' && is_line_break(e[1])) ++e;
  me->body_end = e;
  child->body_end = e;
  if (e > me->body_bgn)
    h->mime.org_text = mime_strndup(decode_info, me->body_bgn, static_cast<size_t>(e - me->body_bgn));
  return e;
}

void parse_header_up_to_end(ME* me, int isrfc822, const char* default_type, MIME_DECODE* decode_info) {
  if (me->header_end != nullptr && me->header_bgn < me->header_end)
    header_strip_parse(me, isrfc822, default_type, decode_info);
}

}  // namespace

void mime_strip(ME* me, MIME_DECODE* decode_info) {
  s_pcDataEnd = decode_info->result.me_node.body_end;  // untouched since mime_decode_init
  s_nMultipartDepth = 0;
  s_pcWalked = nullptr;
  s_pcNoEmptyLineFrom = s_pcLastLineStart = nullptr;
  char* last = nullptr;
  for (;;) {
    char* p = mime_strip_parse(me, nullptr, 1, decode_info->result.me_info.default_type, decode_info, 0);
    // Text after the message (the epilogue of a top-level multipart)
    // becomes a further top-level entity, until only line breaks remain.
    if (p == nullptr || p >= s_pcDataEnd || (last != nullptr && p <= last)) return;
    char* q = p;
    while (q < s_pcDataEnd && is_line_break(*q)) ++q;
    if (q >= s_pcDataEnd) return;
    last = p;
    ME* next = new_entity(decode_info);
    me->next = next;
    next->body_bgn = p;
    next->body_end = s_pcDataEnd;
    me = next;
  }
}

char* mime_strip_parse(ME* me, char* p_boundary, int isrfc822, const char* default_type,
                       MIME_DECODE* decode_info, int curr_level) {
  me->header_bgn = me->body_bgn;
  if (me->header_bgn > s_pcWalked) s_pcWalked = me->header_bgn;
  if (!find_header_end(me)) {
    // All the text up to the entity's end is header; body_bgn stays at the
    // start of the last line.
    me->header_end = me->body_end;
    parse_header_up_to_end(me, isrfc822, default_type, decode_info);
    decode_info->error_code |= MIME_ERR_NO_HEADER_END;
    return nullptr;
  }
  if (curr_level >= kMaxMessageLevel) {
    // Too deep: keep the header block only.  A part whose end is not known
    // yet keeps the header end just found.
    if (me->body_end != nullptr) me->header_end = me->body_end;
    parse_header_up_to_end(me, isrfc822, default_type, decode_info);
    decode_info->error_code |= MIME_ERR_TOO_DEEP;
    return nullptr;
  }
  header_strip_parse(me, isrfc822, default_type, decode_info);

  ME_HEADER* h = me->h;
  bool multipart = h->boundary != nullptr && h->boundary[0] != '\0' &&
                   MSTR_NCaseCmp(h->mime.ctype_str, "multipart", 9) == 0;
  if (multipart && s_nMultipartDepth < kMaxMultipartDepth) return strip_multipart(me, curr_level, decode_info);
  if (!multipart && h->mime.ctype == MIME_CT_RFC822) return strip_message(me, p_boundary, curr_level, decode_info);
  return mime_body_end_fill(me, s_pcDataEnd, p_boundary);
}

char* mime_boundary_find(char* bgn, char* end, char* boundary, int b_size) {
  if (bgn == nullptr || end == nullptr || boundary == nullptr || bgn > end) return nullptr;
  if (delimiter_at(bgn, boundary, b_size)) return bgn - 1;
  // Delimiter lines are found by their dashes: base64 bodies hold none, so
  // whole attachments are passed over in one scan.
  for (char* p = bgn + 1; p <= end;) {
    p = static_cast<char*>(memchr(p, '-', static_cast<size_t>(end - p) + 1));
    if (p == nullptr) return nullptr;
    char* lf = p - 1;
    if (*lf == '\n' && delimiter_at(p, boundary, b_size)) {
      char after = p[2 + b_size];
      if (after == '\r' || after == '\n' || after == '-')
        return (lf > bgn && lf[-1] == '\r') ? lf - 1 : lf;
    }
    ++p;
  }
  return nullptr;
}

char* mime_body_end_fill(ME* me, char* body_end, char* p_boundary) {
  if (p_boundary == nullptr) return nullptr;
  char* d = mime_boundary_find(me->body_bgn, body_end, p_boundary, static_cast<int>(strlen(p_boundary)));
  if (d == nullptr) {
    me->body_end = body_end;
    return nullptr;
  }
  if (me->body_bgn > d) me->body_bgn = d;
  me->body_end = d;
  return d;
}
