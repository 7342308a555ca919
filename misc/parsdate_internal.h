// parsdate_internal.h - the date parser's word tables and token kinds, for
// the parser itself and for the tests.
#ifndef TARN_PARSDATE_INTERNAL_H
#define TARN_PARSDATE_INTERNAL_H

#include <cstddef>
#include <ctime>
#include <span>
#include <string_view>

namespace tarn_date {

// Token kinds the lexer hands to the grammar; single characters (":", "/",
// ",") are tokens by themselves.
constexpr int kDay = 257;        // day name
constexpr int kDayZone = 258;    // zone in daylight time
constexpr int kMeridian = 259;   // "am" / "pm"
constexpr int kMonth = 260;      // month name
constexpr int kMonthUnit = 261;  // relative unit counted in months
constexpr int kSecUnit = 262;    // relative unit counted in seconds
constexpr int kSNumber = 263;    // number with a sign
constexpr int kUNumber = 264;    // number without a sign
constexpr int kZone = 265;       // zone in standard time

enum MERIDIAN : int { MERam = 0, MERpm = 1, MER24 = 2 };
enum DSTMODE : int { DSTon = 0, DSToff = 1, DSTmaybe = 2 };

// One word the lexer knows: lower-case name, token kind, value (month
// number, seconds or months of a unit, minutes west of a zone).
struct TABLE {
  const char* name;
  int type;
  long value;
};

std::span<const TABLE> month_day_table();
std::span<const TABLE> units_table();
std::span<const TABLE> timezone_table();

// What the lexer makes of one word (letters and dots, already in lower case
// and at most 19 bytes long): its token kind, and its value in *value.
int lookup_word(std::string_view word, long* value);

// The local zone at t in minutes west of UTC, as GetTimeInfo works it out
// (from the broken-down local and UTC clocks); false when either clock
// cannot be broken down.
bool zone_minutes_west(time_t t, long* minutes);

}  // namespace tarn_date

#endif
