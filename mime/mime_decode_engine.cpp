// The decode context: presets, the run's life cycle and the header look-ups
// on the root entity.

#include <cstring>

#include "mime_internal.h"

int nFirstTimeStripHeader = 0;

namespace {

constexpr MIME_DECODE make_preset(int dup_header, int decode_level, int auto_convert) {
  MIME_DECODE d{};
  d.dup_header = dup_header;
  d.decode_level = decode_level;
  d.auto_convert = auto_convert;
  constexpr char kDefaultType[] = "text/plain";
  for (size_t i = 0; i < sizeof kDefaultType; ++i) d.result.me_info.default_type[i] = kDefaultType[i];
  return d;
}

constexpr char kDefaultType[] = "text/plain";

// The message-level fields, slot by slot, and where each one's value goes.
struct Rfc822Field {
  char** RFC822_HEADER::*slot;
  char* GET_RFC822_HEADER::*value;
};
#define TM_FIELD(name) Rfc822Field{&RFC822_HEADER::name, &GET_RFC822_HEADER::name}
constexpr Rfc822Field kRfc822Fields[] = {
    TM_FIELD(msgid),        TM_FIELD(from),         TM_FIELD(to),          TM_FIELD(date),
    TM_FIELD(cc),           TM_FIELD(bcc),          TM_FIELD(subject),     TM_FIELD(sender),
    TM_FIELD(reply_to),     TM_FIELD(notification_to), TM_FIELD(in_reply_to), TM_FIELD(newsgroups),
    TM_FIELD(organization), TM_FIELD(x_forward_by), TM_FIELD(references),  TM_FIELD(from_raw),
    TM_FIELD(to_raw),       TM_FIELD(cc_raw),       TM_FIELD(bcc_raw),     TM_FIELD(reply_to_raw),
};
#undef TM_FIELD

// Walks the root's header list; `pick` decides on each entry.
template <typename Pred>
HE* root_field(MIME_DECODE* decode_info, const char* field_name, Pred pick) {
  if (decode_info == nullptr || field_name == nullptr || *field_name == '\0') return nullptr;
  ME_HEADER* h = decode_info->result.me_node.h;
  if (h == nullptr) return nullptr;
  for (HE* he = h->he; he != nullptr; he = he->next)
    if (he->ent_name != nullptr && pick(he)) return he;
  return nullptr;
}

}  // namespace

extern "C" {

constinit MIME_DECODE imapME = make_preset(1, 0, 0);
constinit MIME_DECODE generalME = make_preset(1, 0x5af, 1);
constinit MIME_DECODE msgreadME = make_preset(1, 0x7af, 1);
constinit MIME_DECODE mailerdME = make_preset(1, 0xaf, 1);

int mime_decode_init(MIME_DECODE* decode_info, char* data, int datasize, const char* msgpath,
                     const char* default_enc_cset) {
  if (decode_info == nullptr) return -1;
  nFirstTimeStripHeader = 1;
  decode_info->result = HME{};
  MSTR_Copy(decode_info->result.me_info.default_type, sizeof decode_info->result.me_info.default_type,
            kDefaultType, 0);
  decode_info->error_code = 0;
  if (data == nullptr) return -1;
  if (msgpath != nullptr) decode_info->result.me_info.msgpath = msgpath;
  if (default_enc_cset != nullptr && MSTR_NCaseCmp(default_enc_cset, "iso-2022-jp", 11) == 0)
    decode_info->default_enc_cset = 1;
  if (datasize < 0) datasize = 0;
  decode_info->data = data;
  // The caller's buffer holds one byte beyond the message; terminating the
  // text there makes every later search of it a search of a C string.
  data[datasize] = '\0';
  decode_info->result.me_node.body_bgn = data;
  decode_info->result.me_node.body_end = data + datasize;
  return 0;
}

int mime_decode_run(MIME_DECODE* decode_info) {
  if (decode_info == nullptr || decode_info->data == nullptr) return -1;
  ME* root = &decode_info->result.me_node;
  mime_strip(root, decode_info);
  if (decode_info->decode_level != 0) {
    mime_decode(root, 0, decode_info);
    if (!(decode_info->decode_level & MIME_DL_NO_REFILL)) {
      char* first = mime_get_charset(root);
      if (first != nullptr && *first != '\0') mime_refill_charset(root, first);
    }
  }
  return decode_info->error_code;
}

int mime_decode_shutdown(MIME_DECODE* decode_info) {
  if (decode_info == nullptr || decode_info->result.me_info.MIME_ptr == nullptr) return 0;
  my_Xfree(&decode_info->result.me_info.MIME_ptr);
  decode_info->result.me_info.MIME_ptr = nullptr;
  return 0;
}

int mime_get_rfc822_header(MIME_DECODE* decode_info, GET_RFC822_HEADER* rfc822) {
  if (rfc822 == nullptr) return -1;
  *rfc822 = GET_RFC822_HEADER{};
  if (decode_info == nullptr) return -1;
  ME_HEADER* h = decode_info->result.me_node.h;
  if (h == nullptr || h->rfc822 == nullptr) return 0;
  for (const auto& f : kRfc822Fields)
    if (h->rfc822->*f.slot != nullptr) rfc822->*f.value = *(h->rfc822->*f.slot);
  return 0;
}

char* mime_get_header_field(MIME_DECODE* decode_info, const char* field_name) {
  size_t n = field_name ? strlen(field_name) : 0;
  HE* he = root_field(decode_info, field_name,
                      [&](HE* e) { return MSTR_NCaseCmp(e->ent_name, field_name, n) == 0; });
  return he ? he->ent_ptr : nullptr;
}

char* mime_get_header_field2(MIME_DECODE* decode_info, const char* field_name) {
  HE* he = root_field(decode_info, field_name,
                      [&](HE* e) { return MSTR_CaseCmp(e->ent_name, field_name) == 0; });
  return he ? he->ent_ptr : nullptr;
}

char* array_get_header_field(MIME_DECODE* decode_info, const char* field_name, int* x) {
  if (x == nullptr) return nullptr;
  size_t n = field_name ? strlen(field_name) : 0;
  int seen = 0;
  HE* he = root_field(decode_info, field_name, [&](HE* e) {
    return MSTR_NCaseCmp(e->ent_name, field_name, n) == 0 && seen++ == *x;
  });
  if (he == nullptr) return nullptr;
  ++*x;
  return he->ent_ptr;
}

}  // extern "C"

void* mime_alloc(MIME_DECODE* decode_info, size_t size) {
  return my_Xalloc(&decode_info->result.me_info.MIME_ptr, size);
}

char* mime_strndup(MIME_DECODE* decode_info, const char* s, size_t len) {
  char* copy = static_cast<char*>(mime_alloc(decode_info, len + 1));
  if (len != 0) memcpy(copy, s, len);
  return copy;  // zero-filled, so already terminated
}
