// mtm.cpp - time formatting of the platform layer: a moment as text in the
// process's local zone or in a zone a user chose.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "tarnplat.h"

namespace {

// strftime never cuts: it gives 0 when the text does not fit.  The text is
// then made in a growing scratch buffer and cut to the caller's size, as
// every bounded copy of the platform is.  A format whose text stays empty
// even in a megabyte ("", "%p" in some locales) gives "".
void format_cut(char* dst, size_t nz, const char* fmt, const struct tm& tm) {
  if (*fmt == '\0' || std::strftime(dst, nz, fmt, &tm) != 0) {
    if (*fmt == '\0') *dst = '\0';
    return;
  }
  constexpr size_t kScratchMax = size_t{1} << 20;
  for (size_t size = nz < 256 ? 256 : nz * 2; size <= kScratchMax; size *= 2) {
    std::string scratch(size, '\0');
    const size_t n = std::strftime(scratch.data(), size, fmt, &tm);
    if (n != 0) {
      const size_t keep = n < nz - 1 ? n : nz - 1;
      std::memcpy(dst, scratch.data(), keep);
      dst[keep] = '\0';
      return;
    }
  }
  *dst = '\0';
}

bool is_ascii_digit(char c) { return c >= '0' && c <= '9'; }

bool starts_with_nocase(std::string_view s, std::string_view prefix) {
  if (s.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    char c = s[i];
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    if (c != prefix[i]) return false;
  }
  return true;
}

// A zone written as an offset east of UTC, in minutes: "+0800", "-05:30",
// "+8", "GMT+8", "UTC-03:30"; "GMT" or "UTC" alone is 0.  Empty for
// anything else (a zone name).
std::optional<long> offset_minutes(std::string_view tz) {
  if (starts_with_nocase(tz, "GMT") || starts_with_nocase(tz, "UTC")) {
    tz.remove_prefix(3);
    if (tz.empty()) return 0;
  }
  if (tz.size() < 2 || (tz[0] != '+' && tz[0] != '-')) return std::nullopt;
  const long sign = tz[0] == '-' ? -1 : 1;
  tz.remove_prefix(1);

  size_t digits = 0;
  while (digits < tz.size() && is_ascii_digit(tz[digits])) ++digits;
  long hours = 0;
  long minutes = 0;
  auto number = [](std::string_view d) {
    long v = 0;
    for (char c : d) v = v * 10 + (c - '0');
    return v;
  };
  if (digits == tz.size() && (digits == 1 || digits == 2)) {  // "+8", "+08"
    hours = number(tz);
  } else if (digits == tz.size() && (digits == 3 || digits == 4)) {  // "+800", "+0800"
    hours = number(tz.substr(0, digits - 2));
    minutes = number(tz.substr(digits - 2));
  } else if ((digits == 1 || digits == 2) && tz.size() == digits + 3 && tz[digits] == ':' &&
             is_ascii_digit(tz[digits + 1]) && is_ascii_digit(tz[digits + 2])) {  // "+8:00", "+08:00"
    hours = number(tz.substr(0, digits));
    minutes = number(tz.substr(digits + 1));
  } else {
    return std::nullopt;
  }
  if (hours > 14 || minutes > 59) return std::nullopt;
  return sign * (hours * 60 + minutes);
}

// Zone names handed to the C library stay names: no paths, no climbing out
// of the zone directory, only the characters zone names and POSIX rules
// use.
bool is_plain_zone_name(std::string_view tz) {
  if (tz.empty() || tz.size() > 64 || tz[0] == '/' || tz[0] == ':' || tz.find("..") != std::string_view::npos)
    return false;
  for (char c : tz) {
    const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || is_ascii_digit(c) || c == '/' ||
                    c == '_' || c == '-' || c == '+' || c == ',' || c == '.' || c == '<' || c == '>';
    if (!ok) return false;
  }
  return true;
}

// Runs the C library's local time under another TZ for the length of one
// formatting, then puts the process's own zone back.
class ZoneSwitch {
 public:
  explicit ZoneSwitch(const char* tz) {
    const char* old = std::getenv("TZ");
    if (old != nullptr) saved_ = old;
    had_ = old != nullptr;
    setenv("TZ", tz, 1);
    tzset();
  }
  ~ZoneSwitch() {
    if (had_)
      setenv("TZ", saved_.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }
  ZoneSwitch(const ZoneSwitch&) = delete;
  ZoneSwitch& operator=(const ZoneSwitch&) = delete;

 private:
  std::string saved_;
  bool had_ = false;
};

bool bad_args(char* buf, size_t nz, const char* fmt) {
  if (buf == nullptr || nz == 0) return true;
  *buf = '\0';
  return fmt == nullptr;
}

}  // namespace

extern "C" {

TARNPLAT_API char* MTM_ToStr2(char* pszBuf, size_t nzBuf, const char* pszFormat, const time_t* pnTime) {
  if (bad_args(pszBuf, nzBuf, pszFormat)) return nullptr;
  const time_t t = pnTime != nullptr ? *pnTime : std::time(nullptr);
  tzset();
  struct tm tm {};
  if (localtime_r(&t, &tm) == nullptr) return nullptr;
  format_cut(pszBuf, nzBuf, pszFormat, tm);
  return pszBuf;
}

TARNPLAT_API char* MTM_UTC2LocalStr_s(char* pszBuf, size_t nzBuf, const char* pszFormat, time_t nTime,
                                      const char* pszTimezone) {
  if (bad_args(pszBuf, nzBuf, pszFormat)) return nullptr;
  const std::string_view tz = pszTimezone != nullptr ? pszTimezone : "";
  if (tz.empty()) return MTM_ToStr2(pszBuf, nzBuf, pszFormat, &nTime);

  if (const std::optional<long> east = offset_minutes(tz)) {
    constexpr time_t kMargin = 24 * 60 * 60;  // more than any offset
    if (nTime > std::numeric_limits<time_t>::max() - kMargin || nTime < std::numeric_limits<time_t>::min() + kMargin)
      return nullptr;
    const time_t shifted = nTime + *east * 60;
    struct tm tm {};
    if (gmtime_r(&shifted, &tm) == nullptr) return nullptr;
    // %z and %Z show the chosen offset: "+0800" and "GMT+08:00".
    char label[32];
    const long a = *east < 0 ? -*east : *east;
    if (*east == 0)
      std::strcpy(label, "GMT");
    else
      std::snprintf(label, sizeof label, "GMT%c%02d:%02d", *east < 0 ? '-' : '+', static_cast<int>(a / 60), static_cast<int>(a % 60));
    tm.tm_gmtoff = *east * 60;
    tm.tm_zone = label;
    format_cut(pszBuf, nzBuf, pszFormat, tm);
    return pszBuf;
  }

  if (!is_plain_zone_name(tz)) return MTM_ToStr2(pszBuf, nzBuf, pszFormat, &nTime);
  const std::string name(tz);
  ZoneSwitch zone(name.c_str());
  struct tm tm {};
  if (localtime_r(&nTime, &tm) == nullptr) return nullptr;
  format_cut(pszBuf, nzBuf, pszFormat, tm);  // before the switch back: tm_zone points into its data
  return pszBuf;
}

}  // extern "C"
