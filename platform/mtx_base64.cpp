/*
 * mtx_base64.cpp - base64 decoding in place and base64 encoding.
 *
 * Decoding is lenient, as mail needs it: bytes outside the alphabet (line
 * breaks, blanks, stray junk, NULs) are skipped; "=" ends the decoding only
 * when it completes a group (two after two characters, one after three),
 * and anything after it is ignored; a trailing incomplete group of two or
 * three characters gives the whole bytes it holds, a lone trailing
 * character gives nothing.
 *
 * Long runs of alphabet characters go through a vector kernel when the
 * processor has one; everything else goes through the scalar machine below.
 */
#include <climits>
#include <cstring>

#include "mtx_internal.h"
#include "tarnplat.h"

namespace tarnplat::mtx {
namespace {

constexpr unsigned char kInvalid = 0xFF;

constexpr int AlphabetValue(unsigned c) {
  if (c >= 'A' && c <= 'Z') return static_cast<int>(c - 'A');
  if (c >= 'a' && c <= 'z') return static_cast<int>(c - 'a') + 26;
  if (c >= '0' && c <= '9') return static_cast<int>(c - '0') + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

struct ValueTable {
  unsigned char v[256];
};

constexpr ValueTable MakeValueTable() {
  ValueTable t{};
  for (unsigned c = 0; c < 256; ++c) {
    const int v = AlphabetValue(c);
    t.v[c] = v < 0 ? kInvalid : static_cast<unsigned char>(v);
  }
  return t;
}

constexpr ValueTable kValue = MakeValueTable();

// The four pre-shifted tables of the group decoder: the entries of one
// group's characters OR together into its three bytes in memory order on a
// little-endian machine (byte 0 in bits 0-7).  Any character outside the
// alphabet sets bit 24, so one compare checks all four.
struct GroupTables {
  uint32_t d[4][256];
};

constexpr uint32_t kGroupBad = 0x01000000u;

constexpr GroupTables MakeGroupTables() {
  GroupTables t{};
  for (unsigned c = 0; c < 256; ++c) {
    const int iv = AlphabetValue(c);
    if (iv < 0) {
      for (auto& d : t.d) d[c] = kGroupBad;
      continue;
    }
    const uint32_t v = static_cast<uint32_t>(iv);
    t.d[0][c] = v << 2;
    t.d[1][c] = (v >> 4) | ((v & 0x0F) << 12);
    t.d[2][c] = ((v >> 2) << 8) | ((v & 0x03) << 22);
    t.d[3][c] = v << 16;
  }
  return t;
}

constexpr GroupTables kGroup = MakeGroupTables();

// Decodes whole groups of four alphabet characters; stops before the first
// group holding anything else.  Only called at the start of a group.
inline void DecodeGroups(const unsigned char*& in, const unsigned char* end, unsigned char*& out) {
  while (end - in >= 4) {
    const uint32_t x = kGroup.d[0][in[0]] | kGroup.d[1][in[1]] | kGroup.d[2][in[2]] | kGroup.d[3][in[3]];
    if (x >= kGroupBad) break;
    out[0] = static_cast<unsigned char>(x);
    out[1] = static_cast<unsigned char>(x >> 8);
    out[2] = static_cast<unsigned char>(x >> 16);
    in += 4;
    out += 3;
  }
}

}  // namespace

void Base64Scalar(B64Cursor& cur, bool yield) {
  const unsigned char* in = cur.in;
  const unsigned char* const end = cur.end;
  unsigned char* out = cur.out;
  uint32_t bits = cur.bits;
  int quad = cur.quad;
  int pads = cur.pads;
  // Handing back is worth it once the byte that stopped the vector kernel
  // (a group it could not start at, or a byte outside the alphabet) is past.
  bool past_stop = cur.quad != 0;

  while (in < end) {
    if (quad == 0) {
      if (yield && past_stop && kValue.v[*in] != kInvalid) break;
      DecodeGroups(in, end, out);
      if (in == end) break;
    }
    const unsigned char ch = *in++;
    const unsigned v = kValue.v[ch];
    if (v == kInvalid) {
      // "=" only counts once two characters of the group stand; a data
      // character between two "=" starts the count again.
      if (ch == '=' && quad >= 2 && quad + ++pads >= 4) {
        cur.done = true;
        break;
      }
      past_stop = true;
      continue;
    }
    pads = 0;
    switch (quad) {
      case 0:
        bits = v;
        quad = 1;
        break;
      case 1:
        *out++ = static_cast<unsigned char>((bits << 2) | (v >> 4));
        bits = v & 0x0F;
        quad = 2;
        break;
      case 2:
        *out++ = static_cast<unsigned char>((bits << 4) | (v >> 2));
        bits = v & 0x03;
        quad = 3;
        break;
      default:
        *out++ = static_cast<unsigned char>((bits << 6) | v);
        bits = 0;
        quad = 0;
        break;
    }
  }
  cur.in = in;
  cur.out = out;
  cur.bits = bits;
  cur.quad = quad;
  cur.pads = pads;
}

namespace {

using VectorKernel = void (*)(B64Cursor&);

VectorKernel KernelFunction(B64Kernel kernel) {
#if defined(__x86_64__) || defined(__i386__)
  switch (kernel) {
    case B64Kernel::kAvx2:
      return Base64VectorAvx2;
    case B64Kernel::kSsse3:
      return Base64VectorSsse3;
    case B64Kernel::kScalar:
      break;
  }
#else
  (void)kernel;
#endif
  return nullptr;
}

}  // namespace

bool Base64KernelAvailable(B64Kernel kernel) {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_cpu_init();
  switch (kernel) {
    case B64Kernel::kAvx2:
      return __builtin_cpu_supports("avx2");
    case B64Kernel::kSsse3:
      return __builtin_cpu_supports("ssse3");
    case B64Kernel::kScalar:
      return true;
  }
  return false;
#else
  return kernel == B64Kernel::kScalar;
#endif
}

B64Kernel Base64BestKernel() {
  static const B64Kernel best = [] {
    if (Base64KernelAvailable(B64Kernel::kAvx2)) return B64Kernel::kAvx2;
    if (Base64KernelAvailable(B64Kernel::kSsse3)) return B64Kernel::kSsse3;
    return B64Kernel::kScalar;
  }();
  return best;
}

namespace {

// Decodes up to cur.end.  The vector kernel returns where it meets what it
// does not take (padding, junk, a break inside a group, the last bytes);
// the scalar machine steps over that and hands back at the next group.
void Run(B64Cursor& cur, VectorKernel vector) {
  if (vector == nullptr) {
    Base64Scalar(cur, false);
    return;
  }
  while (!cur.done && cur.in < cur.end) {
    vector(cur);
    Base64Scalar(cur, true);
  }
}

// A terminated text is measured a window at a time, just ahead of the
// decoding, so that the decoder reads bytes the measuring has just brought
// into the cache; measuring it whole first would read a long text twice
// from memory.  The cursor carries a group across windows.
constexpr size_t kWindow = size_t{64} << 10;

}  // namespace

size_t Base64DecodeTerminated(unsigned char* text, B64Kernel kernel) {
  const VectorKernel vector = KernelFunction(kernel);
  B64Cursor cur{text, text, text};
  for (;;) {
    const size_t n = strnlen(reinterpret_cast<const char*>(cur.end), kWindow);
    cur.end += n;
    Run(cur, vector);
    if (cur.done || n < kWindow) break;
  }
  return static_cast<size_t>(cur.out - text);
}

size_t Base64Decode(unsigned char* text, size_t len, B64Kernel kernel) {
  B64Cursor cur{text, text + len, text};
  Run(cur, KernelFunction(kernel));
  return static_cast<size_t>(cur.out - text);
}

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Length of the encoding of nLen bytes with CR LF after every nLineLen
// characters but the last, terminator included; -1 when it is no int.
long long EncodedSize(long long len, int line_len) {
  const long long chars = (len + 2) / 3 * 4;
  const long long breaks = (line_len > 0 && chars > 0) ? (chars - 1) / line_len : 0;
  return chars + 2 * breaks + 1;
}

}  // namespace
}  // namespace tarnplat::mtx

using tarnplat::mtx::Base64BestKernel;
using tarnplat::mtx::Base64Decode;
using tarnplat::mtx::Base64DecodeTerminated;
using tarnplat::mtx::EncodedSize;
using tarnplat::mtx::kAlphabet;

extern "C" {

TARNPLAT_API int MTX_Base64Dec(char* pszText) {
  if (pszText == nullptr) return 0;
  auto* text = reinterpret_cast<unsigned char*>(pszText);
  const size_t n = Base64DecodeTerminated(text, Base64BestKernel());
  text[n] = '\0';  // n never exceeds the length: at worst this is the old terminator
  return n > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(n);
}

TARNPLAT_API int MTX_Base64Dec2(char* pszText, int nLen) {
  if (pszText == nullptr || nLen <= 0) return 0;
  auto* text = reinterpret_cast<unsigned char*>(pszText);
  const size_t n = Base64Decode(text, static_cast<size_t>(nLen), Base64BestKernel());
  // Four characters give three bytes, so a non-empty text always leaves a
  // byte for the terminator inside the given length.
  if (n < static_cast<size_t>(nLen)) text[n] = '\0';
  return static_cast<int>(n);
}

TARNPLAT_API int MTX_Base64EncSize(int nLen, int nLineLen) {
  if (nLen < 0) return -1;
  const long long size = EncodedSize(nLen, nLineLen);
  return size > INT_MAX ? -1 : static_cast<int>(size);
}

TARNPLAT_API int MTX_Base64Enc(const void* pvSrc, int nLen, char* pszDst, int nzDst, int nLineLen) {
  if (pszDst == nullptr || nzDst <= 0) return -1;
  pszDst[0] = '\0';
  if (nLen < 0 || (pvSrc == nullptr && nLen > 0)) return -1;
  if (EncodedSize(nLen, nLineLen) > nzDst) return -1;

  const auto* src = static_cast<const unsigned char*>(pvSrc);
  char* out = pszDst;
  int column = 0;
  auto put = [&](char c) {
    if (nLineLen > 0 && column == nLineLen) {
      *out++ = '\r';
      *out++ = '\n';
      column = 0;
    }
    *out++ = c;
    ++column;
  };
  int i = 0;
  for (; nLen - i >= 3; i += 3) {
    const uint32_t x = (uint32_t{src[i]} << 16) | (uint32_t{src[i + 1]} << 8) | src[i + 2];
    put(kAlphabet[x >> 18]);
    put(kAlphabet[(x >> 12) & 0x3F]);
    put(kAlphabet[(x >> 6) & 0x3F]);
    put(kAlphabet[x & 0x3F]);
  }
  if (nLen - i > 0) {
    const bool two = nLen - i == 2;
    const uint32_t x = (uint32_t{src[i]} << 16) | (two ? uint32_t{src[i + 1]} << 8 : 0u);
    put(kAlphabet[x >> 18]);
    put(kAlphabet[(x >> 12) & 0x3F]);
    put(two ? kAlphabet[(x >> 6) & 0x3F] : '=');
    put('=');
  }
  *out = '\0';
  return static_cast<int>(out - pszDst);
}

}  // extern "C"
