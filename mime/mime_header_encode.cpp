// Charset work of the body decoding walk: header fields and text bodies
// converted to UTF-8 for display, Japanese text to Shift_JIS, and the
// second look at bodies that declare an ISO-8859 charset.

#include <cstdlib>
#include <cstring>

#include "mime_internal.h"

namespace {

// Plain ASCII needs no conversion; 8-bit text and the escape sequences of
// ISO-2022 text (7-bit, but not ASCII) do.
bool needs_conversion(const char* s) {
  for (; *s != '\0'; ++s)
    if (static_cast<unsigned char>(*s) >= 0x80 || *s == 0x1B) return true;
  return false;
}

// Length of the UTF-8 sequence at p (2 to 4), or 0 when none stands there.
int utf8_sequence(const unsigned char* p, const unsigned char* end) {
  unsigned char c = p[0];
  int n = c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
  if (n == 0 || end - p < n) return 0;
  for (int i = 1; i < n; ++i)
    if ((p[i] & 0xC0) != 0x80) return 0;
  return n;
}

// True when the bytes hold at least one multibyte UTF-8 sequence and no
// byte that UTF-8 cannot have.
bool reads_as_utf8(const char* text, int len) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  const unsigned char* end = p + len;
  bool multibyte = false;
  while (p < end) {
    if (*p < 0x80) {
      ++p;
      continue;
    }
    int n = utf8_sequence(p, end);
    if (n == 0) return false;
    multibyte = true;
    p += n;
  }
  return multibyte;
}

bool has_jis_escape(const char* text, int len) {
  for (const char* p = static_cast<const char*>(memchr(text, 0x1B, static_cast<size_t>(len))); p != nullptr;) {
    size_t left = static_cast<size_t>(text + len - p);
    if (left >= 3 && p[1] == '$' && (p[2] == 'B' || p[2] == '@')) return true;
    p = left > 1 ? static_cast<const char*>(memchr(p + 1, 0x1B, left - 1)) : nullptr;
  }
  return false;
}

}  // namespace

int retyping_charset(ME* me, int charset, char* charset_str, int len) {
  // Mailers label text "iso-8859-1" out of habit.  Two mistakes are common
  // and certain to spot from the bytes: UTF-8 text, and ISO-2022-JP text
  // with its escape sequences.  Anything else keeps its label.
  const MIME_HEADER& mime = me->h->mime;
  if (mime.ctype_str == nullptr || MSTR_NCaseCmp(mime.ctype_str, "text", 4) != 0) return charset;
  if (me->body_bgn == nullptr || me->datalen <= 0) return charset;
  if (has_jis_escape(me->body_bgn, me->datalen)) {
    MSTR_Copy(charset_str, static_cast<size_t>(len), "iso-2022-jp", 0);
    return MIME_CS_ISO2022JP;
  }
  if (reads_as_utf8(me->body_bgn, me->datalen)) {
    MSTR_Copy(charset_str, static_cast<size_t>(len), "utf-8", 0);
    return MIME_CS_UTF8;
  }
  return charset;
}

void encode_header(ME_HEADER* h, int display_charset, MIME_DECODE* decode_info) {
  for (HE* he = h->he; he != nullptr; he = he->next) {
    if (he->ent_ptr == nullptr || he->ent_ptr == he->ent_name) continue;
    if (he->ent_charset == display_charset || he->ent_charset == MLG_UNKNOWN || !needs_conversion(he->ent_ptr))
      continue;
    size_t out_len = 0;
    char* converted = MUC_Text2UTF8N(he->ent_ptr, strlen(he->ent_ptr), he->ent_charset, &out_len);
    if (converted == nullptr) continue;
    char* copy = mime_strndup(decode_info, converted, out_len);
    free(converted);
    if (h->mime.ctype_str == he->ent_ptr) h->mime.ctype_str = copy;
    if (h->mime.contdisp == he->ent_ptr) h->mime.contdisp = copy;
    he->ent_ptr = copy;
    he->ent_len = static_cast<int>(strlen(copy)) + 1;
    he->ent_charset = display_charset;
  }
}

void mime_replace_body(ME* me, const char* text, size_t len, MIME_DECODE* decode_info) {
  // One spare byte: body_end stands one past the copy's terminator.
  char* copy = static_cast<char*>(mime_alloc(decode_info, len + 2));
  memcpy(copy, text, len);
  me->body_bgn = copy;
  me->datalen = static_cast<int>(len);
  me->body_end = copy + len + 1;
}

char* mime_jp_to_sjis(const char* text, int mime_charset, MIME_DECODE* decode_info) {
  char* sjis = nullptr;
  MLG_JPInit();
  if (mime_charset == MIME_CS_ISO2022JP) sjis = MLG_JPJis2Sjis2(text);
  else if (mime_charset == MIME_CS_EUCJP) sjis = MLG_JPEuc2Sjis2(text);
  if (sjis == nullptr) return nullptr;
  char* copy = mime_strndup(decode_info, sjis, strlen(sjis));
  free(sjis);
  return copy;
}
