// mlg_internal.h - what the charset table, the Japanese converters and the
// Unicode converters share inside libtarnplat.  Not installed.
#ifndef TARNPLAT_MLG_INTERNAL_H
#define TARNPLAT_MLG_INTERNAL_H

#include <iconv.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

namespace tarnplat {

using Bytes = std::span<const unsigned char>;

inline Bytes as_bytes(const void* p, size_t n) {
  return Bytes(static_cast<const unsigned char*>(p), n);
}

// How the bytes of a charset group into characters.  Drives
// MLG_CharacterLength, MLG_SafeFileName and the language options.
enum class Family : uint8_t {
  kSingle,  // one byte per character (ASCII, Latin, Cyrillic, ...)
  kSevenBit,  // stateful 7-bit forms (ISO-2022-*, UTF-7, HZ): byte by byte
  kWide,    // UTF-16 / UTF-32: not a NUL-terminated byte text at all
  kUtf8,
  kBig5,    // lead 81-FE, trail 40-7E or A1-FE
  kGb,      // GBK pairs and GB18030 four-byte sequences
  kSjis,    // Shift_JIS / CP932, with single-byte katakana A1-DF
  kEucJp,   // EUC-JP, with 8E kana pairs and 8F three-byte JIS X 0212
  kUhc,     // EUC-KR and its CP949 (UHC) extension
  kEucTw,   // EUC-TW, with 8E four-byte plane sequences
};

// How a charset is turned into UTF-8.
enum class Decoder : uint8_t {
  kNone,      // unknown: left as it is
  kIdentity,  // already UTF-8 or ASCII
  kIconv,     // glibc iconv from `iconv` (with `fallback` for what it refuses)
  kJapanese,  // one of ISO-2022-JP, Shift_JIS, EUC-JP, told apart by its bytes
  kJis,       // ISO-2022-JP through the own JIS reader, then CP932
  kUtf7,      // the own RFC 2152 reader
  kHz,        // HZ: the own reader to EUC-CN, then iconv
  kByteOrder, // UTF-16 / UTF-32 without a stated order: the byte order mark
              // decides, big-endian without one (RFC 2781)
};

struct Charset {
  int value;              // MLG value
  const char* mime;       // MLG_CharsetToMEncName
  const char* web;        // MLG_CharsetToWEncName; nullptr: the same as `mime`
  const char* iconv;      // iconv source name (kIconv, kHz)
  const char* fallback;   // second iconv name tried on a unit the first refuses
  Family family;
  Decoder decoder;
  uint8_t unit;           // code unit of UTF-16/32 (what an invalid unit skips); else 1
};

// Table entry of an MLG value, or nullptr.
const Charset* charset_of(int value);
// Byte length of the character at p (see MLG_CharacterLength); the bytes
// are read one at a time and never past a NUL.
int char_length(const unsigned char* p, Family family);
// Byte length of a valid UTF-8 character at p (strict: no overlong forms,
// no surrogates, nothing above U+10FFFF), 0 when the bytes are not one.
int utf8_length(const unsigned char* p);

// A growing heap buffer that hands its bytes over as a malloc()ed,
// NUL-terminated string.  Allocation failure is sticky: after it every
// append is ignored and release() returns nullptr.
class HeapBuf {
 public:
  explicit HeapBuf(size_t hint) { reserve(hint < 16 ? 16 : hint); }
  ~HeapBuf() { std::free(data_); }
  HeapBuf(const HeapBuf&) = delete;
  HeapBuf& operator=(const HeapBuf&) = delete;

  bool ok() const { return !failed_; }
  size_t size() const { return size_; }
  const char* data() const { return data_; }

  void push(char c) {
    if (reserve(size_ + 1)) data_[size_++] = c;
  }
  void append(const void* p, size_t n) {
    if (n != 0 && reserve(size_ + n)) {
      std::memcpy(data_ + size_, p, n);
      size_ += n;
    }
  }
  void append(std::string_view s) { append(s.data(), s.size()); }
  void append_code_point(uint32_t cp);
  // Room for at least n more bytes; the free space is [tail(), tail()+room()).
  bool make_room(size_t n) { return reserve(size_ + n); }
  char* tail() { return data_ + size_; }
  size_t room() const { return cap_ > size_ ? cap_ - size_ - 1 : 0; }  // one byte kept for the NUL
  void advance(size_t n) { size_ += n; }

  // The string (terminated), owned by the caller from now on.
  char* release() {
    if (failed_ || data_ == nullptr) return nullptr;
    data_[size_] = '\0';
    char* p = data_;
    data_ = nullptr;
    size_ = cap_ = 0;
    return p;
  }

 private:
  bool reserve(size_t need);

  char* data_ = nullptr;
  size_t size_ = 0;
  size_t cap_ = 0;
  bool failed_ = false;
};

// U+FFFD, the mark left for bytes that cannot be converted.
inline constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

// A conversion descriptor from `from` to `to`, opened once per thread and
// reset to its initial state; (iconv_t)-1 when iconv does not know the pair.
iconv_t iconv_for(const char* from, const char* to);
inline bool iconv_ok(iconv_t cd) { return cd != reinterpret_cast<iconv_t>(-1); }

// RFC 2152 UTF-7 to UTF-8; malformed runs leave U+FFFD and reading goes on.
void utf7_to_utf8(Bytes text, HeapBuf& out);

// Japanese: which form a text is in (ESC sequences, Shift_JIS, EUC-JP).
enum class JpForm : uint8_t { kAscii, kJis, kSjis, kEucJp };
JpForm detect_japanese(Bytes text);
// ISO-2022-JP to Shift_JIS (CP932) into out; every byte is accounted for.
void jis_to_sjis(Bytes text, HeapBuf& out);

}  // namespace tarnplat

#endif
