// mime_type_checking on a mix of typical attachment heads, with the default
// magic and mime.types files: content tests (no usable name) and name
// lookups.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tarnmail.h"

using namespace std::string_literals;

namespace {

std::string le32(uint32_t v) {
  return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
          static_cast<char>(v >> 24)};
}

// The first 8 KiB an attachment would hand in: a recognisable head, then
// filler that looks like the rest of such a file.
std::string head(std::string start, char fill, size_t size = 8192) {
  start.resize(size, fill);
  return start;
}

std::vector<std::string> mix() {
  std::string ole = "\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1"s;
  ole.resize(512, '\0');
  ole += "\xec\xa5\xc1\0"s;
  std::string text;
  while (text.size() < 8192) text += "Dear colleague, the figures for the third quarter are attached.\r\n";
  std::string html = "<!DOCTYPE html>\n<html><head><title>Newsletter</title></head><body>\n";
  while (html.size() < 8192) html += "<p>Our offers this week, <a href=\"https://example.org/\">here</a>.</p>\n";
  return {
      head("%PDF-1.6\n%\xe2\xe3\xcf\xd3\n"s, '\x93'),
      head("\xff\xd8\xff\xe0\0\x10JFIF\0"s, '\x5a'),
      head("\x89PNG\r\n\x1a\n\0\0\0\rIHDR"s, '\x21'),
      head(ole, '\x11'),
      head("PK\x03\x04\x14\0\x06\0\x08\0\0\0!\0"s + le32(0x12345678) + le32(400) + le32(1500) +
               "\x13\0\0\0[Content_Types].xml"s,
           '\x7e'),
      head("GIF89a\x40\x01\xf0\0"s, '\x03'),
      head("\x78\x9f\x3e\x22\x01\0"s, '\0'),
      head("ID3\x03\0\0\0\0\x0f\x76"s, '\xaa'),
      head("RIFF\xe8\x03\0\0WAVEfmt "s, '\x10'),
      text,
      html,
      head("\x1f\x8b\x08\0\0\0\0\0"s, '\xc3'),
      head("{\\rtf1\\ansi\\ansicpg1252\\deff0", 'x'),
      head("BEGIN:VCALENDAR\r\nVERSION:2.0\r\n", ' ', 600),
      head("\0\x13\x77\x01\x02"s, '\x42'),  // nothing known
  };
}

void setup() {
  static bool done = false;
  if (done) return;
  done = true;
  std::string dir = std::string(TARN_SOURCE_DIR) + "/data/";
  mime_type_init((dir + "mime.types").c_str(), (dir + "magic").c_str());
}

void BM_MimeTypeByContent(benchmark::State& state) {
  setup();
  const auto heads = mix();
  size_t i = 0;
  for (auto _ : state) {
    const std::string& h = heads[i++ % heads.size()];
    char* t = mime_type_checking(reinterpret_cast<const unsigned char*>(h.data()),
                                 static_cast<int>(h.size()), nullptr);
    benchmark::DoNotOptimize(t);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_MimeTypeByContent);

void BM_MimeTypeByName(benchmark::State& state) {
  setup();
  const unsigned char* names[] = {
      reinterpret_cast<const unsigned char*>("Quarterly report.PDF"),
      reinterpret_cast<const unsigned char*>("IMG_2041.jpg"),
      reinterpret_cast<const unsigned char*>("minutes.docx"),
      reinterpret_cast<const unsigned char*>("winmail.dat"),
      reinterpret_cast<const unsigned char*>("photos.tar.gz"),
  };
  const std::string body = "irrelevant";
  size_t i = 0;
  for (auto _ : state) {
    char* t = mime_type_checking(reinterpret_cast<const unsigned char*>(body.data()),
                                 static_cast<int>(body.size()), names[i++ % 5]);
    benchmark::DoNotOptimize(t);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_MimeTypeByName);

}  // namespace
