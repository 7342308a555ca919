// Date formatting: MTM_RFC822Str2, MTM_RFC822Str and the platform's
// MTM_ToStr2 and MTM_UTC2LocalStr_s.  Zones are POSIX rules, so the tests
// need no zone database.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "tarnmail.h"
#include "tarnmail/date.h"

namespace {

constexpr time_t kNow2026 = 1767607200;      // 2026-01-05 10:00 UTC, a Monday
constexpr time_t kTwoAm = 1767578400;        // 2026-01-05 02:00 UTC
constexpr time_t kJul15Noon = 1784116800;    // 2026-07-15 12:00 UTC, a Wednesday
constexpr const char* kNewYork = "EST5EDT,M3.2.0,M11.1.0";

class LocalZone {
 public:
  explicit LocalZone(const char* tz) {
    const char* old = std::getenv("TZ");
    had_ = old != nullptr;
    if (had_) saved_ = old;
    set(tz);
  }
  ~LocalZone() { set(had_ ? saved_.c_str() : nullptr); }
  static void set(const char* tz) {
    if (tz != nullptr)
      setenv("TZ", tz, 1);
    else
      unsetenv("TZ");
    tzset();
  }

 private:
  std::string saved_;
  bool had_ = false;
};

std::string rfc822(time_t t, size_t size = 256) {
  std::string buf(size + 1, '#');  // one guard byte past the size given
  const char* r = MTM_RFC822Str2(buf.data(), size, &t);
  EXPECT_EQ(r, buf.data());
  EXPECT_EQ(buf[size], '#') << "wrote past the size";
  return r != nullptr ? std::string(r) : std::string("(null)");
}

std::string in_zone(time_t t, const char* tz, const char* fmt = "%a, %d %b %Y %H:%M:%S", size_t size = 128) {
  std::string buf(size + 1, '#');
  const char* r = MTM_UTC2LocalStr_s(buf.data(), size, fmt, t, tz);
  EXPECT_EQ(buf[size], '#') << "wrote past the size";
  return r != nullptr ? std::string(r) : std::string("(null)");
}

TEST(Rfc822Time, ZoneNumbersAndNames) {
  const struct {
    const char* tz;
    time_t t;
    const char* want;
  } cases[] = {
      {"CST-8", kTwoAm, "Mon, 05 Jan 2026 10:00:00 +0800 (CST)"},
      {"UTC0", kNow2026, "Mon, 05 Jan 2026 10:00:00 +0000 (UTC)"},
      // Summer keeps the standard-time name.
      {kNewYork, kJul15Noon, "Wed, 15 Jul 2026 08:00:00 -0400 (EST)"},
      // Zones with minutes: (M * 5) / 3 + M % 60.
      {"IST-5:30", kNow2026, "Mon, 05 Jan 2026 15:30:00 +0580 (IST)"},
      {"NST3:30NDT,M3.2.0,M11.1.0", kNow2026, "Mon, 05 Jan 2026 06:30:00 -0380 (NST)"},
  };
  for (const auto& c : cases) {
    LocalZone zone(c.tz);
    EXPECT_EQ(rfc822(c.t), c.want) << c.tz;
  }
}

TEST(Rfc822Time, ReadBackByTheParser) {
  LocalZone zone("CST-8");
  EXPECT_EQ(parsedate(MTM_RFC822Str(&kTwoAm), nullptr), kTwoAm);
  // A zone with minutes comes out as a number the parser refuses.
  LocalZone india("IST-5:30");
  EXPECT_EQ(parsedate(MTM_RFC822Str(&kTwoAm), nullptr), -1);
}

TEST(Rfc822Time, CutsAndNulls) {
  LocalZone zone("CST-8");
  EXPECT_EQ(rfc822(kTwoAm, 10), "Mon, 05 J");
  EXPECT_EQ(rfc822(kTwoAm, 30), "Mon, 05 Jan 2026 10:00:00 +08");
  EXPECT_EQ(rfc822(kTwoAm, 1), "");
  char buf[8] = "x";
  EXPECT_EQ(MTM_RFC822Str2(buf, 0, &kTwoAm), nullptr);
  EXPECT_EQ(MTM_RFC822Str2(nullptr, 64, &kTwoAm), nullptr);

  // The static form: one buffer, overwritten by the next call.
  char* a = MTM_RFC822Str(&kTwoAm);
  char* b = MTM_RFC822Str(&kNow2026);
  EXPECT_EQ(a, b);
  EXPECT_STREQ(b, "Mon, 05 Jan 2026 18:00:00 +0800 (CST)");
}

TEST(Rfc822Time, NullTimeMeansNow) {
  LocalZone zone("UTC0");
  char buf[64];
  const time_t before = std::time(nullptr);
  ASSERT_EQ(MTM_RFC822Str2(buf, sizeof buf, nullptr), buf);
  const time_t after = std::time(nullptr);
  EXPECT_TRUE(buf == rfc822(before) || buf == rfc822(after)) << buf;

  ASSERT_EQ(MTM_ToStr2(buf, sizeof buf, "%s", nullptr), buf);
  const long long got = std::atoll(buf);
  EXPECT_GE(got, before);
  EXPECT_LE(got, std::time(nullptr));
}

TEST(PlatformTime, ToStr2Bounds) {
  LocalZone zone("CST-8");
  char buf[64];
  EXPECT_STREQ(MTM_ToStr2(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &kTwoAm), "2026-01-05 10:00:00");
  EXPECT_STREQ(MTM_ToStr2(buf, 5, "%Y-%m-%d", &kTwoAm), "2026");
  EXPECT_STREQ(MTM_ToStr2(buf, sizeof buf, "", &kTwoAm), "");

  // Longer than the buffer: cut, not refused.
  std::string fmt;
  for (int i = 0; i < 100; ++i) fmt += "%Y";
  EXPECT_EQ(std::string(MTM_ToStr2(buf, 10, fmt.c_str(), &kTwoAm)), "202620262");
  std::string big(1000, '\0');
  EXPECT_EQ(std::string(MTM_ToStr2(big.data(), big.size(), fmt.c_str(), &kTwoAm)).size(), 400u);

  buf[0] = 'x';
  EXPECT_EQ(MTM_ToStr2(buf, sizeof buf, nullptr, &kTwoAm), nullptr);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(MTM_ToStr2(nullptr, 64, "%Y", &kTwoAm), nullptr);
  EXPECT_EQ(MTM_ToStr2(buf, 0, "%Y", &kTwoAm), nullptr);
}

TEST(PlatformTime, UserZoneAsOffset) {
  LocalZone zone("UTC0");
  for (const char* tz : {"+0800", "+08:00", "+8", "+800", "GMT+8", "utc+0800", "GMT+08:00"})
    EXPECT_EQ(in_zone(kTwoAm, tz), "Mon, 05 Jan 2026 10:00:00") << tz;
  EXPECT_EQ(in_zone(kTwoAm, "-05:30"), "Sun, 04 Jan 2026 20:30:00");
  EXPECT_EQ(in_zone(kTwoAm, "GMT"), "Mon, 05 Jan 2026 02:00:00");
  EXPECT_EQ(in_zone(kTwoAm, "+0800", "%z %Z"), "+0800 GMT+08:00");
  EXPECT_EQ(in_zone(kTwoAm, "-05:30", "%z %Z"), "-0530 GMT-05:30");
  EXPECT_EQ(in_zone(kTwoAm, "UTC", "%z %Z"), "+0000 GMT");
  EXPECT_EQ(in_zone(kTwoAm, "+0800", "%a, %d %b %Y %H:%M:%S", 4), "Mon");
}

TEST(PlatformTime, UserZoneAsName) {
  LocalZone zone("UTC0");
  EXPECT_EQ(in_zone(kTwoAm, "JST-9"), "Mon, 05 Jan 2026 11:00:00");
  EXPECT_EQ(in_zone(kJul15Noon, kNewYork, "%H:%M %Z"), "08:00 EDT");
  EXPECT_STREQ(std::getenv("TZ"), "UTC0");  // the process's zone is back

  // No zone, or one that is not a plain name: the process's local time.
  for (const char* tz : {static_cast<const char*>(nullptr), "", "../../etc/passwd", "/etc/localtime", "a b"})
    EXPECT_EQ(in_zone(kTwoAm, tz), "Mon, 05 Jan 2026 02:00:00") << (tz != nullptr ? tz : "NULL");

  LocalZone::set(nullptr);
  EXPECT_EQ(in_zone(kTwoAm, "JST-9"), "Mon, 05 Jan 2026 11:00:00");
  EXPECT_EQ(std::getenv("TZ"), nullptr);  // left unset as it was
}

}  // namespace
