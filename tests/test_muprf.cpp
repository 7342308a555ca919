// User settings: profiles loaded from a file or set one by one, and the
// time zone from TZ while no profile is configured.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "tarnplat.h"

namespace {

TEST(UserSettings, ProfileAndTzFallback) {
  char tmpl[] = "/tmp/tarn_muprf_XXXXXX";
  const std::string dir = mkdtemp(tmpl);
  char buf[16];
  MUPRF_GlobalLoad(nullptr);
  setenv("TZ", "Europe/Paris", 1);
  EXPECT_STREQ("Europe/Paris", MUPRF_GlobalGetStr("Timezone", buf, sizeof buf));
  EXPECT_EQ(nullptr, MUPRF_GlobalGetStr("Lang", buf, sizeof buf));
  EXPECT_STREQ("", buf);
  unsetenv("TZ");
  EXPECT_EQ(nullptr, MUPRF_GlobalGetStr("Timezone", buf, sizeof buf));
  setenv("TZ", "UTC", 1);

  const std::string path = dir + "/p.conf";
  std::ofstream(path) << "# user profile\n Timezone = +0800 \r\nLang=en\nbroken line\n=x\nLang=de\n"
                         "Long=0123456789abcdefXYZ\n";
  ASSERT_EQ(0, MUPRF_GlobalLoad(path.c_str()));
  EXPECT_STREQ("+0800", MUPRF_GlobalGetStr("Timezone", buf, sizeof buf));
  EXPECT_STREQ("de", MUPRF_GlobalGetStr("Lang", buf, sizeof buf));
  EXPECT_STREQ("0123456789abcde", MUPRF_GlobalGetStr("Long", buf, sizeof buf));  // cut to the buffer
  EXPECT_EQ(nullptr, MUPRF_GlobalGetStr("timezone", buf, sizeof buf));
  // With a profile, TZ is not consulted.
  MUPRF_GlobalSetStr("Timezone", nullptr);
  EXPECT_EQ(nullptr, MUPRF_GlobalGetStr("Timezone", buf, sizeof buf));
  EXPECT_EQ(-1, MUPRF_GlobalSetStr("", "x"));
  EXPECT_EQ(-1, MUPRF_GlobalLoad((dir + "/missing").c_str()));
  EXPECT_STREQ("UTC", MUPRF_GlobalGetStr("Timezone", buf, sizeof buf));  // no profile after a failed load
  EXPECT_EQ(nullptr, MUPRF_GlobalGetStr("Timezone", nullptr, 0));
  MUPRF_GlobalLoad(nullptr);
  std::filesystem::remove_all(dir);
}

}  // namespace
