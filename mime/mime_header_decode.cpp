/*
 * mime_header_decode.cpp - decoding the encoded words of a header block.
 *
 * Every field value of a block is a NUL-terminated string owned by the run
 * (an arena copy, or split in place in the caller's buffer), so values are
 * decoded where they stand: MSTR_Decode never lengthens a text.  The
 * RFC822_HEADER slots point at the fields' ent_ptr members and so see the
 * decoded text; its _raw copies keep the text as it came.
 *
 * Each field's ent_charset tells the charset its bytes are in afterwards:
 * the charset of its encoded words when it had any, else the charset the
 * entity declares for its body (the best guess for raw 8-bit header text),
 * 0 when that is unknown.
 */
#include <cstddef>
#include <cstring>

#include "mime_internal.h"

namespace {

// MLG value of the entity's declared charset, read without trusting the
// buffer to be terminated within len bytes.
int declared_charset_value(const char* charset_str, int len) {
  if (charset_str == nullptr || len <= 0) return 0;
  char name[64];
  std::size_t n = strnlen(charset_str, static_cast<std::size_t>(len));
  if (n >= sizeof name) n = sizeof name - 1;
  std::memcpy(name, charset_str, n);
  name[n] = '\0';
  return MLG_CharsetWEncToValue(name);
}

// Only encoded words and folding change a value.
bool needs_decoding(const char* value) {
  return std::strchr(value, '\n') != nullptr || std::strstr(value, "=?") != nullptr;
}

// A block split in place keeps its CR LF pairs; a CR in front of a folding
// LF would otherwise survive the unfolding as a stray byte.
void drop_cr_before_lf(char* value) {
  char* out = value;
  for (const char* in = value; *in != '\0'; ++in) {
    if (in[0] == '\r' && in[1] == '\n') continue;
    *out++ = *in;
  }
  *out = '\0';
}

}  // namespace

int decode_header(ME_HEADER* h, char* charset_str, int len, MIME_DECODE* decode_info) {
  (void)decode_info;
  if (h == nullptr) return 0;
  const int declared = declared_charset_value(charset_str, len);
  int had_encoded_words = 0;

  for (HE* he = h->he; he != nullptr; he = he->next) {
    int value_charset = declared;
    // A line without a colon shares its text with the name: not a field.
    const bool is_field = he->ent_ptr != nullptr && he->ent_ptr != he->ent_name;
    if (is_field && needs_decoding(he->ent_ptr)) {
      if (std::strchr(he->ent_ptr, '\r') != nullptr) drop_cr_before_lf(he->ent_ptr);
      const char* word_charset = MSTR_Decode(he->ent_ptr);
      // As when the block was split, the length counts the terminator.
      he->ent_len = static_cast<int>(std::strlen(he->ent_ptr)) + 1;
      if (word_charset != nullptr && word_charset[0] != '\0') {
        value_charset = MLG_CharsetWEncToValue(word_charset);
        had_encoded_words = 1;
      }
    }
    he->ent_charset = value_charset;
  }
  return had_encoded_words;
}
