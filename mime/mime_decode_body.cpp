// The body decoding walk: visits the tree depth first and, as the
// decode_level bits ask, decodes each body's transfer encoding in place,
// settles its charset and decodes its header fields.

#include <cstring>

#include "mime_internal.h"

namespace {

bool is_multipart(const MIME_HEADER& mime) {
  return mime.ctype_str != nullptr && MSTR_NCaseCmp(mime.ctype_str, "multipart", 9) == 0;
}

// Offsets and lengths of an entity, filled on its first visit.
void fill_extent(ME* me, MIME_DECODE* decode_info) {
  if (me->ent_offset == 0) me->ent_offset = static_cast<tm_off_t>(me->header_bgn - decode_info->data);
  if (me->ent_len == 0 && me->body_end != nullptr && me->body_bgn != nullptr) {
    me->datalen = static_cast<int>(me->body_end - me->body_bgn);
    me->ent_len = static_cast<tm_off_t>(me->body_end - me->header_bgn);
  }
}

// Undoes the transfer encoding in place; the decoded bytes start at body_bgn.
void decode_transfer(ME* me, MIME_DECODE* decode_info) {
  int level = decode_info->decode_level;
  char* body = me->body_bgn;
  switch (me->h->mime.enc_type) {
    case MIME_ENC_QP:
      if (level & MIME_DL_QP) me->datalen = MTX_QPDec(body);
      break;
    case MIME_ENC_BASE64:
      if (level & MIME_DL_BASE64) me->datalen = MTX_Base64Dec(body);
      break;
    case MIME_ENC_UUENCODE:
      if (level & MIME_DL_UUENCODE) {
        char name[256];
        me->datalen = MTX_UUDec2(body, name, sizeof name);
      }
      break;
    default:
      break;
  }
}

void settle_charset(ME* me, MIME_DECODE* decode_info) {
  MIME_HEADER& mime = me->h->mime;
  if (mime.ctype_str == nullptr) return;
  mime.charset = strip_charset(mime.ctype_str, decode_info, mime.charset_str, sizeof mime.charset_str);
  if (mime.charset != decode_info->default_enc_cset) decode_info->result.me_info.result_cset = mime.charset;
}

void decode_entity(ME* me, MIME_DECODE* decode_info) {
  fill_extent(me, decode_info);
  if (me->ent_len <= 0) return;
  int level = decode_info->decode_level;
  if (me->datalen <= 0) {
    if (me->body_bgn == me->body_end && me->body_end != nullptr) *me->body_end = '\0';
  } else {
    *me->body_end = '\0';
    if (!is_multipart(me->h->mime)) decode_transfer(me, decode_info);
    settle_charset(me, decode_info);
  }
  if (level & MIME_DL_HEADERS) decode_header(me->h, me->h->mime.charset_str, sizeof me->h->mime.charset_str, decode_info);
}

}  // namespace

void mime_decode(ME* me, char d_enc_type, MIME_DECODE* decode_info) {
  (void)d_enc_type;  // the parent's encoding is carried for readers, not used
  for (; me != nullptr; me = me->next) {
    if (me->h != nullptr) decode_entity(me, decode_info);
    bool keep_message = (decode_info->decode_level & MIME_DL_KEEP_RFC822) && me->h != nullptr &&
                        me->h->mime.ctype == MIME_CT_RFC822;
    if (me->child != nullptr && !keep_message)
      mime_decode(me->child, me->h != nullptr ? me->h->mime.enc_type : 0, decode_info);
  }
}
