/*
 * mime_tnef_util.cpp - the TNEF stream: signature, key, then attributes
 * until the input ends.  Each attribute is a level byte, a 32-bit id, a
 * 32-bit length, the data and a 16-bit checksum (the sum of the data
 * bytes).  Attachment attributes fill the last record of the list; a
 * rendering-data or message-properties attribute starts a new one.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "mime_tnef_internal.h"

namespace tnef {

uint16_t s_ShortFormat(const unsigned char* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

uint32_t s_IntFormat(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

uint64_t s_LLongFormat(const unsigned char* p) {
  return static_cast<uint64_t>(s_IntFormat(p)) | (static_cast<uint64_t>(s_IntFormat(p + 4)) << 32);
}

namespace {

constexpr uint32_t kSignature = 0x223E9F78;

enum : uint32_t {
  attAttachRenddata = 0x00069002,
  attMsgProps = 0x00069003,
  attRecipTable = 0x00069004,
  attAttachment = 0x00069005,
  attOemCodepage = 0x00069007,
  attAttachData = 0x0006800F,
  attAttachMetaFile = 0x00068011,
  attAttachTitle = 0x00018010,
  attAttachCreateDate = 0x00038012,
  attAttachModifyDate = 0x00038013,
  attDateSent = 0x00038006,
  attPriority = 0x0004800D,
  attConversationID = 0x0001800B,
  attMessageClass = 0x00078008,
  attTnefVersion = 0x00089006,
};

/* A record as the reader allocates it: the public record first, then what
 * the reader owns besides.  A title whose data holds no terminator is
 * copied here so that pszFileName is always a bounded C string. */
struct Node {
  TNEF_Attach rec;
  char* title_copy;
};
static_assert(offsetof(Node, rec) == 0, "a record's address is its node's");

Node* node_of(TNEF_Attach* rec) { return reinterpret_cast<Node*>(rec); }

struct Attribute {
  uint8_t level;
  uint32_t id;
  uint32_t len;
  const unsigned char* data;
  uint16_t checksum;
};

uint16_t checksum_of(const unsigned char* p, uint32_t len) {
  uint32_t sum = 0;
  for (uint32_t i = 0; i < len; ++i) sum += p[i];
  return static_cast<uint16_t>(sum);
}

/* Reads the fields of a little-endian record one after the other; fields
 * that the data is too short for are left as they were. */
class FieldReader {
 public:
  FieldReader(const unsigned char* p, uint32_t n) : cur_(p, n) {}
  template <typename T>
  FieldReader& operator>>(T& field) {
    if constexpr (sizeof(T) == 2) {
      uint16_t v;
      if (cur_.u16(&v)) field = v;
    } else {
      uint32_t v;
      if (cur_.u32(&v)) field = v;
    }
    return *this;
  }

 private:
  Cursor cur_;
};

class StreamReader {
 public:
  StreamReader(const unsigned char* p, size_t n, bool trace) : cur_(p, n), trace_(trace) {}
  TNEF_Attach* run(int* status);

 private:
  bool read_attribute(Attribute* a);
  int act(const Attribute& a);
  TNEF_Attach* new_record();
  TNEF_Attach* current();
  void stamp(TNEF_Attach* rec) const;
  int set_title(TNEF_Attach* rec, const Attribute& a);
  void trace_attribute(const Attribute& a) const;

  Cursor cur_;
  bool trace_;
  TNEF_Attach* head_ = nullptr;
  TNEF_Attach* tail_ = nullptr;
  uint64_t codepage_ = 0;
};

TNEF_Attach* StreamReader::run(int* status) {
  uint32_t signature;
  uint16_t key;
  if (!cur_.u32(&signature)) {
    *status = TNEF_ERR_ARG;
    return nullptr;
  }
  if (trace_) std::printf(signature == kSignature ? "TNEF_SIGNATURE " : "BAD_SIGNATURE ");
  if (!cur_.u16(&key)) {
    if (trace_) std::printf("\nno key\n");
    *status = TNEF_ERR_SHORT;
    return nullptr;
  }
  if (trace_) std::printf("key 0x%04x\n", key);
  while (cur_.left() > 0) {
    Attribute a;
    const size_t left = cur_.left();
    if (!read_attribute(&a)) {
      if (trace_) std::printf("stream cut short: %zu bytes left, too few for the attribute\n", left);
      *status = TNEF_ERR_SHORT;
      break;
    }
    if (trace_) trace_attribute(a);
    if (checksum_of(a.data, a.len) != a.checksum) {
      if (trace_) std::printf("  checksum mismatch, attribute skipped\n");
      *status = TNEF_ERR_SHORT;
      continue;
    }
    const int rc = act(a);
    if (rc != 0) {
      *status = rc;
      break;
    }
  }
  return head_;
}

/* False when the input ends inside the attribute. */
bool StreamReader::read_attribute(Attribute* a) {
  const unsigned char* level;
  if (!cur_.take(1, &level)) return false;
  a->level = *level;
  return cur_.u32(&a->id) && cur_.u32(&a->len) && cur_.take(a->len, &a->data) && cur_.u16(&a->checksum);
}

void StreamReader::trace_attribute(const Attribute& a) const {
  const char* level = a.level == 1 ? "message" : a.level == 2 ? "attachment" : "unknown level";
  std::printf("%s attribute 0x%08x, %u bytes\n", level, a.id, a.len);
}

TNEF_Attach* StreamReader::new_record() {
  Node* node = static_cast<Node*>(std::calloc(1, sizeof(Node)));
  if (node == nullptr) return nullptr;
  TNEF_Attach* rec = &node->rec;
  if (tail_ == nullptr)
    head_ = rec;
  else
    tail_->pstNext = rec;
  tail_ = rec;
  stamp(rec);
  return rec;
}

TNEF_Attach* StreamReader::current() {
  if (tail_ == nullptr) return new_record();
  stamp(tail_);
  return tail_;
}

/* Records made or touched after the code page was read carry it. */
void StreamReader::stamp(TNEF_Attach* rec) const {
  if (codepage_ != 0) rec->unCodePage = codepage_;
}

int StreamReader::set_title(TNEF_Attach* rec, const Attribute& a) {
  const char* text = reinterpret_cast<const char*>(a.data);
  Node* node = node_of(rec);
  std::free(node->title_copy);
  node->title_copy = nullptr;
  if (std::memchr(text, '\0', a.len) != nullptr) {
    rec->pszFileName = text;
    return 0;
  }
  // No terminator inside the data: the text must not be read past it.
  node->title_copy = static_cast<char*>(std::malloc(static_cast<size_t>(a.len) + 1));
  if (node->title_copy == nullptr) return TNEF_ERR_NOMEM;
  std::memcpy(node->title_copy, text, a.len);
  node->title_copy[a.len] = '\0';
  rec->pszFileName = node->title_copy;
  return 0;
}

void read_date(TNEF_Date* d, const Attribute& a) {
  FieldReader(a.data, a.len) >> d->unYear >> d->unMonth >> d->unDay >> d->unHour >> d->unMinute >>
      d->unSecond >> d->unWeek;
}

int StreamReader::act(const Attribute& a) {
  void* data = const_cast<unsigned char*>(a.data);
  TNEF_Attach* rec = nullptr;
  switch (a.id) {
    case attAttachRenddata:
      if ((rec = new_record()) == nullptr) return TNEF_ERR_NOMEM;
      FieldReader(a.data, a.len) >> rec->unATYP >> rec->unPosition >> rec->unWidth >> rec->unHeight >>
          rec->unFlag;
      return 0;
    case attMsgProps:
      if ((rec = new_record()) == nullptr) return TNEF_ERR_NOMEM;
      return MLC_MAPIPropsParse(static_cast<char*>(data), a.len, &rec->stMAPI, trace_ ? TNEF_MAPI_TRACE : 0);
    case attAttachment:
      if ((rec = current()) == nullptr) return TNEF_ERR_NOMEM;
      mapi_free(&rec->stMAPI);  // a repeated block replaces the earlier one
      return MLC_MAPIPropsParse(static_cast<char*>(data), a.len, &rec->stMAPI, trace_ ? TNEF_MAPI_TRACE : 0);
    case attAttachData:
      if ((rec = current()) == nullptr) return TNEF_ERR_NOMEM;
      rec->unFileLen = a.len;
      rec->pvFileData = data;
      return 0;
    case attAttachMetaFile:
      if ((rec = current()) == nullptr) return TNEF_ERR_NOMEM;
      rec->unMetaLen = a.len;
      rec->pvMetaFile = data;
      return 0;
    case attAttachTitle:
      if ((rec = current()) == nullptr) return TNEF_ERR_NOMEM;
      return set_title(rec, a);
    case attAttachCreateDate:
      if ((rec = current()) == nullptr) return TNEF_ERR_NOMEM;
      read_date(&rec->stCreate, a);
      return 0;
    case attAttachModifyDate:
      if ((rec = current()) == nullptr) return TNEF_ERR_NOMEM;
      read_date(&rec->stModify, a);
      return 0;
    case attOemCodepage: {
      // Two 32-bit code pages in practice, taken together as one number;
      // a shorter field reads as zero-filled.
      unsigned char bytes[8] = {};
      std::memcpy(bytes, a.data, a.len < 8 ? a.len : 8);
      codepage_ = s_LLongFormat(bytes);
      if (trace_) std::printf("  code page %llu\n", static_cast<unsigned long long>(codepage_));
      return 0;
    }
    case attDateSent:
    case attPriority:
    case attConversationID:
    case attMessageClass:
    case attTnefVersion:
    case attRecipTable:
      return 0;
    default:
      if (trace_) std::printf("Class: 0x%x\n", a.id);
      return 0;
  }
}

}  // namespace
}  // namespace tnef

extern "C" TARNMAIL_API TNEF_Attach* MLC_TNEFParse(char* psFile, unsigned int unLen, int* pnStat) {
  int local = 0;
  int* status = pnStat != nullptr ? pnStat : &local;
  const bool trace = *status == 1;
  *status = 0;
  if (psFile == nullptr) unLen = 0;
  tnef::StreamReader reader(reinterpret_cast<const unsigned char*>(psFile), unLen, trace);
  return reader.run(status);
}

extern "C" TARNMAIL_API void MLC_TNEFFree(TNEF_Attach* pstObject) {
  while (pstObject != nullptr) {
    TNEF_Attach* next = pstObject->pstNext;
    tnef::mapi_free(&pstObject->stMAPI);
    tnef::Node* node = tnef::node_of(pstObject);
    std::free(node->title_copy);
    std::free(node);
    pstObject = next;
  }
}
