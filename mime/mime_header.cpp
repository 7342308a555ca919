// Header blocks: splitting a block into fields, the MIME facts with the
// content-type and transfer-encoding codes, and the message-level record.

#include <cctype>
#include <cstring>
#include <string_view>

#include "mime_internal.h"

namespace {

bool is_fold_blank(char c) { return c == ' ' || c == '\t'; }

HE* new_field(MIME_DECODE* decode_info) { return static_cast<HE*>(mime_alloc(decode_info, sizeof(HE))); }

// Finishes the field whose line runs from `line` to `eol` (the byte that
// now terminates it).  The value's length counts that terminator: readers
// of ent_len (he_convert_null) find it at ent_len - 1.
void finish_field(HE* he, char* block, char* line, char* eol) {
  he->ent_name = line;
  he->ent_offset = static_cast<tm_off_t>(line - block);
  char* colon = static_cast<char*>(memchr(line, ':', static_cast<size_t>(eol - line)));
  if (colon == nullptr) {
    he->ent_ptr = line;
    he->ent_len = 0;
    return;
  }
  *colon = '\0';
  char* value = colon + 1;
  int len = static_cast<int>(eol - value) + 1;
  while (value < eol && (*value == ' ' || *value == '\t' || *value == '\n')) {
    ++value;
    --len;
  }
  he->ent_ptr = value;
  he->ent_len = len;
}

// MIME fields and where their values go; the last occurrence of a name wins.
struct MimeField {
  std::string_view name;
  char* MIME_HEADER::*slot;
  bool null_to_underscore;
  int attachment_bit;
};
constexpr MimeField kMimeFields[] = {
    {"Content-Type", &MIME_HEADER::ctype_str, true, 0},
    {"Content-Transfer-Encoding", &MIME_HEADER::enc_type_str, false, 0},
    {"Content-Base", &MIME_HEADER::cbase, false, 0},
    {"Content-Disposition", &MIME_HEADER::contdisp, true, 0},
    {"Content-Description", &MIME_HEADER::contdes, false, 0},
    {"Content-Id", &MIME_HEADER::contid, false, 2},
    {"Content-Location", &MIME_HEADER::contLocation, false, 4},
    {"Content-MD5", &MIME_HEADER::body_MD5, false, 0},
    {"Content-Language", &MIME_HEADER::body_language, false, 0},
    {"X-Brindle-Content-Type", &MIME_HEADER::x_brindle_ctype_str, false, 0},
};

// Transfer encodings, tried in order as prefixes of the field's value.
struct EncodingRule {
  std::string_view prefix;
  char code;
};
constexpr EncodingRule kEncodings[] = {
    {"quoted-printable", MIME_ENC_QP}, {"base64", MIME_ENC_BASE64},
    {"uuencode", MIME_ENC_UUENCODE},   {"x-uuencode", MIME_ENC_UUENCODE},
    {"8bit", MIME_ENC_8BIT},           {"7bit", MIME_ENC_7BIT},
};

// Content types, tried in order as prefixes of the Content-Type value.  A
// code of -1 marks the rules that look further than the prefix.
struct TypeRule {
  std::string_view prefix;
  int code;
  int result;
};
constexpr int kBareText = -1;
constexpr int kImage = -2;
constexpr TypeRule kTypes[] = {
    {"message/rfc822", MIME_CT_RFC822, 0},
    {"message/delivery-status", MIME_CT_TEXT, 0},
    {"multipart/digest", MIME_CT_DIGEST, 0},
    {"multipart/alternative", MIME_CT_ALTERNATIVE, 0},
    {"multipart/related", MIME_CT_MULTIPART, 0},
    {"multipart/mixed", MIME_CT_MIXED, 0},
    {"multipart/signed", MIME_CT_MULTIPART, 0},
    {"multipart", MIME_CT_MULTIPART, 0},
    {"application/x-pkcs7-signature", MIME_CT_PKCS7_SIGNATURE, 1},
    {"application/pkcs7-signature", MIME_CT_PKCS7_SIGNATURE, 1},
    {"application/x-pkcs7-mime", MIME_CT_PKCS7_MIME, 1},
    {"application/pkcs7-mime", MIME_CT_PKCS7_MIME, 1},
    {"video", MIME_CT_VIDEO, 0},
    {"audio", MIME_CT_AUDIO, 0},
    {"application/x-shockwave-flash", MIME_CT_FLASH, 0},
    {"application/ms-tnef", MIME_CT_TNEF, 0},
    {"text/plain", MIME_CT_TEXT, 0},
    // Any type that begins "text/enric" counts as plain text.
    {"text/enric", MIME_CT_TEXT, 0},
    {"text/html", MIME_CT_HTML, 0},
    {"text/x-vcard", MIME_CT_VCARD, 0},
    {"text", kBareText, 0},
    {"image", kImage, 0},
};

bool has_prefix(const char* s, std::string_view prefix) {
  return MSTR_NCaseCmp(s, prefix.data(), prefix.size()) == 0;
}

void fill_boundary(ME_HEADER* h, MIME_DECODE* decode_info) {
  char* at = MSTR_LocStrCase(h->mime.ctype_str, "boundary", 0);
  if (at == nullptr) return;
  mime_unfold(at);
  constexpr size_t kBoundarySize = 256;
  h->boundary = static_cast<char*>(mime_alloc(decode_info, kBoundarySize));
  MSTR_TokVal(h->mime.ctype_str, "boundary", " \n\t", "=", " \n\t;", "\"", 0, 0, h->boundary,
              kBoundarySize, 0);
}

void fill_field(ME_HEADER* h, HE* he, MIME_DECODE* decode_info) {
  MIME_HEADER* mime = &h->mime;
  for (const MimeField& f : kMimeFields) {
    if (MSTR_CaseCmp(he->ent_name, f.name.data()) != 0) continue;
    if (f.null_to_underscore) he_convert_null(he);
    mime->*f.slot = he->ent_ptr;
    decode_info->result.me_info._attachment |= f.attachment_bit;
    if (f.slot == &MIME_HEADER::ctype_str) fill_boundary(h, decode_info);
    return;
  }
}

char encoding_code(const char* value) {
  if (value == nullptr) return MIME_ENC_NONE;
  for (const EncodingRule& r : kEncodings)
    if (has_prefix(value, r.prefix)) return r.code;
  return MIME_ENC_NONE;
}

// Message-level fields: the slot each name fills, and its raw copy if any.
struct Rfc822Rule {
  std::string_view name;
  char** RFC822_HEADER::*slot;
  char** RFC822_HEADER::*raw;
};
constexpr Rfc822Rule kRfc822[] = {
    {"Message-Id", &RFC822_HEADER::msgid, nullptr},
    {"From", &RFC822_HEADER::from, &RFC822_HEADER::from_raw},
    {"To", &RFC822_HEADER::to, &RFC822_HEADER::to_raw},
    {"Date", &RFC822_HEADER::date, nullptr},
    {"Cc", &RFC822_HEADER::cc, &RFC822_HEADER::cc_raw},
    {"Bcc", &RFC822_HEADER::bcc, &RFC822_HEADER::bcc_raw},
    {"Subject", &RFC822_HEADER::subject, nullptr},
    {"Sender", &RFC822_HEADER::sender, nullptr},
    {"Reply-To", &RFC822_HEADER::reply_to, &RFC822_HEADER::reply_to_raw},
    {"Disposition-Notification-To", &RFC822_HEADER::notification_to, nullptr},
    {"In-Reply-To", &RFC822_HEADER::in_reply_to, nullptr},
    {"References", &RFC822_HEADER::references, nullptr},
    {"Newsgroups", &RFC822_HEADER::newsgroups, nullptr},
    {"Organization", &RFC822_HEADER::organization, nullptr},
    {"Resent-From", &RFC822_HEADER::x_forward_by, nullptr},
};

}  // namespace

void header_strip_parse(ME* me, int isrfc822, const char* default_type, MIME_DECODE* decode_info) {
  ME_HEADER* h = static_cast<ME_HEADER*>(mime_alloc(decode_info, sizeof(ME_HEADER)));
  me->h = h;
  strip_header(h, me->header_bgn, me->header_end, decode_info);
  fill_mime_header(h, default_type, decode_info);
  if (isrfc822) fill_rfc822_header(h, decode_info);
  nFirstTimeStripHeader = 0;
}

void strip_header(ME_HEADER* h, char* bgn, char* end, MIME_DECODE* decode_info) {
  HE* he = new_field(decode_info);
  h->he = he;
  if (decode_info->dup_header) {
    size_t len = static_cast<size_t>(end - bgn);
    char* copy = mime_strndup(decode_info, bgn, len);
    end = mime_dos2unix(copy, static_cast<int>(len));
    bgn = copy;
  }
  *end = '\0';
  char* line = bgn;
  for (char* p = bgn;;) {
    char* lf = static_cast<char*>(memchr(p, '\n', static_cast<size_t>(end - p)));
    if (lf == nullptr) break;
    p = lf + 1;
    if (is_fold_blank(lf[1])) continue;  // folded: the LF stays in the value
    *lf = '\0';
    finish_field(he, bgn, line, lf);
    he->next = new_field(decode_info);
    he = he->next;
    he->ent_ptr = lf + 1;
    line = lf + 1;
  }
  finish_field(he, bgn, line, end);
}

void fill_mime_header(ME_HEADER* h, const char* default_type, MIME_DECODE* decode_info) {
  for (HE* he = h->he; he != nullptr; he = he->next) fill_field(h, he, decode_info);
  h->mime.enc_type = encoding_code(h->mime.enc_type_str);
  if (h->mime.ctype_str == nullptr) h->mime.ctype_str = const_cast<char*>(default_type);
  fill_mime_header_ctype(h);
}

int fill_mime_header_ctype(ME_HEADER* h) {
  if (h == nullptr || h->mime.ctype_str == nullptr) return 0;
  const char* type = h->mime.ctype_str;
  for (const TypeRule& r : kTypes) {
    if (!has_prefix(type, r.prefix)) continue;
    if (r.code == kBareText) {
      // "text" followed by parameters (or nothing) is plain text; any
      // other text subtype is shown as a file.
      h->mime.ctype = memchr(" ;\t\r\n", type[4], 6) ? MIME_CT_TEXT : MIME_CT_OTHER;
    } else if (r.code == kImage) {
      h->mime.ctype = has_prefix(type, "image/tiff") ? MIME_CT_TIFF : MIME_CT_IMAGE;
    } else {
      h->mime.ctype = static_cast<char>(r.code);
    }
    return r.result;
  }
  // An unusual type on the message itself displays as text; on a part it
  // is an attachment.
  h->mime.ctype = nFirstTimeStripHeader == 1 ? MIME_CT_TEXT : MIME_CT_OTHER;
  return 0;
}

void fill_rfc822_header(ME_HEADER* h, MIME_DECODE* decode_info) {
  RFC822_HEADER* r = static_cast<RFC822_HEADER*>(mime_alloc(decode_info, sizeof(RFC822_HEADER)));
  h->rfc822 = r;
  for (HE* he = h->he; he != nullptr; he = he->next) {
    for (const Rfc822Rule& rule : kRfc822) {
      if (MSTR_CaseCmp(he->ent_name, rule.name.data()) != 0) continue;
      if (r->*rule.slot == nullptr) {
        r->*rule.slot = &he->ent_ptr;
        if (rule.raw != nullptr) r->*rule.raw = dup_pp_buf(&he->ent_ptr, decode_info);
        if (rule.slot == &RFC822_HEADER::to && he->ent_ptr == nullptr) r->to = nullptr;
      }
      break;
    }
  }
}

char** dup_pp_buf(char** pp_buf, MIME_DECODE* decode_info) {
  if (pp_buf == nullptr) return nullptr;
  char** one = static_cast<char**>(mime_alloc(decode_info, sizeof(char*)));
  if (*pp_buf != nullptr) one[0] = mime_strndup(decode_info, *pp_buf, strlen(*pp_buf));
  return one;
}

int he_convert_null(HE* header_ent) {
  if (header_ent == nullptr || header_ent->ent_ptr == nullptr || header_ent->ent_len <= 0) return 0;
  char* v = header_ent->ent_ptr;
  // ent_len counts the value's terminator; step back over it and over any
  // NULs that trail the value, then no NUL inside may cut the value short.
  int i = header_ent->ent_len - 1;
  while (i > 0 && v[i] != '\0') --i;
  while (i > 0 && v[i - 1] == '\0') --i;
  for (int k = 0; k < i; ++k)
    if (v[k] == '\0') v[k] = '_';
  return 0;
}

void mime_unfold(char* str) {
  if (str == nullptr) return;
  char* out = str;
  for (char* in = str; *in != '\0';) {
    if (*in == '\n') {
      ++in;
      while (*in != '\0' && isspace(static_cast<unsigned char>(*in))) ++in;
      continue;
    }
    *out++ = *in++;
  }
  *out = '\0';
}

char* mime_dos2unix(char* buf, int len) {
  if (buf == nullptr || len <= 0) return buf;
  char* end = buf + len;
  char* out = static_cast<char*>(memchr(buf, '\r', static_cast<size_t>(len)));
  if (out == nullptr) return end;
  for (char* in = out; in < end; ++in)
    if (*in != '\r') *out++ = *in;
  memset(out, 0, static_cast<size_t>(end - out));
  return out;
}
