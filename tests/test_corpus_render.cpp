// Every message of the corpus rendered with the two reading pages into a
// growing buffer, its parts saved into a temporary download directory;
// then everything again, which must leave the directory exactly as it was.
// Under the sanitizers this is the walk's memory check on real mail.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <tuple>

#include "mime_disp_internal.h"
#include "support.h"

namespace {

namespace fs = std::filesystem;

struct Page {
  const char* name;
  const MIME_DISP* preset;
  const MIME_DECODE* decoding;
};
const Page kPages[] = {{"mailreadDE", &mailreadDE, &generalME}, {"msgreadDE", &msgreadDE, &msgreadME}};

// Name -> (size, modification time) of every entry of the directory; a
// sub-directory or anything but a regular file is a failure.
using Listing = std::map<std::string, std::tuple<uintmax_t, long, long>>;

Listing list(const std::string& dir) {
  Listing out;
  for (auto& e : fs::recursive_directory_iterator(dir)) {
    EXPECT_TRUE(e.is_regular_file()) << e.path();
    EXPECT_EQ(fs::path(dir), e.path().parent_path()) << e.path();
    struct stat st;
    EXPECT_EQ(0, stat(e.path().c_str(), &st));
    out[e.path().filename().string()] = {e.file_size(), st.st_mtim.tv_sec, st.st_mtim.tv_nsec};
  }
  return out;
}

// Renders one message the way a reading page does, header blocks (which
// save the parts) from the installed forms, and returns the page's length.
long render(const std::string& path, const std::string& bytes, const Page& page, const std::string& dl) {
  tarntest::Decoded dec(bytes, *page.decoding);
  dec.ctx().result.me_info.msgpath = path.c_str();
  MIME_DISP d = *page.preset;
  d.disp_flag = (d.disp_flag & ~MIME_DISP_OUT_STREAM) | MIME_DISP_OUT_GROWING;
  mime_disp_set_downfilepath(&d, dl.c_str(), nullptr);
  mime_disp_init(&d, &dec.ctx().result, "", TARN_SOURCE_DIR "/data/forms");
  mime_disp_setcharset(&d, MLG_UTF8, MLG_UTF8);
  EXPECT_EQ(0, mime_disp_run(&d)) << path;
  char* out = nullptr;
  long n = -1;
  mime_disp_getresult(&d, &out, &n);
  if (out != nullptr) {
    EXPECT_EQ('\0', out[n]) << path;
    // Every form was found: no "... error!!!" line on the page.
    EXPECT_EQ(nullptr, std::strstr(out, "error!!!")) << path;
  } else {
    EXPECT_EQ(0, n) << path;
  }
  mime_disp_shutdown(&d);
  return n;
}

TEST(CorpusRender, ReadingPagesSavePartsOnce) {
  const auto files = tarntest::corpus_files("mime");
  if (files.empty()) GTEST_SKIP() << "no corpus";
  char tmpl[] = "/tmp/tarn_render_XXXXXX";
  const std::string root = mkdtemp(tmpl);
  const std::string dl = root + "/dl";
  fs::create_directory(dl);

  long total = 0;
  for (const auto& path : files) {
    const std::string bytes = tarntest::read_file(path);
    for (const Page& page : kPages) total += render(path, bytes, page, dl);
  }
  const Listing first = list(dl);
  std::printf("%zu messages, %ld bytes of page, %zu saved parts\n", files.size(), total, first.size());
  EXPECT_GT(first.size(), 100u);
  EXPECT_GT(total, 1000000);

  for (const auto& path : files) {
    const std::string bytes = tarntest::read_file(path);
    for (const Page& page : kPages) render(path, bytes, page, dl);
  }
  EXPECT_EQ(first, list(dl)) << "a second rendering wrote into the download directory";
  fs::remove_all(root);
}

}  // namespace
