%{
/*
 * parsdate.y - free-form dates to seconds since the epoch.
 *
 * A small LALR grammar over a hand-written lexer.  The text may be an RFC
 * 822 Date value or something looser ("12/25/99 10:00pm", "3 Jan 10:00
 * EST", "+3 days"); whatever it leaves out (year, month, day, zone) comes
 * from the caller's notion of now.  The parse state lives in globals that
 * every parsedate call resets, so the parser is not reentrant; the engine
 * runs one message at a time anyway.
 *
 * Some results look odd and are kept on purpose, because stored lists were
 * sorted by them: the default year is counted from 1900, so a text with a
 * time but no year fails from 2000 on; "12pm" is hour 24 and "12am" hour
 * 12; unknown words count as a zone of UTC; a zone number's minutes above
 * 59 fail the whole text.
 */
#include "tarnmail/date.h"

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "parsdate_internal.h"

using namespace tarn_date;

namespace {

// Parser state: reset by every parsedate call, filled by the grammar.
const char* yyInput;     // next byte the lexer reads
DSTMODE yyDSTmode;
int yyHaveDate;          // date items seen
int yyHaveRel;           // a relative item was seen
int yyHaveTime;          // time items seen
std::int64_t yyTimezone; // minutes west of UTC
std::int64_t yyDay;
std::int64_t yyHour;
std::int64_t yyMinutes;
std::int64_t yyMonth;
std::int64_t yySeconds;
std::int64_t yyYear;
MERIDIAN yyMeridian;
std::int64_t yyRelMonth;
std::int64_t yyRelSeconds;

// Sums and products in two's complement: a text of a million relative
// items, or a caller's absurd zone, may run past 64 bits without the
// arithmetic becoming undefined.
constexpr std::int64_t wrap_add(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
constexpr std::int64_t wrap_sub(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}
constexpr std::int64_t wrap_mul(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}

// Counters stop at INT_MAX; anything above 1 fails the parse anyway.
void count(int& n) {
  if (n < INT_MAX) ++n;
}

// A signed number as a zone in minutes west: "+0800" is 480 minutes east,
// "-0330" 210 minutes west.  Empty when it cannot be a zone.
std::optional<std::int64_t> numeric_zone(std::int64_t s) {
  const std::int64_t a = s < 0 ? -s : s;
  if (a > 9999 || a % 100 > 59) return std::nullopt;
  const std::int64_t minutes = (a / 100) * 60 + a % 100;
  return s < 0 ? minutes : -minutes;
}

}  // namespace

int date_lex();
void date_error(const char*) {}
%}

%code requires {
#include <cstdint>
}

%define api.prefix {date_}
%define api.value.type {std::int64_t}

/* Six shift/reduce conflicts, all settled by shifting: a month name after a
 * number makes a date, not a lone hour ("5 Jan"); a number after
 * number-and-month is that date's year ("5 Jan 26"); a signed number after
 * a time, after "N:N" or "N:N:N", or after a zone name is read as a zone,
 * never as the start of a relative item. */
%expect 6

%token tDAY 257 tDAYZONE 258 tMERIDIAN 259 tMONTH 260 tMONTH_UNIT 261
%token tSEC_UNIT 262 tSNUMBER 263 tUNUMBER 264 tZONE 265

%%

spec	: %empty
	| spec item
	;

item	: time { count(yyHaveTime); }
	| time zone { count(yyHaveTime); yyTimezone = $2; }
	| date { count(yyHaveDate); }
	| rel { yyHaveRel = 1; }
	;

time	: tUNUMBER o_merid {
	    if ($1 > 99) {
		yyHour = $1 / 100;
		yyMinutes = $1 % 100;
	    } else {
		yyHour = $1;
		yyMinutes = 0;
	    }
	    yySeconds = 0;
	    yyMeridian = static_cast<MERIDIAN>($2);
	}
	| tUNUMBER ':' tUNUMBER o_merid {
	    yyHour = $1;
	    yyMinutes = $3;
	    yySeconds = 0;
	    yyMeridian = static_cast<MERIDIAN>($4);
	}
	| tUNUMBER ':' tUNUMBER numzone {
	    yyHour = $1;
	    yyMinutes = $3;
	    yyTimezone = $4;
	    yyMeridian = MER24;
	    yyDSTmode = DSToff;
	}
	| tUNUMBER ':' tUNUMBER ':' tUNUMBER o_merid {
	    yyHour = $1;
	    yyMinutes = $3;
	    yySeconds = $5;
	    yyMeridian = static_cast<MERIDIAN>($6);
	}
	| tUNUMBER ':' tUNUMBER ':' tUNUMBER numzone {
	    yyHour = $1;
	    yyMinutes = $3;
	    yySeconds = $5;
	    yyTimezone = $6;
	    yyMeridian = MER24;
	    yyDSTmode = DSToff;
	}
	;

zone	: tZONE {
	    $$ = $1;
	    yyDSTmode = DSToff;
	}
	| tDAYZONE {
	    $$ = $1;
	    yyDSTmode = DSTon;
	}
	| tZONE numzone {
	    /* Only a UTC name may carry an offset ("GMT+0800"). */
	    if ($1 != 0) YYABORT;
	    $$ = $2;
	    yyDSTmode = DSToff;
	}
	| numzone {
	    $$ = $1;
	    yyDSTmode = DSToff;
	}
	;

numzone	: tSNUMBER {
	    const std::optional<std::int64_t> z = numeric_zone($1);
	    if (!z) YYABORT;
	    $$ = *z;
	}
	;

date	: tUNUMBER '/' tUNUMBER {
	    yyMonth = $1;
	    yyDay = $3;
	}
	| tUNUMBER '/' tUNUMBER '/' tUNUMBER {
	    if ($1 > 100) {
		yyYear = $1;
		yyMonth = $3;
		yyDay = $5;
	    } else {
		yyMonth = $1;
		yyDay = $3;
		yyYear = $5;
	    }
	}
	| tMONTH tUNUMBER {
	    yyMonth = $1;
	    yyDay = $2;
	}
	| tMONTH tUNUMBER ',' tUNUMBER {
	    yyMonth = $1;
	    yyDay = $2;
	    yyYear = $4;
	}
	| tUNUMBER tMONTH {
	    yyDay = $1;
	    yyMonth = $2;
	}
	| tUNUMBER tMONTH tUNUMBER {
	    yyDay = $1;
	    yyMonth = $2;
	    yyYear = $3;
	}
	| tDAY ',' tUNUMBER tMONTH tUNUMBER {
	    yyDay = $3;
	    yyMonth = $4;
	    yyYear = $5;
	}
	;

rel	: tSNUMBER tSEC_UNIT { yyRelSeconds = wrap_add(yyRelSeconds, $1 * $2); }
	| tUNUMBER tSEC_UNIT { yyRelSeconds = wrap_add(yyRelSeconds, $1 * $2); }
	| tSNUMBER tMONTH_UNIT { yyRelMonth = wrap_add(yyRelMonth, $1 * $2); }
	| tUNUMBER tMONTH_UNIT { yyRelMonth = wrap_add(yyRelMonth, $1 * $2); }
	;

o_merid	: %empty { $$ = MER24; }
	| tMERIDIAN { $$ = $1; }
	;

%%

static_assert(tDAY == kDay && tDAYZONE == kDayZone && tMERIDIAN == kMeridian && tMONTH == kMonth &&
              tMONTH_UNIT == kMonthUnit && tSEC_UNIT == kSecUnit && tSNUMBER == kSNumber &&
              tUNUMBER == kUNumber && tZONE == kZone);

namespace {

constexpr std::array<TABLE, 19> MonthDayTable{{
    {"january", tMONTH, 1},     {"february", tMONTH, 2}, {"march", tMONTH, 3},    {"april", tMONTH, 4},
    {"may", tMONTH, 5},         {"june", tMONTH, 6},     {"july", tMONTH, 7},     {"august", tMONTH, 8},
    {"september", tMONTH, 9},   {"october", tMONTH, 10}, {"november", tMONTH, 11}, {"december", tMONTH, 12},
    {"sunday", tDAY, 0},        {"monday", tDAY, 0},     {"tuesday", tDAY, 0},    {"wednesday", tDAY, 0},
    {"thursday", tDAY, 0},      {"friday", tDAY, 0},     {"saturday", tDAY, 0},
}};

constexpr std::array<TABLE, 9> UnitsTable{{
    {"year", tMONTH_UNIT, 12}, {"month", tMONTH_UNIT, 1}, {"week", tSEC_UNIT, 7L * 24 * 60 * 60},
    {"day", tSEC_UNIT, 24L * 60 * 60}, {"hour", tSEC_UNIT, 60 * 60}, {"minute", tSEC_UNIT, 60},
    {"min", tSEC_UNIT, 60}, {"second", tSEC_UNIT, 1}, {"sec", tSEC_UNIT, 1},
}};

// Minutes west of UTC.  A daylight row names the same standard offset as
// its partner; the conversion takes daylight time one hour earlier.
constexpr std::array<TABLE, 48> TimezoneTable{{
    {"gmt", tZONE, 0},       {"ut", tZONE, 0},        {"utc", tZONE, 0},       {"cut", tZONE, 0},
    {"z", tZONE, 0},         {"wet", tZONE, 0},       {"bst", tDAYZONE, 0},    {"nst", tZONE, 210},
    {"ndt", tDAYZONE, 210},  {"ast", tZONE, 240},     {"adt", tDAYZONE, 240},  {"est", tZONE, 300},
    {"edt", tDAYZONE, 300},  {"cst", tZONE, 360},     {"cdt", tDAYZONE, 360},  {"mst", tZONE, 420},
    {"mdt", tDAYZONE, 420},  {"pst", tZONE, 480},     {"pdt", tDAYZONE, 480},  {"yst", tZONE, 540},
    {"ydt", tDAYZONE, 540},  {"akst", tZONE, 540},    {"akdt", tDAYZONE, 540}, {"hst", tZONE, 600},
    {"hast", tZONE, 600},    {"hadt", tDAYZONE, 600}, {"ces", tDAYZONE, -60},  {"cest", tDAYZONE, -60},
    {"mezt", tDAYZONE, -60}, {"mez", tZONE, -60},     {"cet", tZONE, -60},     {"met", tZONE, -60},
    {"eet", tZONE, -120},    {"msk", tZONE, -180},    {"msd", tDAYZONE, -180}, {"wast", tZONE, -480},
    {"wadt", tDAYZONE, -480}, {"hkt", tZONE, -480},   {"cct", tZONE, -480},    {"jst", tZONE, -540},
    {"kst", tZONE, -540},    {"kdt", tZONE, -540},    {"cast", tZONE, -570},   {"cadt", tDAYZONE, -570},
    {"east", tZONE, -600},   {"eadt", tDAYZONE, -600}, {"nzst", tZONE, -720},  {"nzdt", tDAYZONE, -720},
}};

// The lexer keeps at most this many bytes of a word; the rest is read and
// dropped, so a megabyte of letters costs time but no memory.
constexpr std::size_t kWordMax = 19;

// Leap years of the representable range, and the month lengths.
constexpr std::array<int, 17> LeapYears{1972, 1976, 1980, 1984, 1988, 1992, 1996, 2000, 2004,
                                        2008, 2012, 2016, 2020, 2024, 2028, 2032, 2036};
constexpr std::array<int, 13> DaysNormal{0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
constexpr std::array<int, 13> DaysLeap{0, 31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
constexpr std::int64_t kEpochYear = 1970;
constexpr std::int64_t kEndYear = 2038;

// ASCII classes as the C locale has them; bytes of 0x80 and up are none.
constexpr bool is_space(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
constexpr bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }
constexpr bool is_upper(unsigned char c) { return c >= 'A' && c <= 'Z'; }
constexpr bool is_alpha(unsigned char c) { return is_upper(c) || (c >= 'a' && c <= 'z'); }

int found(const TABLE& t) {
  date_lval = t.value;
  return t.type;
}

const TABLE* find_exact(std::span<const TABLE> table, std::string_view word) {
  for (const TABLE& t : table)
    if (word == t.name) return &t;
  return nullptr;
}

// Month and day names may be cut to three letters, with or without a dot:
// "sep." and "mon" name September and Monday.
const TABLE* find_month_day(std::string_view word) {
  if (word.size() == 3 || (word.size() == 4 && word[3] == '.')) {
    for (const TABLE& t : MonthDayTable)
      if (std::string_view(t.name).substr(0, 3) == word.substr(0, 3)) return &t;
    return nullptr;
  }
  return find_exact(MonthDayTable, word);
}

// Token kind of a lower-case word of at most kWordMax bytes, its value in
// date_lval.
int LookupWord(std::string_view word) {
  if (const TABLE* t = find_month_day(word)) return found(*t);
  if (const TABLE* t = find_exact(TimezoneTable, word)) return found(*t);
  if (const TABLE* t = find_exact(UnitsTable, word)) return found(*t);

  // Plurals of units: "days", "hours".
  if (word.size() >= 2 && word.back() == 's')
    if (const TABLE* t = find_exact(UnitsTable, word.substr(0, word.size() - 1))) return found(*t);

  // Without dots: "a.m.", "p.m.", "e.s.t.".
  std::array<char, kWordMax> bare{};
  std::size_t n = 0;
  for (char c : word)
    if (c != '.' && n < bare.size()) bare[n++] = c;
  const std::string_view stripped(bare.data(), n);
  if (stripped == "am") {
    date_lval = MERam;
    return tMERIDIAN;
  }
  if (stripped == "pm") {
    date_lval = MERpm;
    return tMERIDIAN;
  }
  if (n != word.size())
    if (const TABLE* t = find_exact(TimezoneTable, stripped)) return found(*t);

  // Anything else reads as a zone of UTC, so that a stray or unknown zone
  // name does not cost the whole date.
  date_lval = 0;
  return tZONE;
}

// Skips a comment whose "(" yyInput points at.  Comments nest, and a
// backslash takes the next byte as it is.  False (yyInput left on the
// offending byte) at the end of the text, at a carriage return and at a
// byte of 0x80 or more: such a comment is no part of a well-formed date.
bool skip_comment() {
  int nesting = 1;
  ++yyInput;
  for (;;) {
    const auto c = static_cast<unsigned char>(*yyInput);
    if (c == '\0' || c == '\r' || c >= 0x80) return false;
    ++yyInput;
    if (c == '\\') {
      if (*yyInput == '\0') return false;
      ++yyInput;
    } else if (c == '(') {
      ++nesting;
    } else if (c == ')' && --nesting == 0) {
      return true;
    }
  }
}

// Digits from yyInput on; the value stops growing at INT_MAX, which no
// field accepts, so an absurdly long number cannot wrap into a valid one.
std::int64_t read_digits() {
  std::int64_t v = 0;
  for (; is_digit(static_cast<unsigned char>(*yyInput)); ++yyInput) {
    v = v * 10 + (*yyInput - '0');
    if (v > INT_MAX) v = INT_MAX;
  }
  return v;
}

int read_word() {
  std::array<char, kWordMax> buff{};
  std::size_t n = 0;
  for (;; ++yyInput) {
    const auto c = static_cast<unsigned char>(*yyInput);
    if (c != '.' && !is_alpha(c)) break;
    if (n < buff.size()) buff[n++] = static_cast<char>(is_upper(c) ? c - 'A' + 'a' : c);
  }
  return LookupWord(std::string_view(buff.data(), n));
}

// Broken-down local time; empty when the C library cannot represent it.
std::optional<struct tm> local_time(std::int64_t t) {
  const auto tt = static_cast<time_t>(t);
  struct tm tm {};
  if (localtime_r(&tt, &tm) == nullptr) return std::nullopt;
  return tm;
}

// Seconds into the day of a clock time; -1 when out of range.  With a
// meridian the hour runs 1-12 and "pm" adds 12, so "12pm" is hour 24 and
// "12am" hour 12.
std::int64_t ToSeconds(std::int64_t Hours, std::int64_t Minutes, std::int64_t Seconds, MERIDIAN Meridian) {
  if (Minutes < 0 || Minutes > 59 || Seconds < 0 || Seconds > 61) return -1;
  if (Meridian == MER24) {
    if (Hours < 0 || Hours > 23) return -1;
  } else {
    if (Hours < 1 || Hours > 12) return -1;
    if (Meridian == MERpm) Hours += 12;
  }
  return (Hours * 60 + Minutes) * 60 + Seconds;
}

bool is_leap(std::int64_t Year) {
  for (int y : LeapYears)
    if (y == Year) return true;
  return false;
}

// Seconds since the epoch of a date and clock time in the zone yyTimezone;
// -1 when the date or time is impossible or lies outside 1970-2038.  Two-
// digit years 00-38 are 2000-2038 and 70-99 are 1970-1999; any year from
// 1900 to 1969 moves a century on.
std::int64_t Convert(std::int64_t Month, std::int64_t Day, std::int64_t Year, std::int64_t Hours,
                     std::int64_t Minutes, std::int64_t Seconds, MERIDIAN Meridian, DSTMODE dst) {
  if (Year < 0) Year = -Year;
  if (Year < 100) Year += 1900;
  if (Year < kEpochYear) Year += 100;
  const auto& mp = is_leap(Year) ? DaysLeap : DaysNormal;
  if (Year < kEpochYear || Year > kEndYear || Month < 1 || Month > 12 || Day < 1 || Day > mp[Month])
    return -1;

  std::int64_t Julian = Day - 1 + (Year - kEpochYear) * 365;
  for (int y : LeapYears)
    if (y < Year) ++Julian;
  for (std::int64_t i = 1; i < Month; ++i) Julian += mp[i];
  Julian = wrap_add(Julian * 24 * 60 * 60, wrap_mul(yyTimezone, 60));

  const std::int64_t tod = ToSeconds(Hours, Minutes, Seconds, Meridian);
  if (tod < 0) return -1;
  Julian = wrap_add(Julian, tod);

  bool dst_now = dst == DSTon;
  if (dst == DSTmaybe) {
    const std::optional<struct tm> tm = local_time(Julian);
    dst_now = tm && tm->tm_isdst > 0;
  }
  return dst_now ? wrap_sub(Julian, 60 * 60) : Julian;
}

// Difference Future - Start in seconds, set right by the hours a change
// between standard and daylight time puts between them.
std::optional<std::int64_t> DSTcorrect(std::int64_t Start, std::int64_t Future) {
  const std::optional<struct tm> s = local_time(Start);
  const std::optional<struct tm> f = local_time(Future);
  if (!s || !f) return std::nullopt;
  const std::int64_t StartDay = (s->tm_hour + 1) % 24;
  const std::int64_t FutureDay = (f->tm_hour + 1) % 24;
  return wrap_add(wrap_sub(Future, Start), (StartDay - FutureDay) * 60 * 60);
}

// Seconds to add to Start to move it RelMonth months on, same day and
// clock time.  The year handed to Convert counts from 1900, as the parser's
// own default does, so from 2000 on Convert fails and the amount is
// meaningless; stored results depend on it.
std::optional<std::int64_t> RelativeMonth(std::int64_t Start, std::int64_t RelMonth) {
  if (RelMonth == 0) return 0;
  const std::optional<struct tm> tm = local_time(Start);
  if (!tm) return std::nullopt;
  const std::int64_t Month = wrap_add(12 * static_cast<std::int64_t>(tm->tm_year) + tm->tm_mon, RelMonth);
  const std::int64_t Future =
      Convert(Month % 12 + 1, tm->tm_mday, Month / 12, tm->tm_hour, tm->tm_min, tm->tm_sec, MER24, DSTmaybe);
  return DSTcorrect(Start, Future);
}

void reset_state(const TIMEINFO& now, const struct tm& tm) {
  yyYear = tm.tm_year;
  yyMonth = tm.tm_mon + 1;
  yyDay = tm.tm_mday;
  yyTimezone = now.tzone;
  yyDSTmode = DSTmaybe;
  yyHour = 0;
  yyMinutes = 0;
  yySeconds = 0;
  yyMeridian = MER24;
  yyRelSeconds = 0;
  yyRelMonth = 0;
  yyHaveDate = 0;
  yyHaveRel = 0;
  yyHaveTime = 0;
}

// The zone cache of GetTimeInfo: when it was last worked out, and to what.
time_t s_LastTime;
long s_LastTzone;

// Minutes west of UTC of the local zone at t.
std::optional<long> local_zone(time_t t) {
  struct tm local {};
  struct tm utc {};
  if (localtime_r(&t, &local) == nullptr || gmtime_r(&t, &utc) == nullptr) return std::nullopt;
  const long days = utc.tm_yday - local.tm_yday;  // across a year's end one of them is 364 or 365
  long hours = days >= 2 ? -24 : days <= -2 ? 24 : days * 24;
  hours += utc.tm_hour - local.tm_hour;
  return hours * 60 + (utc.tm_min - local.tm_min);
}

}  // namespace

// The lexer: one token from yyInput on, its value in date_lval.
int date_lex() {
  for (;;) {
    while (is_space(static_cast<unsigned char>(*yyInput))) ++yyInput;
    const auto c = static_cast<unsigned char>(*yyInput);

    if (c == '(') {
      if (!skip_comment()) return '?';  // no rule takes it: the parse fails
      continue;
    }
    if (is_digit(c) || c == '+' || c == '-') {
      int sign = 0;
      if (!is_digit(c)) {
        sign = c == '-' ? -1 : 1;
        ++yyInput;
        if (!is_digit(static_cast<unsigned char>(*yyInput))) continue;  // a lone sign is dropped
      }
      const std::int64_t v = read_digits();
      date_lval = sign < 0 ? -v : v;
      return sign != 0 ? tSNUMBER : tUNUMBER;
    }
    if (is_alpha(c)) return read_word();
    if (c == '\0') return 0;  // end of text; yyInput stays on the terminator
    ++yyInput;
    return c;
  }
}

namespace tarn_date {

std::span<const TABLE> month_day_table() { return MonthDayTable; }
std::span<const TABLE> units_table() { return UnitsTable; }
std::span<const TABLE> timezone_table() { return TimezoneTable; }

int lookup_word(std::string_view word, long* value) {
  const int type = LookupWord(word.substr(0, kWordMax));
  if (value != nullptr) *value = static_cast<long>(date_lval);
  return type;
}

bool zone_minutes_west(time_t t, long* minutes) {
  const std::optional<long> zone = local_zone(t);
  if (!zone) return false;
  *minutes = *zone;
  return true;
}

}  // namespace tarn_date

extern "C" {

TARNMAIL_API int GetTimeInfo(TIMEINFO* Now) {
  if (Now == nullptr) return -1;
  const time_t now = time(nullptr);
  if (s_LastTime == 0 || now - s_LastTime >= 60 * 60 || now < s_LastTime) {
    tzset();  // take up a TZ set since the last computation
    const std::optional<long> zone = local_zone(now);
    if (!zone) return -1;
    s_LastTzone = *zone;
    s_LastTime = now;
  }
  Now->time = now;
  Now->usec = 0;
  Now->tzone = s_LastTzone;
  return 0;
}

TARNMAIL_API time_t parsedate(const char* p, TIMEINFO* now) {
  TIMEINFO ti{};
  if (now == nullptr) {
    if (GetTimeInfo(&ti) != 0) return -1;
    now = &ti;
  }
  if (p == nullptr) return -1;
  const std::optional<struct tm> tm = local_time(now->time);
  if (!tm) return -1;

  yyInput = p;
  reset_state(*now, *tm);
  if (date_parse() != 0 || yyHaveTime > 1 || yyHaveDate > 1) return -1;

  std::int64_t Start;
  if (yyHaveDate != 0 || yyHaveTime != 0) {
    Start = Convert(yyMonth, yyDay, yyYear, yyHour, yyMinutes, yySeconds, yyMeridian, yyDSTmode);
    if (Start < 0) return -1;
  } else {
    Start = now->time;
    // A text with nothing in it means the last local midnight.
    if (yyHaveRel == 0) Start -= (tm->tm_hour * 60L + tm->tm_min) * 60L + tm->tm_sec;
  }

  Start = wrap_add(Start, yyRelSeconds);
  if (yyRelMonth != 0) {
    const std::optional<std::int64_t> delta = RelativeMonth(Start, yyRelMonth);
    if (!delta) return -1;
    Start = wrap_add(Start, *delta);
  }
  // -1 means failure, so a result of -1 is moved by a second.
  return Start == -1 ? 0 : static_cast<time_t>(Start);
}

}  // extern "C"
