// Date parsing: parsedate, its word tables and lexer, GetTimeInfo.
//
// Expected instants are worked out by hand: 2026-01-05 00:00 UTC is day
// 20458 of the epoch (56 years of 365 days, 14 leap days, 4 days), i.e.
// 1767571200.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "parsdate_internal.h"
#include "tarnmail.h"
#include "tarnmail/date.h"

namespace {

using namespace tarn_date;

constexpr time_t kJan5 = 1767571200;          // 2026-01-05 00:00 UTC
constexpr time_t kNow2026 = kJan5 + 10 * 3600;  // 2026-01-05 10:00 UTC, a Monday
constexpr time_t kNow1999 = 929448000;        // 1999-06-15 12:00 UTC
constexpr time_t kXmas1999 = 946080000;       // 1999-12-25 00:00 UTC

// Runs the C library's local time in zone `tz` for one test.
class LocalZone {
 public:
  explicit LocalZone(const char* tz) {
    const char* old = std::getenv("TZ");
    had_ = old != nullptr;
    if (had_) saved_ = old;
    setenv("TZ", tz, 1);
    tzset();
  }
  ~LocalZone() {
    if (had_)
      setenv("TZ", saved_.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }

 private:
  std::string saved_;
  bool had_ = false;
};

// Parses a copy held in a heap block of exactly the text's size, so that a
// read past the terminator trips the address sanitizer.
time_t parse(std::string_view text, time_t now = kNow2026, long tzone = 0) {
  auto buf = std::make_unique<char[]>(text.size() + 1);
  std::memcpy(buf.get(), text.data(), text.size());
  buf[text.size()] = '\0';
  TIMEINFO ti{now, 0, tzone};
  return parsedate(buf.get(), &ti);
}

struct Case {
  const char* text;
  time_t want;
};

void expect_all(std::initializer_list<Case> cases, time_t now = kNow2026, long tzone = 0) {
  for (const Case& c : cases) EXPECT_EQ(parse(c.text, now, tzone), c.want) << '"' << c.text << '"';
}

class ParseDate : public ::testing::Test {
 protected:
  LocalZone utc_{"UTC0"};
};

// ---- word tables --------------------------------------------------------

struct Row {
  std::string_view name;
  int type;
  long value;
};

void expect_table(std::span<const TABLE> table, const std::vector<Row>& want) {
  ASSERT_EQ(table.size(), want.size());
  for (std::size_t i = 0; i < want.size(); ++i) {
    EXPECT_EQ(table[i].name, want[i].name) << i;
    EXPECT_EQ(table[i].type, want[i].type) << want[i].name;
    EXPECT_EQ(table[i].value, want[i].value) << want[i].name;
  }
}

TEST(DateWordTables, MonthsDaysAndUnits) {
  expect_table(month_day_table(),
               {{"january", kMonth, 1},   {"february", kMonth, 2}, {"march", kMonth, 3},    {"april", kMonth, 4},
                {"may", kMonth, 5},       {"june", kMonth, 6},     {"july", kMonth, 7},     {"august", kMonth, 8},
                {"september", kMonth, 9}, {"october", kMonth, 10}, {"november", kMonth, 11}, {"december", kMonth, 12},
                {"sunday", kDay, 0},      {"monday", kDay, 0},     {"tuesday", kDay, 0},    {"wednesday", kDay, 0},
                {"thursday", kDay, 0},    {"friday", kDay, 0},     {"saturday", kDay, 0}});
  expect_table(units_table(), {{"year", kMonthUnit, 12},
                               {"month", kMonthUnit, 1},
                               {"week", kSecUnit, 604800},
                               {"day", kSecUnit, 86400},
                               {"hour", kSecUnit, 3600},
                               {"minute", kSecUnit, 60},
                               {"min", kSecUnit, 60},
                               {"second", kSecUnit, 1},
                               {"sec", kSecUnit, 1}});
}

TEST(DateWordTables, ZonesInOrder) {
  const int Z = kZone;
  const int D = kDayZone;
  expect_table(timezone_table(),
               {{"gmt", Z, 0},     {"ut", Z, 0},      {"utc", Z, 0},     {"cut", Z, 0},     {"z", Z, 0},
                {"wet", Z, 0},     {"bst", D, 0},     {"nst", Z, 210},   {"ndt", D, 210},   {"ast", Z, 240},
                {"adt", D, 240},   {"est", Z, 300},   {"edt", D, 300},   {"cst", Z, 360},   {"cdt", D, 360},
                {"mst", Z, 420},   {"mdt", D, 420},   {"pst", Z, 480},   {"pdt", D, 480},   {"yst", Z, 540},
                {"ydt", D, 540},   {"akst", Z, 540},  {"akdt", D, 540},  {"hst", Z, 600},   {"hast", Z, 600},
                {"hadt", D, 600},  {"ces", D, -60},   {"cest", D, -60},  {"mezt", D, -60},  {"mez", Z, -60},
                {"cet", Z, -60},   {"met", Z, -60},   {"eet", Z, -120},  {"msk", Z, -180},  {"msd", D, -180},
                {"wast", Z, -480}, {"wadt", D, -480}, {"hkt", Z, -480},  {"cct", Z, -480},  {"jst", Z, -540},
                {"kst", Z, -540},  {"kdt", Z, -540},  {"cast", Z, -570}, {"cadt", D, -570}, {"east", Z, -600},
                {"eadt", D, -600}, {"nzst", Z, -720}, {"nzdt", D, -720}});
}

TEST(DateWordTables, LookupRules) {
  const struct {
    std::string_view word;
    int type;
    long value;
  } cases[] = {
      // Three letters, or three and a dot, match a month or day by prefix.
      {"sep", kMonth, 9},
      {"sep.", kMonth, 9},
      {"mar", kMonth, 3},
      {"mon", kDay, 0},
      {"thu", kDay, 0},
      {"wed.", kDay, 0},
      // Other lengths must be whole names.
      {"september", kMonth, 9},
      {"saturday", kDay, 0},
      {"sept", kZone, 0},
      {"janu", kZone, 0},
      {"thur", kZone, 0},
      // Zones before units; plural units.
      {"ces", kDayZone, -60},
      {"kdt", kZone, -540},
      {"min", kSecUnit, 60},
      {"mins", kSecUnit, 60},
      {"days", kSecUnit, 86400},
      {"weeks", kSecUnit, 604800},
      {"years", kMonthUnit, 12},
      {"months", kMonthUnit, 1},
      {"secs", kSecUnit, 1},
      {"tues", kZone, 0},
      // Meridians and dotted zones once the dots are gone.
      {"am", kMeridian, MERam},
      {"pm", kMeridian, MERpm},
      {"a.m.", kMeridian, MERam},
      {"p.m", kMeridian, MERpm},
      {"e.s.t.", kZone, 300},
      {"p.d.t.", kDayZone, 480},
      {"u.t.c", kZone, 0},
      {"n.z.s.t.", kZone, -720},
      // Anything else is a zone of UTC.
      {"xyz", kZone, 0},
      {"s", kZone, 0},
      {"yesterday", kZone, 0},
  };
  for (const auto& c : cases) {
    long value = -99999;
    EXPECT_EQ(lookup_word(c.word, &value), c.type) << c.word;
    EXPECT_EQ(value, c.value) << c.word;
  }
}

// ---- RFC 822 dates --------------------------------------------------------

TEST_F(ParseDate, RfcDatesAndZones) {
  expect_all({
      {"Mon, 05 Jan 2026 10:00:00 +0800", kJan5 + 2 * 3600},
      {"Mon, 05 Jan 2026 10:00:00 GMT", kNow2026},
      {"Monday, 5 January 2026 10:00:00 UT", kNow2026},
      {"MON, 05 JAN 2026 10:00:00 GMT", kNow2026},
      {"05 Jan 2026 10:00 +0000", kNow2026},
      {"Mon, 05 Jan 2026 10:00:00 -0330", kNow2026 + 3 * 3600 + 1800},
      {"Mon, 05 Jan 2026 10:00:00 EST", kNow2026 + 5 * 3600},
      {"Mon, 05 Jan 2026 10:00:00 EDT", kNow2026 + 4 * 3600},     // daylight: one hour earlier
      {"Mon, 05 Jan 2026 10:00:00 e.s.t.", kNow2026 + 5 * 3600},
      {"Mon, 05 Jan 2026 10:00:00 CEST", kNow2026 - 2 * 3600},
      {"Mon, 05 Jan 2026 10:00:00 BST", kNow2026 - 3600},
      {"Mon, 05 Jan 2026 10:00:00 KDT", kNow2026 - 9 * 3600},    // listed as standard time
      {"Mon, 05 Jan 2026 10:00:00 GMT+0800", kJan5 + 2 * 3600},  // only a UTC name takes an offset
      {"Mon, 05 Jan 2026 10:00:00 xyz", kNow2026},                // unknown words are UTC
      {"Mon, 05 Jan 2026 10:00:00 xyz-0100", kNow2026 + 3600},
      {"Mon, 05 Jan 2026 10:00:00 - +0800", kJan5 + 2 * 3600},    // a lone sign is dropped
      {"Mon,\r\n\t05 Jan 2026 10:00:00 +0800", kJan5 + 2 * 3600},
  });
}

TEST_F(ParseDate, RfcDatesThatFail) {
  expect_all({
      {"Mon 05 Jan 2026 10:00:00 +0800", -1},     // a day name needs its comma
      {"Mon, 05 Jan 2026 10:00:00 EST+0800", -1},  // offset after a zone that is not UTC
      {"Mon, 05 Jan 2026 10:00:00 +0860", -1},     // minutes above 59
      {"Mon, 05 Jan 2026 10:00:00 +10000", -1},    // more than four digits
      {"Mon, 05 Jan 2026 10:00:00 GMT GMT", -1},   // a zone can only follow a time
      {"Mon, 05 Jan 2026 GMT", -1},
      {"Jan 5 2026 10:00:00 GMT", -1},  // "2026" after month and day is the clock time 20:26
      {"Mon, 05 Jan 2026 10:00:00 +0800 \xE9", -1},
  });
}

TEST_F(ParseDate, Comments) {
  const time_t want = kJan5 + 2 * 3600;
  expect_all({
      {"(x) Mon, (a (nested) b) 05 Jan 2026 10:00:00 (\\) still inside) +0800", want},
      {"Mon, 05 Jan 2026 10:00:00 +0800 (CST)", want},
      {"Mon, 05 Jan 2026 10:00:00 +0800 (\\\xE9)", want},  // an escaped byte is taken as it is
      {"Mon, 05 Jan 2026 10:00:00 +0800 (caf\xC3\xA9)", -1},
      {"Mon, 05 Jan 2026 10:00:00 +0800 (a\rb)", -1},
      {"Mon, 05 Jan 2026 10:00:00 +0800 (unclosed (x)", -1},
      {"Mon, 05 Jan 2026 10:00:00 +0800 (a\\", -1},
  });
}

// ---- clock times, years, calendars ----------------------------------------

TEST_F(ParseDate, ClockTimes) {
  expect_all({
      {"5 Jan 2026 7 GMT", kJan5 + 7 * 3600},
      {"5 Jan 2026 1030pm GMT", kJan5 + 22 * 3600 + 1800},  // above 99: hours and minutes
      {"5 Jan 2026 1:30 p.m. GMT", kJan5 + 13 * 3600 + 1800},
      {"5 Jan 2026 12:00 pm GMT", kJan5 + 24 * 3600},  // "12pm" is hour 24
      {"5 Jan 2026 12:00am GMT", kJan5 + 12 * 3600},   // and "12am" hour 12
      {"5 Jan 2026 23:59:61 GMT", kJan5 + 86401},
      {"5 Jan 2026 13:00 pm GMT", -1},
      {"5 Jan 2026 0:10 am GMT", -1},
      {"5 Jan 2026 24:00 GMT", -1},
      {"5 Jan 2026 10:60 GMT", -1},
      {"5 Jan 2026 23:59:62 GMT", -1},
      {"5 Jan 2026 4294967306:00 GMT", -1},  // a huge number never wraps into 10:00
      {"5 Jan 2026 10:00 11:00", -1},        // two times
      {"5 Jan 2026 6 Jan 2026", -1},         // two dates
  });
}

TEST_F(ParseDate, YearsAndCalendar) {
  expect_all({
      {"5 Jan 70 00:00 GMT", 4 * 86400},
      {"5 Jan 00 00:00 GMT", 947030400},
      {"5 Jan 38 00:00 GMT", 2146262400},
      {"19 Jan 2038 03:14:07 GMT", 2147483647},
      {"31 Dec 2038 23:59:59 GMT", 2177452799},
      {"5 Jan 1905 00:00 GMT", 1104883200},  // 1900-1969 move a century on
      {"29 Feb 2024 00:00 GMT", 1709164800},
      {"29 Feb 2000 00:00 GMT", 951782400},
      {"1 Jan 1970 00:00:00 GMT", 0},
      {"1 Jan 1970 -1 sec", 0},  // -1 would mean failure
      {"5 Jan 39 00:00 GMT", -1},
      {"5 Jan 2039 00:00 GMT", -1},
      {"5 Jan 150 00:00 GMT", -1},
      {"29 Feb 2023 00:00 GMT", -1},
      {"31 Apr 2026 00:00 GMT", -1},
      {"0 Jan 2026 00:00 GMT", -1},
      {"1 Jan 1970 00:00:00 +0100", -1},
  });
}

// Forms without a year take it from now, counted from 1900: they work for a
// now in the 1990s and fail from 2000 on.
TEST_F(ParseDate, LooseDatesAndDefaults) {
  expect_all({
      {"12/25/99", kXmas1999},
      {"1999/12/25", kXmas1999},
      {"12/25/99 10:00pm", kXmas1999 + 22 * 3600},
      {"25 Dec 1999 +1 day", kXmas1999 + 86400},
      {"25/12/99", -1},
      {"12/25", -1},
      {"10:00 GMT", -1},
      {"", kJan5},  // nothing at all: the last local midnight
  });
  expect_all({{"12/25/99", kXmas1999 - 8 * 3600}}, kNow2026, -480);  // in the zone of now
  expect_all(
      {
          {"12/25", kXmas1999},
          {"Dec 25", kXmas1999},
          {"25 Dec", kXmas1999},
          {"Dec 25, 2001", 1009238400},
          {"Dec 25 1999", -1},  // "1999" is read as the clock time 19:99
          {"10:00 GMT", kNow1999 - 2 * 3600},
          {"", kNow1999 - 12 * 3600},
          {"(only a comment)", kNow1999 - 12 * 3600},
      },
      kNow1999);
}

TEST_F(ParseDate, RelativeItems) {
  expect_all({
      {"+3 days", kNow2026 + 259200},
      {"3 days", kNow2026 + 259200},
      {"-2 hours", kNow2026 - 7200},
      {"1 week 2 days", kNow2026 + 777600},
      // A month counted from 1900 fails from 2000 on; what is added then
      // is -1 - now plus the hour correction ((10 + 1) - 0) hours.
      {"+1 month", 39599},
  });
  expect_all({{"+1 month", kNow1999 + 30 * 86400}, {"-1 year", kNow1999 - 365 * 86400}}, kNow1999);
}

// With a zone of its own the text ignores daylight time; without one it
// takes the zone of now and the local clock's daylight time at that date.
TEST(ParseDateDst, DaylightTimeOfTheLocalClock) {
  LocalZone ny("EST5EDT,M3.2.0,M11.1.0");
  const time_t jul15 = 1784073600;  // 2026-07-15 00:00 UTC
  const time_t jan15 = kJan5 + 10 * 86400;
  expect_all(
      {
          {"15 Jul 2026 12:00", jul15 + 16 * 3600},
          {"15 Jan 2026 12:00", jan15 + 17 * 3600},
          {"15 Jul 2026 12:00 EST", jul15 + 17 * 3600},
          {"", kJan5 + 5 * 3600},  // midnight in New York
      },
      kNow2026, 300);
}

TEST_F(ParseDate, NullArguments) {
  TIMEINFO now{kNow2026, 0, 0};
  EXPECT_EQ(parsedate(nullptr, &now), -1);

  const time_t before = std::time(nullptr);
  const time_t got = parsedate("+1 day", nullptr);
  const time_t after = std::time(nullptr);
  EXPECT_GE(got, before + 86400);
  EXPECT_LE(got, after + 86400);
}

// ---- hostile texts ------------------------------------------------------------

TEST_F(ParseDate, EveryPrefixStaysInBounds) {
  const std::string text = "Mon, (c\\) (d)) 05 Jan 2026 10:00:00 GMT+0800 e.s.t. p.m. +3 days";
  for (std::size_t n = 0; n <= text.size(); ++n) parse(std::string_view(text).substr(0, n));
  for (const char* end : {"(", "(\\", "a.", "Mon,", "10:", "12/"}) EXPECT_EQ(parse(end), -1) << end;
  EXPECT_EQ(parse("+"), kJan5);  // a lone sign is dropped: nothing is left
  EXPECT_EQ(parse("-"), kJan5);
}

TEST_F(ParseDate, MegabyteTexts) {
  constexpr std::size_t kMiB = std::size_t{1} << 20;
  EXPECT_EQ(parse(std::string(kMiB, 'a')), -1);  // one word, cut to 19 letters: a zone alone
  EXPECT_EQ(parse(std::string(kMiB, '9')), -1);
  EXPECT_EQ(parse(std::string(kMiB, '(')), -1);
  EXPECT_EQ(parse(std::string(kMiB, '-')), kJan5);  // signs without digits are dropped
  EXPECT_EQ(parse("Mon, 05 Jan 2026 10:00:00 +0800 (" + std::string(kMiB, 'x') + ")"), kJan5 + 2 * 3600);
  const std::string nested = std::string(100000, '(') + std::string(100000, ')');
  EXPECT_EQ(parse(nested + " Mon, 05 Jan 2026 10:00:00 +0800 " + nested), kJan5 + 2 * 3600);

  std::string days;
  for (int i = 0; i < 100000; ++i) days += "1 day ";
  EXPECT_EQ(parse(days), kNow2026 + time_t{100000} * 86400);

  // Sums far beyond 64 bits wrap instead of overflowing.
  std::string weeks;
  while (weeks.size() < kMiB) weeks += "-2147483647 weeks +2147483647 years ";
  parse(weeks);
  std::string dates;
  while (dates.size() < kMiB) dates += "5 Jan 2026 ";
  EXPECT_EQ(parse(dates), -1);
}

// ---- GetTimeInfo --------------------------------------------------------------

TEST(DateTimeInfo, ZoneFromTheTwoClocks) {
  const struct {
    const char* tz;
    time_t t;
    long west;
  } cases[] = {
      {"UTC0", kNow2026, 0},
      {"JST-9", kNow2026, -540},
      {"IST-5:30", kNow2026, -330},
      {"EST5EDT,M3.2.0,M11.1.0", 1784073600, 240},  // July: daylight time
      {"NZST-12", 1767186000, -720},                 // 2025-12-31 13:00 UTC is New Year in the zone
      {"HST10", 1767243600, 600},                    // 2026-01-01 05:00 UTC is still 2025 there
  };
  for (const auto& c : cases) {
    LocalZone zone(c.tz);
    long west = 12345;
    ASSERT_TRUE(zone_minutes_west(c.t, &west)) << c.tz;
    EXPECT_EQ(west, c.west) << c.tz;
  }
}

TEST(DateTimeInfo, FillsNowAndKeepsTheZoneForAnHour) {
  EXPECT_EQ(GetTimeInfo(nullptr), -1);
  TIMEINFO first{0, 7, 7};
  const time_t before = std::time(nullptr);
  ASSERT_EQ(GetTimeInfo(&first), 0);
  EXPECT_GE(first.time, before);
  EXPECT_LE(first.time, std::time(nullptr));
  EXPECT_EQ(first.usec, 0);

  // A zone change within the hour is not seen yet.
  LocalZone zone(first.tzone == -540 ? "UTC0" : "JST-9");
  TIMEINFO second{0, 7, 7};
  ASSERT_EQ(GetTimeInfo(&second), 0);
  EXPECT_EQ(second.tzone, first.tzone);
}

// ---- probe for the comparison with Python's email package ---------------------

// Not a test of its own: with TARN_DATE_PROBE_IN and TARN_DATE_PROBE_OUT
// set, parses each line of the input file (now 2026-01-05 10:00 UTC, zone 0)
// and writes one result per line.  tests/sh_date_diff.sh drives it.
TEST(DateProbe, ParseLinesOfAFile) {
  const char* in_path = std::getenv("TARN_DATE_PROBE_IN");
  const char* out_path = std::getenv("TARN_DATE_PROBE_OUT");
  if (in_path == nullptr || out_path == nullptr) GTEST_SKIP() << "no probe files named";
  std::ifstream in(in_path, std::ios::binary);
  std::ofstream out(out_path, std::ios::binary);
  ASSERT_TRUE(in && out);
  std::string line;
  while (std::getline(in, line)) {
    TIMEINFO now{kNow2026, 0, 0};
    out << static_cast<long long>(parsedate(line.c_str(), &now)) << '\n';
  }
  ASSERT_TRUE(out.good());
}

}  // namespace
