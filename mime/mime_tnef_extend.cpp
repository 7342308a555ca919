// TNEF expansion: the files inside an application/ms-tnef body become the
// children of that entity, each with its own name, type and decoded bytes
// in the run's arena.

#include <cstdlib>
#include <cstring>

#include "mime_internal.h"

namespace {

// A file name in the stream's code page; in the UTF-8 display mode it is
// converted, else kept as it stands with its charset noted.
char* file_name(const TNEF_Attach* rec, MIME_HEADER* mime, MIME_DECODE* decode_info) {
  char name[512];
  int utf16 = 0;
  if (MLC_TNEFFilename(rec, name, sizeof name, &utf16) != 0) return nullptr;
  char charset[32] = "";
  if (utf16 == 1) {
    MSTR_Copy(charset, sizeof charset, "utf-8", 0);
  } else {
    MLC_TNEFCharset(rec, charset, sizeof charset);
    int mlg = MLG_CharsetWEncToValue(charset);
    size_t out_len = 0;
    char* utf8 = (decode_info->decode_level & MIME_DL_UTF8) && mlg != MLG_UNKNOWN && mlg != MLG_UTF8
                     ? MUC_Text2UTF8N(name, strlen(name), mlg, &out_len)
                     : nullptr;
    if (utf8 != nullptr) {
      MSTR_Copy(name, sizeof name, utf8, 0);
      MSTR_Copy(charset, sizeof charset, "utf-8", 0);
      free(utf8);
    }
  }
  MSTR_Copy(mime->charset_str, sizeof mime->charset_str, charset, 0);
  return dup_att_name(name, decode_info);
}

ME* file_entity(ME* tnef, const TNEF_Attach* rec, MIME_DECODE* decode_info) {
  ME* me = static_cast<ME*>(mime_alloc(decode_info, sizeof(ME)));
  me->h = static_cast<ME_HEADER*>(mime_alloc(decode_info, sizeof(ME_HEADER)));
  MIME_HEADER& mime = me->h->mime;
  size_t len = rec->unFileLen;
  // The bytes are copied: the stream's buffer is the TNEF entity's body,
  // and each file gets a terminator of its own.
  me->body_bgn = mime_strndup(decode_info, static_cast<const char*>(rec->pvFileData), len);
  me->datalen = static_cast<int>(len);
  me->body_end = me->body_bgn + len;
  me->header_bgn = me->header_end = me->body_bgn;
  // A file inside the TNEF body has no text of its own in the message: it
  // is addressed by the TNEF part's place.
  me->ent_offset = tnef->ent_offset;
  me->ent_len = tnef->ent_len;
  mime.filename = file_name(rec, &mime, decode_info);
  mime.charset = charset_prefix_value(mime.charset_str, 0);
  const char* type = mime_type_checking(reinterpret_cast<const unsigned char*>(me->body_bgn), me->datalen,
                                        reinterpret_cast<const unsigned char*>(mime.filename));
  mime.ctype_str = mime_strndup(decode_info, type, strlen(type));
  fill_mime_header_ctype(me->h);
  return me;
}

}  // namespace

ME* tnef_extend(ME* me, MIME_DECODE* decode_info) {
  ME* after = me->next;
  if (me->body_bgn == nullptr || me->datalen <= 0 || me->child != nullptr) return after;
  int status = 0;
  TNEF_Attach* list = MLC_TNEFParse(me->body_bgn, static_cast<unsigned int>(me->datalen), &status);
  ME** link = &me->child;
  for (const TNEF_Attach* rec = list; rec != nullptr; rec = rec->pstNext) {
    if (rec->pvFileData == nullptr) continue;  // the message's own properties
    *link = file_entity(me, rec, decode_info);
    link = &(*link)->next;
  }
  MLC_TNEFFree(list);
  return after;
}
