// The tool's SHA-256 against published digests and against itself fed in
// pieces of every size around the block and padding boundaries.

#include <gtest/gtest.h>

#include <string>

#include "../tools/sha256.cpp"

namespace {

using tarntool::Sha256;
using tarntool::sha256_hex;

std::string hex(const std::array<uint8_t, 32>& d) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (uint8_t b : d) out += std::string{kHex[b >> 4], kHex[b & 15]};
  return out;
}

TEST(Sha256, KnownDigests) {
  EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", sha256_hex(""));
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", sha256_hex("abc"));
  // 56 bytes: the length no longer fits into the first block.
  EXPECT_EQ("248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1",
            sha256_hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"));
  EXPECT_EQ("cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1",
            sha256_hex("abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrs"
                       "mnopqrstnopqrstu"));
  EXPECT_EQ("d7a8fbb307d7809469ca9abcb0082e4f8d5651e46d3cdb762d02d0bf37c9e592",
            sha256_hex("The quick brown fox jumps over the lazy dog"));
  // A million 'a's, fed in uneven pieces.
  Sha256 h;
  const std::string piece(997, 'a');
  size_t left = 1000000;
  for (; left >= piece.size(); left -= piece.size()) h.update(piece.data(), piece.size());
  h.update(piece.data(), left);
  EXPECT_EQ("cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0", hex(h.finish()));
}

// Lengths 0..200 cover every fill of the last block (55, 56, 63, 64 ...);
// each is hashed whole and byte by byte, which must agree.
TEST(Sha256, PiecesAgreeWithWhole) {
  std::string data;
  for (int i = 0; i < 200; ++i) data += static_cast<char>(i * 7 + 3);
  std::string last;
  for (size_t n = 0; n <= data.size(); ++n) {
    const std::string whole = sha256_hex(data.data(), n);
    Sha256 h;
    for (size_t i = 0; i < n; ++i) h.update(data.data() + i, 1);
    ASSERT_EQ(whole, hex(h.finish())) << n;
    ASSERT_NE(last, whole) << n;
    last = whole;
  }
  // 64 zero bytes: a whole block with the padding in a block of its own.
  EXPECT_EQ("f5a5fd42d16a20302798ef6ed309979b43003d2320d9f0e8ea9831a92759fb4b", sha256_hex(std::string(64, '\0')));
  // 55 bytes: the last length that pads within one block.
  EXPECT_EQ("9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318", sha256_hex(std::string(55, 'a')));
}

TEST(Sha256, ResetStartsOver) {
  Sha256 h;
  h.update("junk", 4);
  h.reset();
  h.update("abc", 3);
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", hex(h.finish()));
}

}  // namespace
