// SHA-256 (FIPS 180-4) of byte strings, for the fingerprints the tool
// prints next to each decoded part.
#ifndef TARN_TOOL_SHA256_H
#define TARN_TOOL_SHA256_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarntool {

class Sha256 {
 public:
  Sha256();
  // Adds bytes to the message; may be called any number of times.
  void update(const void* data, size_t len);
  // Ends the message and returns its digest; the object is then spent
  // until reset().
  std::array<uint8_t, 32> finish();
  void reset();

 private:
  void compress(const uint8_t* block);

  std::array<uint32_t, 8> state_;
  std::array<uint8_t, 64> block_;
  size_t fill_ = 0;       // bytes waiting in block_
  uint64_t total_ = 0;    // message length in bytes
};

// Lower-case hex digest of one byte string.
std::string sha256_hex(const void* data, size_t len);
inline std::string sha256_hex(std::string_view s) { return sha256_hex(s.data(), s.size()); }

}  // namespace tarntool

#endif
