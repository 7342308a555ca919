// Reading pages of typical messages (the sample messages: plain text,
// HTML with an inline picture, attachments, a forwarded message,
// quoted-printable and Japanese text, a TNEF attachment):
//
//   BM_DispRun      one whole mime_disp_run of mailreadDE into the growing
//                   buffer, header block from the installed forms and the
//                   parts saved; the message is decoded once, outside the
//                   timed loop (a rendering leaves the tree as it found it,
//                   so every pass renders the same page);
//   BM_ReadingPage  what `tarnmail render` does for one message in-process:
//                   copy and decode it (generalME, msgreadME for TNEF),
//                   render it with the page's safe switches, put the page
//                   together and write it, parts into a directory in /tmp.
//                   The message has a path, so its parts keep their names:
//                   after the first pass they are found in place, as when a
//                   stored message is read again.
//
// Items per second are messages per second.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tarnmail.h"

namespace {

namespace fs = std::filesystem;

const std::string kSamples = TARN_SOURCE_DIR "/data/samples/";
const std::string kForms = TARN_SOURCE_DIR "/data/forms";

const char* const kMessages[] = {"plain.eml",     "html-inline-image.eml", "attachments.eml", "forwarded.eml",
                                 "quoted-printable.eml", "japanese.eml",   "winmail.eml"};

// The page's additions to a reading context's HTML switches: scripts,
// remote pictures, refreshes, objects, embeds, XML islands, removal passes.
constexpr int kSafeH2d = 0x1 | 0x800 | 0x2000 | 0x8000 | 0x10000 | 0x20000 | 0x40000;

std::string read_all(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void load_tables() {
  static const bool done = [] {
    const std::string data = TARN_SOURCE_DIR "/data/";
    mime_type_init((data + "mime.types").c_str(), (data + "magic").c_str());
    return true;
  }();
  (void)done;
}

// A directory below /tmp for one benchmark's saved parts and page, gone
// when the benchmark ends.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/tarn_bench_render_XXXXXX";
    if (mkdtemp(tmpl) != nullptr) path_ = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) fs::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A decoded copy of a message, owned.
struct Decoded {
  std::vector<char> buf;
  MIME_DECODE dec;
  Decoded(const std::string& msg, const std::string& path, const MIME_DECODE& preset)
      : buf(msg.begin(), msg.end()), dec(preset) {
    buf.push_back('\0');
    mime_decode_init(&dec, buf.data(), static_cast<int>(msg.size()), path.c_str(), nullptr);
    mime_decode_run(&dec);
  }
  ~Decoded() { mime_decode_shutdown(&dec); }
};

// Renders into the growing buffer; returns the page's length.
long render(HME* tree, const MIME_DISP& preset, int extra_h2d, const std::string& parts, std::string* out) {
  MIME_DISP d = preset;
  d.disp_flag = (d.disp_flag & ~(MIME_DISP_OUT_STREAM | MIME_DISP_OUT_FIXED)) | MIME_DISP_OUT_GROWING;
  d.html2disp_flag |= extra_h2d;
  mime_disp_set_downfilepath(&d, parts.c_str(), nullptr);
  mime_disp_init(&d, tree, "", kForms.c_str());
  mime_disp_setcharset(&d, MLG_UTF8, MLG_UTF8);
  mime_disp_set_cgipath(&d, "parts");
  mime_disp_set_webrelatepath(&d, "parts");
  mime_disp_run(&d);
  char* result = nullptr;
  long size = 0;
  mime_disp_getresult(&d, &result, &size);
  if (out != nullptr && result != nullptr) out->assign(result, static_cast<size_t>(size));
  mime_disp_shutdown(&d);
  return size;
}

void BM_DispRun(benchmark::State& state) {
  load_tables();
  const std::string path = kSamples + kMessages[state.range(0)];
  const std::string msg = read_all(path);
  TempDir dir;
  Decoded decoded(msg, path, generalME);
  long size = render(&decoded.dec.result, mailreadDE, 0, dir.path(), nullptr);
  for (auto _ : state) {
    long n = render(&decoded.dec.result, mailreadDE, 0, dir.path(), nullptr);
    if (n != size) state.SkipWithError("a second rendering gave another page");
    benchmark::DoNotOptimize(n);
  }
  state.SetLabel(kMessages[state.range(0)]);
  state.SetItemsProcessed(state.iterations());
  state.counters["page_bytes"] = static_cast<double>(size);
}
BENCHMARK(BM_DispRun)->DenseRange(0, std::size(kMessages) - 1);

// The page around the engine's output, as `tarnmail render` writes it.
std::string page(const char* subject, const std::string& body) {
  std::string out =
      "<!DOCTYPE html>\n<html>\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src 'self' data:; "
      "style-src 'unsafe-inline'; base-uri 'none'; form-action 'none'\">\n<title>";
  for (const char* p = subject != nullptr ? subject : ""; *p != '\0'; ++p) {
    switch (*p) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += *p;
    }
  }
  out += "</title>\n</head>\n<body>\n<main class=\"tm-page\">\n";
  out += body;
  out += "\n</main>\n</body>\n</html>\n";
  return out;
}

void BM_ReadingPage(benchmark::State& state) {
  load_tables();
  const char* name = kMessages[state.range(0)];
  const std::string path = kSamples + name;
  const std::string msg = read_all(path);
  const bool tnef = std::strcmp(name, "winmail.eml") == 0;
  const MIME_DECODE& decoding = tnef ? msgreadME : generalME;
  const MIME_DISP& display = tnef ? msgreadDE : mailreadDE;
  TempDir dir;
  const std::string parts = dir.path() + "/parts";
  const std::string out_path = dir.path() + "/page.html";
  fs::create_directory(parts);
  std::string body;
  size_t page_bytes = 0;
  for (auto _ : state) {
    Decoded decoded(msg, path, decoding);
    render(&decoded.dec.result, display, kSafeH2d, parts, &body);
    const ME_HEADER* h = decoded.dec.result.me_node.h;
    const char* subject = h != nullptr && h->rfc822 != nullptr && h->rfc822->subject != nullptr
                              ? h->rfc822->subject[0]
                              : nullptr;
    const std::string text = page(subject, body);
    // A new file each pass: a file truncated and written again is flushed
    // to disk at close by ext4, which would time the disk, not the page.
    unlink(out_path.c_str());
    FILE* f = fopen(out_path.c_str(), "wb");
    if (f == nullptr || fwrite(text.data(), 1, text.size(), f) != text.size()) state.SkipWithError("cannot write");
    if (f != nullptr) fclose(f);
    page_bytes = text.size();
  }
  state.SetLabel(name);
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * msg.size()));
  state.counters["page_bytes"] = static_cast<double>(page_bytes);
}
BENCHMARK(BM_ReadingPage)->DenseRange(0, std::size(kMessages) - 1);

}  // namespace
