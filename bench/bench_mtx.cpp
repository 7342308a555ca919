// Transfer-coding decoders on 16 MiB of realistic mail bodies.
//
// The decoders work in place, so every iteration decodes a fresh copy of
// the input; the copy is made with the timer paused (16 MiB copy against a
// multi-millisecond decode: the pause overhead is negligible), and
// BM_Copy16MiB shows what the copy itself costs.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "../platform/mtx_internal.h"
#include "tarnplat.h"

namespace {

constexpr size_t kTarget = size_t{16} << 20;

// Random bytes as base64 in 76-character lines ended by CR LF, as mail
// carries attachments.
const std::string& Base64Input() {
  static const std::string text = [] {
    std::mt19937 rng(1);
    const size_t raw_len = kTarget / 78 * 57;
    std::string raw(raw_len, '\0');
    for (char& c : raw) c = static_cast<char>(rng() & 0xFF);
    const int size = MTX_Base64EncSize(static_cast<int>(raw_len), 76);
    std::string enc(static_cast<size_t>(size), '\0');
    const int n = MTX_Base64Enc(raw.data(), static_cast<int>(raw_len), enc.data(), size, 76);
    enc.resize(static_cast<size_t>(n));
    enc += "\r\n";
    return enc;
  }();
  return text;
}

// French prose with accented letters in UTF-8, quoted-printable in lines of
// at most 76 characters with soft breaks, paragraphs ended by CR LF.
const std::string& QPInput() {
  static const std::string text = [] {
    const char* words[] = {"le", "la", "les", "un", "une", "et", "de", "des", "qui", "que", "pour", "dans", "avec",
                           "message", "réunion", "été", "déjà", "à", "où", "très", "après", "équipe", "première",
                           "garçon", "français", "château", "forêt", "Noël", "naïve", "cœur", "reçu", "prévu",
                           "demain", "matin", "bureau", "envoyé", "pièce", "jointe", "merci", "bien", "cordialement"};
    std::mt19937 rng(2);
    std::string out;
    std::string line;
    auto flush_soft = [&] {
      out += line;
      out += "=\r\n";
      line.clear();
    };
    while (out.size() < kTarget) {
      const int sentence_words = 8 + static_cast<int>(rng() % 20);
      for (int w = 0; w < sentence_words; ++w) {
        std::string word = words[rng() % (sizeof words / sizeof words[0])];
        word += w + 1 == sentence_words ? ". " : " ";
        for (unsigned char c : word) {
          char piece[4];
          if (c >= 33 && c <= 126 && c != '=') {
            piece[0] = static_cast<char>(c);
            piece[1] = '\0';
          } else if (c == ' ') {
            std::strcpy(piece, " ");
          } else {
            std::snprintf(piece, sizeof piece, "=%02X", c);
          }
          if (line.size() + std::strlen(piece) > 75) flush_soft();
          line += piece;
        }
      }
      if (rng() % 4 == 0) {  // end of paragraph: a hard line break
        out += line;
        out += "\r\n";
        line.clear();
      }
    }
    out += line;
    return out;
  }();
  return text;
}

// Runs an in-place decoder over fresh copies of the input.
template <typename Fn>
void RunInPlace(benchmark::State& state, const std::string& input, Fn decode) {
  std::vector<char> buf(input.size() + 1);
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(buf.data(), input.data(), input.size() + 1);
    state.ResumeTiming();
    benchmark::DoNotOptimize(decode(buf.data(), input.size()));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(input.size()));
}

void BM_Base64Dec(benchmark::State& state) {
  RunInPlace(state, Base64Input(), [](char* p, size_t) { return MTX_Base64Dec(p); });
}
BENCHMARK(BM_Base64Dec)->Unit(benchmark::kMillisecond);

void BM_Base64DecKernel(benchmark::State& state) {
  const auto kernel = static_cast<tarnplat::mtx::B64Kernel>(state.range(0));
  if (!tarnplat::mtx::Base64KernelAvailable(kernel)) {
    state.SkipWithError("kernel not available on this processor");
    return;
  }
  const char* names[] = {"scalar", "ssse3", "avx2"};
  state.SetLabel(names[state.range(0)]);
  RunInPlace(state, Base64Input(), [kernel](char* p, size_t n) {
    return tarnplat::mtx::Base64Decode(reinterpret_cast<unsigned char*>(p), n, kernel);
  });
}
BENCHMARK(BM_Base64DecKernel)
    ->Arg(static_cast<int>(tarnplat::mtx::B64Kernel::kScalar))
    ->Arg(static_cast<int>(tarnplat::mtx::B64Kernel::kSsse3))
    ->Arg(static_cast<int>(tarnplat::mtx::B64Kernel::kAvx2))
    ->Unit(benchmark::kMillisecond);

void BM_QPDec(benchmark::State& state) {
  RunInPlace(state, QPInput(), [](char* p, size_t) { return MTX_QPDec(p); });
}
BENCHMARK(BM_QPDec)->Unit(benchmark::kMillisecond);

void BM_Base64Enc(benchmark::State& state) {
  std::mt19937 rng(3);
  std::string raw(kTarget / 4 * 3, '\0');
  for (char& c : raw) c = static_cast<char>(rng() & 0xFF);
  const int size = MTX_Base64EncSize(static_cast<int>(raw.size()), 76);
  std::vector<char> out(static_cast<size_t>(size));
  for (auto _ : state) {
    benchmark::DoNotOptimize(MTX_Base64Enc(raw.data(), static_cast<int>(raw.size()), out.data(), size, 76));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(raw.size()));
}
BENCHMARK(BM_Base64Enc)->Unit(benchmark::kMillisecond);

// What one fresh copy of the input costs, for comparison.
void BM_Copy16MiB(benchmark::State& state) {
  const std::string& input = Base64Input();
  std::vector<char> buf(input.size() + 1);
  for (auto _ : state) {
    std::memcpy(buf.data(), input.data(), input.size() + 1);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(input.size()));
}
BENCHMARK(BM_Copy16MiB)->Unit(benchmark::kMillisecond);

}  // namespace
