// The body decoding walk: visits the tree depth first and, as the
// decode_level and auto_convert bits ask, decodes each body's transfer
// encoding in place, settles its charset, cuts uuencoded blocks out of
// text, decodes and converts its header fields, names it, expands TNEF
// bodies, retypes it and converts Japanese text.

#include <cstdlib>
#include <cstring>

#include "mime_internal.h"

namespace {

constexpr char kUtf8[] = "utf-8";

bool has_prefix(const char* s, const char* prefix, size_t n) {
  return s != nullptr && MSTR_NCaseCmp(s, prefix, n) == 0;
}

bool is_multipart(const MIME_HEADER& mime) { return has_prefix(mime.ctype_str, "multipart", 9); }
bool is_text(const MIME_HEADER& mime) { return has_prefix(mime.ctype_str, "text", 4); }
bool jp_conversion(const MIME_DECODE* decode_info) { return (decode_info->auto_convert & 1) != 0; }

// Offsets and lengths of an entity, filled on its first visit.  The files
// of a TNEF body come with both filled (their text lies in the arena, not
// in the caller's buffer): an offset of 0 is then their real place.
void fill_extent(ME* me, MIME_DECODE* decode_info) {
  if (me->ent_offset == 0 && me->ent_len == 0 && me->header_bgn != nullptr)
    me->ent_offset = static_cast<tm_off_t>(me->header_bgn - decode_info->data);
  if (me->ent_len == 0 && me->body_end != nullptr && me->body_bgn != nullptr && me->header_bgn != nullptr) {
    me->datalen = static_cast<int>(me->body_end - me->body_bgn);
    me->ent_len = static_cast<tm_off_t>(me->body_end - me->header_bgn);
  }
}

// Japanese names become Shift_JIS, by the charset their encoded words
// named or, failing that, the part's own.
char* japanese_name(char* name, const char* word_charset, int charset, MIME_DECODE* decode_info) {
  if (!jp_conversion(decode_info)) return name;
  int jp = 0;
  if (has_prefix(word_charset, "iso-2022-jp", 11) || charset == MIME_CS_ISO2022JP) jp = MIME_CS_ISO2022JP;
  else if (has_prefix(word_charset, "euc-jp", 6) || charset == MIME_CS_EUCJP) jp = MIME_CS_EUCJP;
  char* sjis = jp != 0 ? mime_jp_to_sjis(name, jp, decode_info) : nullptr;
  return sjis != nullptr ? sjis : name;
}

void decode_uuencoded(ME* me, MIME_DECODE* decode_info) {
  char name[256];
  me->datalen = MTX_UUDec2(me->body_bgn, name, sizeof name);
  if (name[0] == '\0') return;
  MIME_HEADER& mime = me->h->mime;
  char* copy = dup_att_name(name, decode_info);
  const char* word_charset = MSTR_Decode(copy);
  mime.filename = japanese_name(copy, word_charset, mime.charset, decode_info);
  decode_info->result.me_info._attachment |= 1;
  mime_next_file_id(&mime, decode_info);
}

// Undoes the transfer encoding in place; the decoded bytes start at body_bgn.
void decode_transfer(ME* me, MIME_DECODE* decode_info) {
  int level = decode_info->decode_level;
  switch (me->h->mime.enc_type) {
    case MIME_ENC_QP:
      if (level & MIME_DL_QP) me->datalen = MTX_QPDec(me->body_bgn);
      break;
    case MIME_ENC_BASE64:
      if (level & MIME_DL_BASE64) me->datalen = MTX_Base64Dec(me->body_bgn);
      break;
    case MIME_ENC_UUENCODE:
      if (level & MIME_DL_UUENCODE) decode_uuencoded(me, decode_info);
      break;
    default:
      break;
  }
}

// A file of a TNEF body (a header record without fields) has a bare type
// from its content and the charset its name was given at the expansion:
// that charset stays, so the name is made safe by its own characters.
void settle_charset(ME* me, MIME_DECODE* decode_info) {
  MIME_HEADER& mime = me->h->mime;
  if (mime.ctype_str == nullptr || (me->h->he == nullptr && mime.charset_str[0] != '\0')) return;
  mime.charset = strip_charset(mime.ctype_str, decode_info, mime.charset_str, sizeof mime.charset_str);
  if (mime.charset != decode_info->default_enc_cset) decode_info->result.me_info.result_cset = mime.charset;
  if (mime.charset >= MIME_CS_ISO8859_1 && mime.charset <= MIME_CS_ISO8859_4)
    mime.charset = retyping_charset(me, mime.charset, mime.charset_str, sizeof mime.charset_str);
}

// A text body in the UTF-8 display mode: Japanese first to Shift_JIS, then
// everything from its declared charset to UTF-8, in arena copies.
void convert_body_to_utf8(ME* me, const char* old_charset, MIME_DECODE* decode_info) {
  MIME_HEADER& mime = me->h->mime;
  if (jp_conversion(decode_info)) {
    int jp = charset_prefix_value(old_charset, 0);
    if (jp == MIME_CS_ISO2022JP || jp == MIME_CS_EUCJP) {
      if (char* sjis = mime_jp_to_sjis(me->body_bgn, jp, decode_info)) mime_replace_body(me, sjis, strlen(sjis), decode_info);
    }
  }
  int mlg = MLG_CharsetWEncToValue(old_charset);
  if (mlg == MLG_UNKNOWN || mlg == MLG_UTF8) return;
  size_t out_len = 0;
  char* utf8 = MUC_Text2UTF8N(me->body_bgn, static_cast<size_t>(me->datalen), mlg, &out_len);
  if (utf8 == nullptr) return;
  mime_replace_body(me, utf8, out_len, decode_info);
  free(utf8);
  MSTR_Copy(mime.charset_str, sizeof mime.charset_str, kUtf8, 0);
}

void decode_headers(ME* me, MIME_DECODE* decode_info) {
  MIME_HEADER& mime = me->h->mime;
  int had_words = decode_header(me->h, mime.charset_str, sizeof mime.charset_str, decode_info);
  if (!had_words || !(decode_info->decode_level & MIME_DL_UTF8)) return;
  const char* utf8_name = MLG_CharsetToMEncName(MLG_UTF8);
  encode_header(me->h, MLG_UTF8, decode_info);
  char old_charset[32];
  MSTR_Copy(old_charset, sizeof old_charset, mime.charset_str, 0);
  MSTR_Copy(mime.charset_str, sizeof mime.charset_str, utf8_name, 0);
  if ((mime.ctype == MIME_CT_TEXT || mime.ctype == MIME_CT_HTML) && me->datalen > 0 && me->body_bgn != nullptr)
    convert_body_to_utf8(me, old_charset, decode_info);
  if (mime.charset_str[0] != '\0') mime.charset = charset_prefix_value(mime.charset_str, decode_info->default_enc_cset);
}

bool ends_with_vcf(const char* name) {
  size_t n = name != nullptr ? strlen(name) : 0;
  return n >= 4 && MSTR_CaseCmp(name + n - 4, ".vcf") == 0;
}

void retype(ME* me) {
  MIME_HEADER& mime = me->h->mime;
  if (mime.ctype == MIME_CT_TEXT && ends_with_vcf(mime.filename)) mime.ctype = MIME_CT_VCARD;
  else if (mime.ctype == MIME_CT_OTHER) retyping(&mime, me->body_bgn, me->datalen);
}

void convert_japanese_text(ME* me, MIME_DECODE* decode_info) {
  MIME_HEADER& mime = me->h->mime;
  if (!jp_conversion(decode_info) || !is_text(mime) || me->body_bgn == nullptr || me->datalen <= 0) return;
  if (mime.charset != MIME_CS_ISO2022JP && mime.charset != MIME_CS_EUCJP) return;
  if (char* sjis = mime_jp_to_sjis(me->body_bgn, mime.charset, decode_info))
    mime_replace_body(me, sjis, strlen(sjis), decode_info);
}

// A message/rfc822 part whose name was made up takes its subject instead.
void name_after_subject(ME* me, MIME_DECODE* decode_info) {
  MIME_HEADER& mime = me->h->mime;
  const ME* child = me->child;
  if (mime.ctype == MIME_CT_ALTERNATIVE || mime.ctype != MIME_CT_RFC822) return;
  if (!(decode_info->decode_level & MIME_DL_SUBJECT_EML) || !(mime.file_name_flags & 1)) return;
  if (child == nullptr || child->h == nullptr || child->h->rfc822 == nullptr) return;
  char** subject = child->h->rfc822->subject;
  if (subject == nullptr || *subject == nullptr || **subject == '\0') return;

  constexpr size_t kNameSize = 512;
  char* name = static_cast<char*>(mime_alloc(decode_info, kNameSize));
  if (!(decode_info->decode_level & MIME_DL_KEEP_RFC822)) {
    MSTR_Copy(mime.charset_str, sizeof mime.charset_str, child->h->mime.charset_str, 0);
    mime.charset = child->h->mime.charset;
    MSTR_Printf(name, kNameSize, "%s.eml", *subject);
  } else {
    char raw[2048];
    MSTR_Copy(raw, sizeof raw, *subject, 0);
    const char* word_charset = MSTR_Decode(raw);
    MSTR_Copy(mime.charset_str, sizeof mime.charset_str, word_charset != nullptr ? word_charset : "", 0);
    mime.charset = MLC_MLGToMIMECharset(MLG_CharsetWEncToValue(mime.charset_str));
    MSTR_Printf(name, kNameSize, "%s.eml", raw);
    char* converted = japanese_name(name, mime.charset_str, mime.charset, decode_info);
    if (converted != name) MSTR_Copy(name, kNameSize, converted, 0);
  }
  char safe[kNameSize];
  MLG_SafeFileName(unquote(name), safe, sizeof safe, MLC_MIMEToMLGCharset(mime.charset));
  MSTR_Copy(name, kNameSize, safe, 0);
  mime.filename = name;
}

// Steps for one entity; returns the entity the walk goes on with: the
// next one as it stood before the entity was worked on (uuencoded blocks
// cut out of its text are not walked again), or, for a TNEF body, what
// the expansion says.
ME* decode_entity(ME* me, MIME_DECODE* decode_info) {
  ME* next = me->next;
  fill_extent(me, decode_info);
  if (me->ent_len <= 0) return next;
  const int level = decode_info->decode_level;
  MIME_HEADER& mime = me->h->mime;
  if (me->datalen <= 0) {
    if (me->body_bgn == me->body_end && me->body_end != nullptr) *me->body_end = '\0';
  } else {
    if (me->body_end != nullptr) *me->body_end = '\0';
    if (!is_multipart(mime)) decode_transfer(me, decode_info);
    settle_charset(me, decode_info);
    if ((level & MIME_DL_UUE_IN_TEXT) && is_text(mime)) OLD_UUE_DECODE(me, decode_info);
  }
  if (level & MIME_DL_HEADERS) decode_headers(me, decode_info);
  get_filename(&mime, decode_info);
  if ((level & MIME_DL_TNEF) && mime.ctype == MIME_CT_TNEF) next = tnef_extend(me, decode_info);
  if (level & MIME_DL_RETYPE) retype(me);
  convert_japanese_text(me, decode_info);
  return next;
}

}  // namespace

// An empty body is still asked about: its name may tell the type.
void retyping(MIME_HEADER* mime, const char* body, int len) {
  if (!has_prefix(mime->ctype_str, "application/octet-stream", 24)) return;
  if (body == nullptr || len < 0) len = 0;
  const char* type = mime_type_checking(reinterpret_cast<const unsigned char*>(body), len,
                                        reinterpret_cast<const unsigned char*>(mime->filename));
  if (type == nullptr) return;
  if (has_prefix(type, "image", 5)) mime->ctype = has_prefix(type, "image/tiff", 10) ? MIME_CT_TIFF : MIME_CT_IMAGE;
  else if (has_prefix(type, "video", 5)) mime->ctype = MIME_CT_VIDEO;
  else if (has_prefix(type, "audio", 5)) mime->ctype = MIME_CT_AUDIO;
  else if (has_prefix(type, "application/x-shockwave-flash", 29)) mime->ctype = MIME_CT_FLASH;
}

void mime_decode(ME* me, char d_enc_type, MIME_DECODE* decode_info) {
  (void)d_enc_type;  // the parent's encoding is carried for readers, not used
  while (me != nullptr) {
    ME* next = me->h != nullptr ? decode_entity(me, decode_info) : me->next;
    bool keep_message = (decode_info->decode_level & MIME_DL_KEEP_RFC822) && me->h != nullptr &&
                        me->h->mime.ctype == MIME_CT_RFC822;
    if (me->child != nullptr && !keep_message)
      mime_decode(me->child, me->h != nullptr ? me->h->mime.enc_type : 0, decode_info);
    if (me->h != nullptr) name_after_subject(me, decode_info);
    me = next;
  }
}
