// Whole-tree checks of a decoded message, shared by the corpus and the
// hostile-input tests.  The checker walks the tree without recursion (a
// hostile message may nest deeply) and collects every broken rule as a
// line of text, so that one failing message reports all that is wrong with
// it at once.
#ifndef TARN_TESTS_DECODE_INVARIANTS_H
#define TARN_TESTS_DECODE_INVARIANTS_H

#include <cstdint>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <strings.h>
#include <unordered_set>
#include <vector>

#include "tarnmail.h"

#if defined(__SANITIZE_ADDRESS__)
#define TARN_CHECK_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARN_CHECK_ASAN 1
#endif
#endif
#ifdef TARN_CHECK_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace tarntest {

// True when [p, p + n) is memory the process may read.  Under
// AddressSanitizer this also tells an arena block from the poisoned gaps
// and the unused tail of an arena chunk; without it nothing can be told
// and every range passes.
inline bool readable(const void* p, size_t n) {
#ifdef TARN_CHECK_ASAN
  return p != nullptr && (n == 0 || __asan_region_is_poisoned(const_cast<void*>(p), n) == nullptr);
#else
  return p != nullptr || n == 0;
#endif
}

// Entities the body walk adds (uuencoded blocks cut out of a text, the
// files of a TNEF body) have a header record without fields; their text is
// a decoded body or an arena copy rather than a header block.
inline bool made_by_body_walk(const ME* me) { return me->h != nullptr && me->h->he == nullptr; }

// The rules every tree obeys after mime_decode_run:
//  - the root is result.me_node, starts at data and ends within the buffer;
//  - an entity's positions that lie in the caller's buffer come in order
//    (header_bgn, header_end, body_bgn, body_end) with the exceptions the
//    walk makes on malformed text: an entity whose header block had no
//    end has header_end equal to body_end (or NULL for a part whose end
//    was not known when it was parsed) and body_bgn on the last line the
//    header search saw; a part that its parent closes at a delimiter lying
//    before its body (the header search of a part is not bounded by the
//    next delimiter) has body_end before body_bgn, as early as the line
//    break in front of header_bgn, and a datalen of 0 or that negative
//    length;
//  - a body moved into the arena by a conversion is readable there for
//    datalen bytes; entities added by the body walk (uuencoded blocks,
//    TNEF files) may lie in the arena altogether;
//  - the entities of one chain that lie in the buffer stand in message
//    order; the chain ends (no cycle);
//  - a message/rfc822 entity parsed into its embedded message has exactly
//    one child from the buffer, whose header has a message-level record;
//    one that is transfer-encoded has none; below the nesting limit no
//    entity has children;
//  - h is NULL only when there is no header text;
//  - ctype and enc_type are codes of their tables;
//  - every header field's name and value are NUL-terminated strings in the
//    buffer or readable arena memory, and every message-level slot points
//    at the value of one of the block's fields;
//  - error_code holds no bit but 1, 2 and 64.
class TreeChecker {
 public:
  TreeChecker(MIME_DECODE& ctx, const char* buf, size_t size) : ctx_(ctx), buf_(buf), size_(size) {}

  // Problems found, one per line; empty when the tree is sound.
  std::vector<std::string> check(int run_result) {
    problems_.clear();
    entities_ = 0;
    if (run_result != ctx_.error_code) fail(nullptr, "run returned " + std::to_string(run_result) +
                                                        " but error_code is " + std::to_string(ctx_.error_code));
    if ((ctx_.error_code & ~(MIME_ERR_NO_CLOSE_BOUNDARY | MIME_ERR_NO_HEADER_END | MIME_ERR_TOO_DEEP)) != 0)
      fail(nullptr, "error_code has unknown bits: " + std::to_string(ctx_.error_code));
    ME* root = &ctx_.result.me_node;
    if (root->header_bgn != buf_) fail(root, "root does not start at data");
    if (in_buffer(root->body_bgn) && !in_buffer(root->body_end)) fail(root, "root body_end outside the buffer");
    walk(root);
    return problems_;
  }

  size_t entities() const { return entities_; }

 private:
  struct Chain {
    ME* head;
    int level;  // message nesting level of the entities of this chain
    const ME* parent;
  };

  bool in_buffer(const void* p) const {
    std::less_equal<const void*> le;
    return p != nullptr && le(buf_, p) && le(p, buf_ + size_);
  }
  size_t off(const char* p) const { return static_cast<size_t>(p - buf_); }

  void fail(const ME* me, const std::string& what) {
    if (problems_.size() >= kMaxProblems) return;
    std::ostringstream line;
    if (me != nullptr && in_buffer(me->header_bgn)) line << "entity at " << off(me->header_bgn) << ": ";
    else if (me != nullptr) line << "entity #" << entities_ << ": ";
    line << what;
    problems_.push_back(line.str());
  }

  // A string the tree hands to readers: terminated, in the buffer or in
  // readable memory (the arena).
  void check_string(const ME* me, const char* s, const char* what) {
    if (s == nullptr) {
      fail(me, std::string(what) + " is NULL");
      return;
    }
    if (in_buffer(s)) {
      if (memchr(s, '\0', static_cast<size_t>(buf_ + size_ + 1 - s)) == nullptr)
        fail(me, std::string(what) + " is not terminated inside the buffer");
      return;
    }
    if (!readable(s, 1) || !readable(s, strlen(s) + 1)) fail(me, std::string(what) + " is not in readable memory");
  }

  static bool is_multipart(const ME_HEADER* h) {
    return h != nullptr && h->boundary != nullptr && h->boundary[0] != '\0' && h->mime.ctype_str != nullptr &&
           strncasecmp(h->mime.ctype_str, "multipart", 9) == 0;
  }
  static bool is_message(const ME_HEADER* h) { return h != nullptr && h->mime.ctype == MIME_CT_RFC822 && !is_multipart(h); }

  // The header block had no end: header_end was set to body_end (or to
  // NULL, a part's body_end not being known then).
  static bool header_without_end(const ME* me) {
    return me->header_end == nullptr || (me->header_end == me->body_end && me->body_bgn < me->header_end);
  }

  // "(header_bgn header_end body_bgn body_end)" as offsets, "-" for NULL
  // or outside the buffer.
  std::string positions(const ME* me) const {
    std::string out = "(";
    for (const char* p : {me->header_bgn, me->header_end, me->body_bgn, me->body_end}) {
      if (out.size() > 1) out += ' ';
      out += in_buffer(p) ? std::to_string(off(p)) : "-";
    }
    return out + ")";
  }

  void check_positions(const ME* me) {
    const char* pos[] = {me->header_bgn, me->header_end, me->body_bgn, me->body_end};
    const char* names[] = {"header_bgn", "header_end", "body_bgn", "body_end"};
    bool body_in_arena = me->body_bgn != nullptr && !in_buffer(me->body_bgn);
    for (int i = 0; i < 4; ++i) {
      if (pos[i] == nullptr || in_buffer(pos[i])) continue;
      if ((i >= 2 || made_by_body_walk(me)) && body_in_arena) continue;
      fail(me, std::string(names[i]) + " outside the buffer " + positions(me));
    }
    if (me->header_bgn != nullptr && me->header_end != nullptr && me->header_end < me->header_bgn)
      fail(me, "header_end before header_bgn " + positions(me));
    if (body_in_arena) {
      if (me->datalen < 0) fail(me, "arena body with negative datalen");
      else if (!readable(me->body_bgn, static_cast<size_t>(me->datalen))) fail(me, "arena body not readable for datalen bytes");
      if (me->body_end != nullptr && (in_buffer(me->body_end) || std::less<const void*>()(me->body_end, me->body_bgn)))
        fail(me, "arena body_end not behind its body_bgn");
      return;
    }
    if (me->header_bgn != nullptr && me->body_end != nullptr && me->body_end < me->header_bgn - 1)
      fail(me, "body_end before header_bgn " + positions(me));
    if (me->body_bgn == nullptr || me->body_end == nullptr) {
      if (me->datalen < 0) fail(me, "negative datalen");
      return;
    }
    if (me->body_end < me->body_bgn) {
      // Closed by its parent before its body began; only its lengths show
      // it, and the body walk leaves it alone.
      if (me->datalen != 0 && me->datalen != me->body_end - me->body_bgn)
        fail(me, "body closed before it began, datalen " + std::to_string(me->datalen) + " " + positions(me));
      return;
    }
    if (me->datalen < 0) fail(me, "negative datalen " + positions(me));
    if (me->datalen > me->body_end - me->body_bgn) fail(me, "datalen longer than the body " + positions(me));
    if (me->header_bgn != nullptr && me->body_bgn < me->header_bgn) fail(me, "body_bgn before header_bgn " + positions(me));
    if (!header_without_end(me) && me->body_bgn < me->header_end) fail(me, "body_bgn before header_end " + positions(me));
  }

  void check_header(const ME* me) {
    const ME_HEADER* h = me->h;
    if (h == nullptr) {
      if (me->header_bgn != nullptr && me->header_end != nullptr && me->header_bgn < me->header_end)
        fail(me, "header text but no parsed header");
      return;
    }
    if (h->mime.ctype < 0 || h->mime.ctype > MIME_CT_TNEF) fail(me, "ctype " + std::to_string(h->mime.ctype));
    if (h->mime.enc_type < 0 || h->mime.enc_type > MIME_ENC_7BIT) fail(me, "enc_type " + std::to_string(h->mime.enc_type));
    size_t fields = 0;
    for (const HE* he = h->he; he != nullptr; he = he->next) {
      if (++fields > size_ + 2) {
        fail(me, "header field list does not end");
        return;
      }
      check_string(me, he->ent_name, "field name");
      check_string(me, he->ent_ptr, "field value");
    }
    if (h->boundary != nullptr) check_string(me, h->boundary, "boundary");
    if (h->mime.filename != nullptr) check_string(me, h->mime.filename, "filename");
    if (memchr(h->mime.file_id, '\0', sizeof h->mime.file_id) == nullptr) fail(me, "file_id not terminated");
    if (memchr(h->mime.charset_str, '\0', sizeof h->mime.charset_str) == nullptr) fail(me, "charset_str not terminated");
    if (h->rfc822 != nullptr) check_rfc822(me, h);
  }

  void check_rfc822(const ME* me, const ME_HEADER* h) {
    char** RFC822_HEADER::*const slots[] = {
        &RFC822_HEADER::msgid,       &RFC822_HEADER::from,     &RFC822_HEADER::to,
        &RFC822_HEADER::date,        &RFC822_HEADER::cc,       &RFC822_HEADER::bcc,
        &RFC822_HEADER::subject,     &RFC822_HEADER::sender,   &RFC822_HEADER::reply_to,
        &RFC822_HEADER::notification_to, &RFC822_HEADER::in_reply_to, &RFC822_HEADER::newsgroups,
        &RFC822_HEADER::organization, &RFC822_HEADER::x_forward_by, &RFC822_HEADER::references};
    for (auto slot : slots) {
      char** p = h->rfc822->*slot;
      if (p == nullptr) continue;
      bool found = false;
      for (const HE* he = h->he; he != nullptr && !found; he = he->next) found = p == &he->ent_ptr;
      if (!found) fail(me, "message-level slot not pointing at a field value");
    }
    char** RFC822_HEADER::*const raws[] = {&RFC822_HEADER::from_raw, &RFC822_HEADER::to_raw, &RFC822_HEADER::cc_raw,
                                           &RFC822_HEADER::bcc_raw, &RFC822_HEADER::reply_to_raw};
    for (auto raw : raws) {
      char** p = h->rfc822->*raw;
      if (p == nullptr) continue;
      if (!readable(p, sizeof *p)) fail(me, "raw slot not readable");
      else if (*p != nullptr) check_string(me, *p, "raw value");
    }
  }

  // Family rules: what children an entity may have.
  void check_children(const ME* me, int level) {
    const ME* child = me->child;
    if (level >= kMessageLimit) {
      if (child != nullptr) fail(me, "entity below the nesting limit has children");
      if ((ctx_.error_code & (MIME_ERR_TOO_DEEP | MIME_ERR_NO_HEADER_END)) == 0)
        fail(me, "entity below the nesting limit but error_code lacks bit 64");
      return;
    }
    const ME_HEADER* h = me->h;
    if (is_message(h)) {
      char enc = h->mime.enc_type;
      bool encoded = enc == MIME_ENC_BASE64 || enc == MIME_ENC_QP || enc == MIME_ENC_UUENCODE;
      bool opaque = (ctx_.decode_level & MIME_DL_RFC822_ATT) && child == nullptr;
      if (encoded) {
        if (child != nullptr) fail(me, "transfer-encoded message/rfc822 has a child");
        return;
      }
      if (opaque) return;
      if (child == nullptr) {
        fail(me, "message/rfc822 without its embedded message");
        return;
      }
      size_t from_buffer = 0;
      for (const ME* c = child; c != nullptr && from_buffer < 3; c = c->next)
        from_buffer += in_buffer(c->header_bgn) && !made_by_body_walk(c);
      if (from_buffer != 1) fail(me, "message/rfc822 with " + std::to_string(from_buffer) + " children");
      if (child->h == nullptr) {
        // An embedded message whose header search found no empty line is
        // left without a header block.
        if (child->header_end != nullptr || !(ctx_.error_code & MIME_ERR_NO_HEADER_END))
          fail(me, "embedded message without a parsed header");
      } else if (child->h->rfc822 == nullptr) {
        fail(me, "embedded message without a message-level record");
      }
      return;
    }
    if (child == nullptr || is_multipart(h)) return;
    // Only TNEF bodies are expanded into children besides the above.
    if (h == nullptr || h->mime.ctype != MIME_CT_TNEF) fail(me, "a leaf entity has children");
  }

  void walk(ME* root) {
    std::unordered_set<const ME*> seen;
    std::vector<Chain> todo{{root, 0, nullptr}};
    while (!todo.empty()) {
      Chain chain = todo.back();
      todo.pop_back();
      const char* prev = nullptr;
      for (ME* me = chain.head; me != nullptr; me = me->next) {
        if (!seen.insert(me).second) {
          fail(me, "entity reached twice (the tree has a cycle)");
          return;
        }
        ++entities_;
        if (in_buffer(me->header_bgn)) {
          if (prev != nullptr && me->header_bgn <= prev) fail(me, "sibling out of message order");
          if (chain.parent != nullptr && in_buffer(chain.parent->header_bgn) && me->header_bgn <= chain.parent->header_bgn)
            fail(me, "child starts before its parent");
          prev = me->header_bgn;
        }
        check_positions(me);
        check_header(me);
        check_children(me, chain.level);
        if (me->child != nullptr) todo.push_back({me->child, chain.level + (is_message(me->h) ? 1 : 0), me});
        if (problems_.size() >= kMaxProblems) return;
      }
    }
  }

  static constexpr int kMessageLimit = 9;
  static constexpr size_t kMaxProblems = 20;

  MIME_DECODE& ctx_;
  const char* buf_;
  size_t size_;
  std::vector<std::string> problems_;
  size_t entities_ = 0;
};

inline std::string join_lines(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& l : lines) out += "  " + l + "\n";
  return out;
}

}  // namespace tarntest

#endif
