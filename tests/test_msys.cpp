// System services: the installation root of the fixed paths.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "tarnplat.h"

namespace {

// Runs each test with QUILLNET_ROOT as the test sets it and puts the
// caller's value back afterwards.
class RootPath : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* v = std::getenv("QUILLNET_ROOT")) saved_ = v;
    unsetenv("QUILLNET_ROOT");
  }
  void TearDown() override {
    if (saved_) setenv("QUILLNET_ROOT", saved_->c_str(), 1);
    else unsetenv("QUILLNET_ROOT");
  }
  static std::string map(const char* path, size_t size = 256) {
    char buf[256];
    std::memset(buf, 'Q', sizeof buf);
    EXPECT_EQ(buf, MSYS_RootPath(path, buf, size));
    return buf;
  }
  std::optional<std::string> saved_;
};

TEST_F(RootPath, CompiledInPathsWithoutOverride) {
  EXPECT_EQ("/quillnet/httpd/conf/mime.types", map("/quillnet/httpd/conf/mime.types"));
  setenv("QUILLNET_ROOT", "", 1);  // empty counts as unset
  EXPECT_EQ("/quillnet/log/error.log", map("/quillnet/log/error.log"));
  EXPECT_EQ("", map(nullptr));
}

TEST_F(RootPath, OverrideReplacesTheLeadingRootOnly) {
  setenv("QUILLNET_ROOT", "/srv/qn", 1);
  EXPECT_EQ("/srv/qn/httpd/conf/magic", map("/quillnet/httpd/conf/magic"));
  EXPECT_EQ("/srv/qn", map("/quillnet"));
  EXPECT_EQ("/srv/qn/", map("/quillnet/"));
  EXPECT_EQ("/quillnetx/etc", map("/quillnetx/etc"));
  EXPECT_EQ("/var/quillnet/etc", map("/var/quillnet/etc"));
  EXPECT_EQ("quillnet/etc", map("quillnet/etc"));
  EXPECT_EQ("/QUILLNET/etc", map("/QUILLNET/etc"));

  // Trailing slashes of the root are dropped; "/" maps onto the file system root.
  setenv("QUILLNET_ROOT", "/srv/qn//", 1);
  EXPECT_EQ("/srv/qn/etc/x.conf", map("/quillnet/etc/x.conf"));
  setenv("QUILLNET_ROOT", "/", 1);
  EXPECT_EQ("/etc/x.conf", map("/quillnet/etc/x.conf"));
  EXPECT_EQ("/", map("/quillnet"));

  // Read at every call: a later change is seen at once.
  unsetenv("QUILLNET_ROOT");
  EXPECT_EQ("/quillnet/etc", map("/quillnet/etc"));
}

TEST_F(RootPath, BoundedAndInPlace) {
  setenv("QUILLNET_ROOT", "/srv/qn", 1);
  EXPECT_EQ("/srv/qn", map("/quillnet/etc/a", 8));
  EXPECT_EQ("/srv", map("/quillnet/etc/a", 5));
  EXPECT_EQ("", map("/quillnet/etc/a", 1));
  // A destination of size 0 or NULL is not written.
  char keep[8] = "keep";
  EXPECT_EQ(keep, MSYS_RootPath("/quillnet/etc", keep, 0));
  EXPECT_STREQ("keep", keep);
  EXPECT_EQ(nullptr, MSYS_RootPath("/quillnet/etc", nullptr, 10));

  // The path may be rewritten in its own buffer, longer or shorter.
  char buf[64] = "/quillnet/etc/docviewer_types.conf";
  EXPECT_STREQ("/srv/qn/etc/docviewer_types.conf", MSYS_RootPath(buf, buf, sizeof buf));
  setenv("QUILLNET_ROOT", "/a-much-longer-installation-root", 1);
  char buf2[64] = "/quillnet/etc/x";
  EXPECT_STREQ("/a-much-longer-installation-root/etc/x", MSYS_RootPath(buf2, buf2, sizeof buf2));
}

}  // namespace
