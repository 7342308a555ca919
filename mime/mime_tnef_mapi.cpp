/*
 * mime_tnef_mapi.cpp - MAPI property blocks inside a TNEF stream
 * (attMsgProps and attAttachment data).
 *
 * A block is a 32-bit property count followed by the properties: a 32-bit
 * tag (id in the upper half, type in the lower), for named properties a
 * GUID and a name, for variable-sized and multi-valued types a value
 * count, then the values.  Every value stays where it is in the input;
 * the property records only point at it.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mime_tnef_internal.h"

namespace tnef {
namespace {

constexpr uint16_t kMultiValued = 0x1000;
constexpr uint16_t kNamedFirstId = 0x8000;
constexpr size_t kGuidSize = 16;

/* How the values of a type sit in the stream. */
enum class ValKind { Empty, Fixed, Counted, Object, Unknown };

struct TypeShape {
  ValKind kind;
  uint32_t width;  // bytes of a Fixed value
};

/* Keyed by the type with the multi-valued bit cleared.  Type 72 (class
 * id) reads nothing: its 16 bytes stay in the stream for the next read. */
TypeShape shape_of(uint16_t type) {
  switch (type) {
    case 0: case 1: case 72: return {ValKind::Empty, 0};
    case 2: return {ValKind::Fixed, 2};
    case 3: case 4: case 10: case 11: return {ValKind::Fixed, 4};
    case 5: case 6: case 7: case 20: case 64: return {ValKind::Fixed, 8};
    case 30: case 31: case 258: return {ValKind::Counted, 0};
    case 13: return {ValKind::Object, 0};
    default: return {ValKind::Unknown, 0};
  }
}

/* Types whose values are preceded by a value count even when single. */
bool has_value_count(uint16_t type) {
  return (type & kMultiValued) || type == 258 || type == 13 || type == 30 || type == 31;
}

/* Fewest input bytes one value of the shape can occupy; used to refuse a
 * value count that the rest of the block could not hold. */
uint64_t min_value_bytes(const TypeShape& s) {
  switch (s.kind) {
    case ValKind::Fixed: return s.width;
    case ValKind::Counted: return 4;
    case ValKind::Object: return 8;
    default: return 0;
  }
}

class BlockReader {
 public:
  BlockReader(const unsigned char* p, size_t n, bool trace)
      : cur_(p, n), trace_(trace), empty_budget_(n / 4) {}

  int run(TNEF_MAPI_t* block);

 private:
  int read_prop(MAPI_Prop_t* prop);
  int read_name(MAPI_Prop_t* prop);
  int read_values(MAPI_Prop_t* prop, const TypeShape& shape, uint32_t count);
  int read_value(MAPI_Val_t* val, const TypeShape& shape);

  Cursor cur_;
  bool trace_;
  /* Values that take no bytes cannot be bounded by the input; all of them
   * together may number at most what the block could hold as properties
   * (one 4-byte tag each), so a lying count cannot make a huge array. */
  uint64_t empty_budget_;
};

int BlockReader::run(TNEF_MAPI_t* block) {
  uint32_t declared;
  if (!cur_.u32(&declared)) return TNEF_ERR_SHORT;
  if (trace_) std::printf("MAPI properties: %u\n", declared);
  // Every property takes at least its 4-byte tag, so the array never needs
  // more rows than the rest of the block could hold.
  const uint64_t room = cur_.left() / 4;
  const uint64_t rows = declared < room ? declared : room;
  if (rows > 0) {
    block->pstProps = static_cast<MAPI_Prop_t*>(std::calloc(rows, sizeof(MAPI_Prop_t)));
    if (block->pstProps == nullptr) return TNEF_ERR_NOMEM;
  }
  for (uint32_t i = 0; i < declared; ++i) {
    if (i >= rows) return TNEF_ERR_SHORT;
    block->unCount = i + 1;  // the row is owned by the block from here on
    const int rc = read_prop(&block->pstProps[i]);
    if (rc != 0) return rc;
  }
  if (cur_.left() > 0 && trace_) std::printf("%i bytes extra after MAPI read\n", static_cast<int>(cur_.left()));
  return 0;
}

int BlockReader::read_prop(MAPI_Prop_t* prop) {
  uint32_t tag;
  if (!cur_.u32(&tag)) return TNEF_ERR_SHORT;
  prop->unID = static_cast<uint16_t>(tag >> 16);
  prop->unType = static_cast<uint16_t>(tag & 0xFFFF);
  if (prop->unID >= kNamedFirstId) {
    const int rc = read_name(prop);
    if (rc != 0) return rc;
  }
  const TypeShape shape = shape_of(prop->unType & ~kMultiValued);
  if (shape.kind == ValKind::Unknown) {
    if (trace_) std::printf("  unsupported MAPI type 0x%04x (id 0x%04x)\n", prop->unType, prop->unID);
    return TNEF_ERR_PROPTYPE;
  }
  uint32_t count = 1;
  if (has_value_count(prop->unType) && !cur_.u32(&count)) return TNEF_ERR_SHORT;
  if (trace_) std::printf("  id 0x%04x type 0x%04x values %u\n", prop->unID, prop->unType, count);
  return read_values(prop, shape, count);
}

/* A named property: a GUID (not kept), then either a numeric name, which
 * becomes the id, or string names, which are skipped. */
int BlockReader::read_name(MAPI_Prop_t* prop) {
  uint32_t names;
  if (!cur_.skip(kGuidSize) || !cur_.u32(&names)) return TNEF_ERR_SHORT;
  if (names == 0) {
    uint32_t id;
    if (!cur_.u32(&id)) return TNEF_ERR_SHORT;
    prop->unID = static_cast<uint16_t>(id & 0xFFFF);
    return 0;
  }
  // Each name takes at least its length word, so the loop ends with the input.
  for (uint32_t n = 0; n < names; ++n) {
    uint32_t len;
    if (!cur_.u32(&len) || !cur_.skip(pad4(len))) return TNEF_ERR_SHORT;
  }
  return 0;
}

int BlockReader::read_values(MAPI_Prop_t* prop, const TypeShape& shape, uint32_t count) {
  const uint64_t min_bytes = min_value_bytes(shape);
  if (min_bytes > 0) {
    if (count > cur_.left() / min_bytes) return TNEF_ERR_SHORT;
  } else {
    if (count > empty_budget_) return TNEF_ERR_SHORT;
    empty_budget_ -= count;
  }
  if (count == 0) return 0;
  prop->pstVals = static_cast<MAPI_Val_t*>(std::calloc(count, sizeof(MAPI_Val_t)));
  if (prop->pstVals == nullptr) return TNEF_ERR_NOMEM;
  for (uint32_t i = 0; i < count; ++i) {
    prop->unCount = i + 1;
    const int rc = read_value(&prop->pstVals[i], shape);
    if (rc != 0) return rc;
  }
  return 0;
}

int BlockReader::read_value(MAPI_Val_t* val, const TypeShape& shape) {
  const unsigned char* data = cur_.pos();
  switch (shape.kind) {
    case ValKind::Empty:
      break;
    case ValKind::Fixed:
      if (!cur_.take(shape.width, &data)) return TNEF_ERR_SHORT;
      val->unSize = shape.width;
      break;
    case ValKind::Counted: {
      uint32_t size;
      if (!cur_.u32(&size)) return TNEF_ERR_SHORT;
      data = cur_.pos();
      if (!cur_.skip(pad4(size))) return TNEF_ERR_SHORT;
      val->unSize = size;
      break;
    }
    case ValKind::Object: {
      // The size covers the interface id: the value proper is 4 bytes less.
      uint32_t size, iid;
      if (!cur_.u32(&size) || size < 4 || !cur_.u32(&iid)) return TNEF_ERR_SHORT;
      data = cur_.pos();
      if (!cur_.skip(pad4(size - 4))) return TNEF_ERR_SHORT;
      val->unSize = size - 4;
      val->unIID = iid;
      break;
    }
    case ValKind::Unknown:
      return TNEF_ERR_PROPTYPE;
  }
  val->pvData = const_cast<unsigned char*>(data);
  return 0;
}

}  // namespace

void mapi_free(TNEF_MAPI_t* block) {
  if (block->pstProps != nullptr) {
    for (uint32_t i = 0; i < block->unCount; ++i) std::free(block->pstProps[i].pstVals);
    std::free(block->pstProps);
  }
  block->pstProps = nullptr;
  block->unCount = 0;
}

}  // namespace tnef

extern "C" TARNMAIL_API int MLC_MAPIPropsParse(char* psMAPI, unsigned int unLen, TNEF_MAPI_t* pstObject,
                                               unsigned int unFlags) {
  if (pstObject == nullptr) return TNEF_ERR_ARG;
  pstObject->unCount = 0;
  pstObject->pstProps = nullptr;
  if (psMAPI == nullptr) unLen = 0;
  tnef::BlockReader reader(reinterpret_cast<const unsigned char*>(psMAPI), unLen,
                           (unFlags & TNEF_MAPI_TRACE) != 0);
  return reader.run(pstObject);
}
