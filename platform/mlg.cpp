// mlg.cpp - the platform's charset numbering: the table of charsets, names
// to MLG values and back, and language options.
//
// Values 1 to 14 are fixed by tarnplat.h.  The others, from MLG_EXTENDED
// up, cover what real mail declares beyond them; their numbers are this
// table's own.  Choices made here:
//  - Every Japanese name (ISO-2022-JP and its -1/-2/-3 revisions, EUC-JP,
//    Shift_JIS, CP932, ...) gives MLG_JAPANESE; the converters tell the
//    three forms apart by their bytes.  MLG_SJIS, MLG_EUCJP and
//    MLG_ISO2022JP are never returned by a name lookup.
//  - Labels are read the way mail readers read them: ISO-8859-1 as
//    windows-1252 (C1 bytes in "Latin-1" mail are nearly always Windows
//    quotes and dashes), ISO-8859-9 as windows-1254, TIS-620 and
//    ISO-8859-11 as windows-874, Big5 as CP950 with Big5-HKSCS for what
//    CP950 lacks, GB2312 and GBK as GB18030 (their superset), EUC-KR as
//    CP949.  A byte the Windows form leaves undefined falls back to the
//    ISO form, so nothing a label promises is lost.
//  - US-ASCII has its own value whose conversion is the identity.
//  - UTF-16 and UTF-32 (with and without a byte order) are known so that
//    length-bounded conversions can read them; unmarked "utf-16" text is
//    big-endian, as RFC 2781 has it (glibc would read it little-endian).
#include <cstring>
#include <string_view>

#include "mlg_internal.h"
#include "tarnplat.h"

namespace tarnplat {
namespace {

// Extended values, in table order.
enum : int {
  kUsAscii = MLG_EXTENDED,
  kWin1250, kWin1251, kWin1252, kWin1253, kWin1254, kWin1255, kWin1256, kWin1257, kWin1258,
  kKoi8R, kKoi8U,
  kIso8859_5, kIso8859_6, kIso8859_7, kIso8859_8, kIso8859_9, kIso8859_10, kIso8859_11,
  kIso8859_13, kIso8859_14, kIso8859_15, kIso8859_16,
  kTis620, kWin874, kIso2022Kr, kIso2022Cn, kHz, kEucTw,
  kCp437, kCp850, kCp852, kCp866, kMacintosh, kMacCyrillic,
  kUtf16, kUtf16Le, kUtf16Be, kUtf32, kUtf32Le, kUtf32Be,
  kViscii,
};

using F = Family;
using D = Decoder;

constexpr Charset kCharsets[] = {
    // value        MIME name         web name     iconv           fallback       family        decoder        unit
    {MLG_UTF8,      "utf-8",          nullptr,     nullptr,        nullptr,       F::kUtf8,     D::kIdentity,  1},
    {MLG_BIG5,      "big5",           nullptr,     "CP950",        "BIG5-HKSCS",  F::kBig5,     D::kIconv,     1},
    {MLG_GB2312,    "gb2312",         nullptr,     "GB18030",      nullptr,       F::kGb,       D::kIconv,     1},
    {MLG_JAPANESE,  "iso-2022-jp",    "Shift_JIS", nullptr,        nullptr,       F::kSjis,     D::kJapanese,  1},
    {MLG_EUCKR,     "euc-kr",         nullptr,     "CP949",        "EUC-KR",      F::kUhc,      D::kIconv,     1},
    {MLG_ISO8859_1, "iso-8859-1",     nullptr,     "CP1252",       "ISO-8859-1",  F::kSingle,   D::kIconv,     1},
    {MLG_ISO8859_2, "iso-8859-2",     nullptr,     "ISO-8859-2",   nullptr,       F::kSingle,   D::kIconv,     1},
    {MLG_ISO8859_3, "iso-8859-3",     nullptr,     "ISO-8859-3",   nullptr,       F::kSingle,   D::kIconv,     1},
    {MLG_ISO8859_4, "iso-8859-4",     nullptr,     "ISO-8859-4",   nullptr,       F::kSingle,   D::kIconv,     1},
    {MLG_SJIS,      "shift_jis",      "Shift_JIS", "CP932",        nullptr,       F::kSjis,     D::kIconv,     1},
    {MLG_UTF7,      "utf-7",          nullptr,     nullptr,        nullptr,       F::kSevenBit, D::kUtf7,      1},
    {MLG_EUCJP,     "euc-jp",         nullptr,     "EUC-JP-MS",    nullptr,       F::kEucJp,    D::kIconv,     1},
    {MLG_ISO2022JP, "iso-2022-jp",    nullptr,     nullptr,        nullptr,       F::kSevenBit, D::kJis,       1},
    {MLG_GB18030,   "gb18030",        nullptr,     "GB18030",      nullptr,       F::kGb,       D::kIconv,     1},
    {kUsAscii,      "us-ascii",       nullptr,     nullptr,        nullptr,       F::kSingle,   D::kIdentity,  1},
    {kWin1250,      "windows-1250",   nullptr,     "CP1250",       nullptr,       F::kSingle,   D::kIconv,     1},
    {kWin1251,      "windows-1251",   nullptr,     "CP1251",       nullptr,       F::kSingle,   D::kIconv,     1},
    {kWin1252,      "windows-1252",   nullptr,     "CP1252",       "ISO-8859-1",  F::kSingle,   D::kIconv,     1},
    {kWin1253,      "windows-1253",   nullptr,     "CP1253",       nullptr,       F::kSingle,   D::kIconv,     1},
    {kWin1254,      "windows-1254",   nullptr,     "CP1254",       "ISO-8859-9",  F::kSingle,   D::kIconv,     1},
    {kWin1255,      "windows-1255",   nullptr,     "CP1255",       nullptr,       F::kSingle,   D::kIconv,     1},
    {kWin1256,      "windows-1256",   nullptr,     "CP1256",       nullptr,       F::kSingle,   D::kIconv,     1},
    {kWin1257,      "windows-1257",   nullptr,     "CP1257",       nullptr,       F::kSingle,   D::kIconv,     1},
    {kWin1258,      "windows-1258",   nullptr,     "CP1258",       nullptr,       F::kSingle,   D::kIconv,     1},
    {kKoi8R,        "koi8-r",         nullptr,     "KOI8-R",       nullptr,       F::kSingle,   D::kIconv,     1},
    {kKoi8U,        "koi8-u",         nullptr,     "KOI8-U",       nullptr,       F::kSingle,   D::kIconv,     1},
    {kIso8859_5,    "iso-8859-5",     nullptr,     "ISO-8859-5",   nullptr,       F::kSingle,   D::kIconv,     1},
    {kIso8859_6,    "iso-8859-6",     nullptr,     "ISO-8859-6",   nullptr,       F::kSingle,   D::kIconv,     1},
    {kIso8859_7,    "iso-8859-7",     nullptr,     "ISO-8859-7",   nullptr,       F::kSingle,   D::kIconv,     1},
    {kIso8859_8,    "iso-8859-8",     nullptr,     "ISO-8859-8",   nullptr,       F::kSingle,   D::kIconv,     1},
    {kIso8859_9,    "iso-8859-9",     nullptr,     "CP1254",       "ISO-8859-9",  F::kSingle,   D::kIconv,     1},
    {kIso8859_10,   "iso-8859-10",    nullptr,     "ISO-8859-10",  nullptr,       F::kSingle,   D::kIconv,     1},
    {kIso8859_11,   "iso-8859-11",    nullptr,     "CP874",        "ISO-8859-11", F::kSingle,   D::kIconv,     1},
    {kIso8859_13,   "iso-8859-13",    nullptr,     "ISO-8859-13",  nullptr,       F::kSingle,   D::kIconv,     1},
    {kIso8859_14,   "iso-8859-14",    nullptr,     "ISO-8859-14",  nullptr,       F::kSingle,   D::kIconv,     1},
    {kIso8859_15,   "iso-8859-15",    nullptr,     "ISO-8859-15",  nullptr,       F::kSingle,   D::kIconv,     1},
    {kIso8859_16,   "iso-8859-16",    nullptr,     "ISO-8859-16",  nullptr,       F::kSingle,   D::kIconv,     1},
    {kTis620,       "tis-620",        nullptr,     "CP874",        "TIS-620",     F::kSingle,   D::kIconv,     1},
    {kWin874,       "windows-874",    nullptr,     "CP874",        "TIS-620",     F::kSingle,   D::kIconv,     1},
    {kIso2022Kr,    "iso-2022-kr",    nullptr,     "ISO-2022-KR",  nullptr,       F::kSevenBit, D::kIconv,     1},
    {kIso2022Cn,    "iso-2022-cn",    nullptr,     "ISO-2022-CN",  nullptr,       F::kSevenBit, D::kIconv,     1},
    {kHz,           "hz-gb-2312",     nullptr,     "GB18030",      nullptr,       F::kSevenBit, D::kHz,        1},
    {kEucTw,        "euc-tw",         nullptr,     "EUC-TW",       nullptr,       F::kEucTw,    D::kIconv,     1},
    {kCp437,        "ibm437",         nullptr,     "CP437",        nullptr,       F::kSingle,   D::kIconv,     1},
    {kCp850,        "ibm850",         nullptr,     "CP850",        nullptr,       F::kSingle,   D::kIconv,     1},
    {kCp852,        "ibm852",         nullptr,     "CP852",        nullptr,       F::kSingle,   D::kIconv,     1},
    {kCp866,        "ibm866",         nullptr,     "CP866",        nullptr,       F::kSingle,   D::kIconv,     1},
    {kMacintosh,    "macintosh",      nullptr,     "MACINTOSH",    nullptr,       F::kSingle,   D::kIconv,     1},
    {kMacCyrillic,  "x-mac-cyrillic", nullptr,     "MAC-CYRILLIC", nullptr,       F::kSingle,   D::kIconv,     1},
    {kUtf16,        "utf-16",         nullptr,     "UTF-16BE",     nullptr,       F::kWide,     D::kByteOrder, 2},
    {kUtf16Le,      "utf-16le",       nullptr,     "UTF-16LE",     nullptr,       F::kWide,     D::kIconv,     2},
    {kUtf16Be,      "utf-16be",       nullptr,     "UTF-16BE",     nullptr,       F::kWide,     D::kIconv,     2},
    {kUtf32,        "utf-32",         nullptr,     "UTF-32BE",     nullptr,       F::kWide,     D::kByteOrder, 4},
    {kUtf32Le,      "utf-32le",       nullptr,     "UTF-32LE",     nullptr,       F::kWide,     D::kIconv,     4},
    {kUtf32Be,      "utf-32be",       nullptr,     "UTF-32BE",     nullptr,       F::kWide,     D::kIconv,     4},
    {kViscii,       "viscii",         nullptr,     "VISCII",       nullptr,       F::kSingle,   D::kIconv,     1},
};

struct Alias {
  std::string_view name;
  int value;
};

// Names compare without regard to case, and "_" matches "-" (so
// "shift_jis", "ks_c_5601-1987" and "iso_8859-1" need no second spelling).
constexpr Alias kAliases[] = {
    {"utf-8", MLG_UTF8}, {"utf8", MLG_UTF8}, {"unicode-1-1-utf-8", MLG_UTF8},
    {"unicode-2-0-utf-8", MLG_UTF8}, {"x-unicode20utf8", MLG_UTF8},

    {"big5", MLG_BIG5}, {"big-5", MLG_BIG5}, {"big5-hkscs", MLG_BIG5}, {"cn-big5", MLG_BIG5},
    {"x-x-big5", MLG_BIG5}, {"x-big5", MLG_BIG5}, {"csbig5", MLG_BIG5}, {"cp950", MLG_BIG5},
    {"ms950", MLG_BIG5}, {"windows-950", MLG_BIG5}, {"big5-eten", MLG_BIG5},

    {"gb2312", MLG_GB2312}, {"gbk", MLG_GB2312}, {"cp936", MLG_GB2312}, {"ms936", MLG_GB2312},
    {"windows-936", MLG_GB2312}, {"x-gbk", MLG_GB2312}, {"euc-cn", MLG_GB2312},
    {"x-euc-cn", MLG_GB2312}, {"csgb2312", MLG_GB2312}, {"gb-2312-80", MLG_GB2312},
    {"gb-2312", MLG_GB2312}, {"csiso58gb231280", MLG_GB2312}, {"iso-ir-58", MLG_GB2312},
    {"chinese", MLG_GB2312}, {"cn-gb", MLG_GB2312}, {"x-cp936", MLG_GB2312},

    {"gb18030", MLG_GB18030}, {"gb-18030", MLG_GB18030},

    {"iso-2022-jp", MLG_JAPANESE}, {"csiso2022jp", MLG_JAPANESE}, {"iso-2022-jp-1", MLG_JAPANESE},
    {"iso-2022-jp-2", MLG_JAPANESE}, {"csiso2022jp2", MLG_JAPANESE},
    {"iso-2022-jp-3", MLG_JAPANESE}, {"jis", MLG_JAPANESE}, {"euc-jp", MLG_JAPANESE},
    {"x-euc-jp", MLG_JAPANESE}, {"eucjp", MLG_JAPANESE}, {"euc-jp-ms", MLG_JAPANESE},
    {"cseucpkdfmtjapanese", MLG_JAPANESE}, {"shift-jis", MLG_JAPANESE},
    {"sjis", MLG_JAPANESE}, {"x-sjis", MLG_JAPANESE}, {"shiftjis", MLG_JAPANESE},
    {"windows-31j", MLG_JAPANESE}, {"cswindows31j", MLG_JAPANESE}, {"cp932", MLG_JAPANESE},
    {"ms932", MLG_JAPANESE}, {"x-ms-cp932", MLG_JAPANESE}, {"ms-kanji", MLG_JAPANESE},
    {"csshiftjis", MLG_JAPANESE}, {"x-shift-jis", MLG_JAPANESE},

    {"euc-kr", MLG_EUCKR}, {"ks-c-5601-1987", MLG_EUCKR}, {"ks-c-5601-1989", MLG_EUCKR},
    {"ks-c-5601", MLG_EUCKR}, {"ksc5601", MLG_EUCKR}, {"ksc-5601", MLG_EUCKR},
    {"cp949", MLG_EUCKR}, {"ms949", MLG_EUCKR}, {"windows-949", MLG_EUCKR},
    {"x-windows-949", MLG_EUCKR}, {"uhc", MLG_EUCKR}, {"korean", MLG_EUCKR},
    {"cseuckr", MLG_EUCKR}, {"csksc56011987", MLG_EUCKR}, {"iso-ir-149", MLG_EUCKR},
    {"x-euc-kr", MLG_EUCKR},

    {"iso-8859-1", MLG_ISO8859_1}, {"iso8859-1", MLG_ISO8859_1}, {"iso88591", MLG_ISO8859_1},
    {"iso-8859-1:1987", MLG_ISO8859_1}, {"latin1", MLG_ISO8859_1}, {"latin-1", MLG_ISO8859_1},
    {"l1", MLG_ISO8859_1}, {"cp819", MLG_ISO8859_1}, {"ibm819", MLG_ISO8859_1},
    {"iso-ir-100", MLG_ISO8859_1}, {"csisolatin1", MLG_ISO8859_1}, {"8859-1", MLG_ISO8859_1},
    {"iso-8859-2", MLG_ISO8859_2}, {"iso8859-2", MLG_ISO8859_2}, {"iso88592", MLG_ISO8859_2},
    {"iso-8859-2:1987", MLG_ISO8859_2}, {"latin2", MLG_ISO8859_2}, {"l2", MLG_ISO8859_2},
    {"iso-ir-101", MLG_ISO8859_2}, {"csisolatin2", MLG_ISO8859_2},
    {"iso-8859-3", MLG_ISO8859_3}, {"iso8859-3", MLG_ISO8859_3}, {"iso88593", MLG_ISO8859_3},
    {"iso-8859-3:1988", MLG_ISO8859_3}, {"latin3", MLG_ISO8859_3}, {"l3", MLG_ISO8859_3},
    {"iso-ir-109", MLG_ISO8859_3}, {"csisolatin3", MLG_ISO8859_3},
    {"iso-8859-4", MLG_ISO8859_4}, {"iso8859-4", MLG_ISO8859_4}, {"iso88594", MLG_ISO8859_4},
    {"iso-8859-4:1988", MLG_ISO8859_4}, {"latin4", MLG_ISO8859_4}, {"l4", MLG_ISO8859_4},
    {"iso-ir-110", MLG_ISO8859_4}, {"csisolatin4", MLG_ISO8859_4},

    {"utf-7", MLG_UTF7}, {"utf7", MLG_UTF7}, {"unicode-1-1-utf-7", MLG_UTF7},
    {"csunicode11utf7", MLG_UTF7}, {"x-unicode20utf7", MLG_UTF7},

    {"us-ascii", kUsAscii}, {"ascii", kUsAscii}, {"us", kUsAscii}, {"ansi-x3.4-1968", kUsAscii},
    {"ansi-x3.4-1986", kUsAscii}, {"iso646-us", kUsAscii}, {"iso-646.irv:1991", kUsAscii},
    {"iso-ir-6", kUsAscii}, {"cp367", kUsAscii}, {"ibm367", kUsAscii}, {"csascii", kUsAscii},
    {"646", kUsAscii},

    {"windows-1250", kWin1250}, {"cp1250", kWin1250}, {"x-cp1250", kWin1250},
    {"windows-1251", kWin1251}, {"cp1251", kWin1251}, {"x-cp1251", kWin1251},
    {"windows-1252", kWin1252}, {"cp1252", kWin1252}, {"x-cp1252", kWin1252},
    {"windows-1253", kWin1253}, {"cp1253", kWin1253}, {"x-cp1253", kWin1253},
    {"windows-1254", kWin1254}, {"cp1254", kWin1254}, {"x-cp1254", kWin1254},
    {"windows-1255", kWin1255}, {"cp1255", kWin1255}, {"x-cp1255", kWin1255},
    {"windows-1256", kWin1256}, {"cp1256", kWin1256}, {"x-cp1256", kWin1256},
    {"windows-1257", kWin1257}, {"cp1257", kWin1257}, {"x-cp1257", kWin1257},
    {"windows-1258", kWin1258}, {"cp1258", kWin1258}, {"x-cp1258", kWin1258},

    {"koi8-r", kKoi8R}, {"koi8r", kKoi8R}, {"koi8", kKoi8R}, {"koi", kKoi8R},
    {"cskoi8r", kKoi8R}, {"koi8-u", kKoi8U}, {"koi8u", kKoi8U}, {"koi8-ru", kKoi8U},

    {"iso-8859-5", kIso8859_5}, {"iso8859-5", kIso8859_5}, {"iso88595", kIso8859_5},
    {"iso-8859-5:1988", kIso8859_5}, {"cyrillic", kIso8859_5}, {"iso-ir-144", kIso8859_5},
    {"csisolatincyrillic", kIso8859_5},
    {"iso-8859-6", kIso8859_6}, {"iso8859-6", kIso8859_6}, {"iso88596", kIso8859_6},
    {"iso-8859-6-i", kIso8859_6}, {"iso-8859-6-e", kIso8859_6}, {"arabic", kIso8859_6},
    {"asmo-708", kIso8859_6}, {"ecma-114", kIso8859_6}, {"iso-ir-127", kIso8859_6},
    {"csisolatinarabic", kIso8859_6},
    {"iso-8859-7", kIso8859_7}, {"iso8859-7", kIso8859_7}, {"iso88597", kIso8859_7},
    {"greek", kIso8859_7}, {"greek8", kIso8859_7}, {"elot-928", kIso8859_7},
    {"ecma-118", kIso8859_7}, {"iso-ir-126", kIso8859_7}, {"csisolatingreek", kIso8859_7},
    {"iso-8859-8", kIso8859_8}, {"iso8859-8", kIso8859_8}, {"iso88598", kIso8859_8},
    {"iso-8859-8-i", kIso8859_8}, {"iso-8859-8-e", kIso8859_8}, {"hebrew", kIso8859_8},
    {"visual", kIso8859_8}, {"logical", kIso8859_8}, {"iso-ir-138", kIso8859_8},
    {"csisolatinhebrew", kIso8859_8}, {"csiso88598i", kIso8859_8},
    {"iso-8859-9", kIso8859_9}, {"iso8859-9", kIso8859_9}, {"iso88599", kIso8859_9},
    {"latin5", kIso8859_9}, {"l5", kIso8859_9}, {"iso-ir-148", kIso8859_9},
    {"csisolatin5", kIso8859_9},
    {"iso-8859-10", kIso8859_10}, {"iso8859-10", kIso8859_10}, {"iso885910", kIso8859_10},
    {"latin6", kIso8859_10}, {"l6", kIso8859_10}, {"iso-ir-157", kIso8859_10},
    {"csisolatin6", kIso8859_10},
    {"iso-8859-11", kIso8859_11}, {"iso8859-11", kIso8859_11}, {"iso885911", kIso8859_11},
    {"iso-8859-13", kIso8859_13}, {"iso8859-13", kIso8859_13}, {"iso885913", kIso8859_13},
    {"latin7", kIso8859_13}, {"l7", kIso8859_13},
    {"iso-8859-14", kIso8859_14}, {"iso8859-14", kIso8859_14}, {"iso885914", kIso8859_14},
    {"latin8", kIso8859_14}, {"l8", kIso8859_14},
    {"iso-8859-15", kIso8859_15}, {"iso8859-15", kIso8859_15}, {"iso885915", kIso8859_15},
    {"latin9", kIso8859_15}, {"latin-9", kIso8859_15}, {"l9", kIso8859_15},
    {"csisolatin9", kIso8859_15},
    {"iso-8859-16", kIso8859_16}, {"iso8859-16", kIso8859_16}, {"iso885916", kIso8859_16},
    {"latin10", kIso8859_16}, {"l10", kIso8859_16},

    {"tis-620", kTis620}, {"tis620", kTis620}, {"tis620-0", kTis620}, {"tis620.2529-1", kTis620},
    {"tis620.2533-0", kTis620}, {"iso-ir-166", kTis620},
    {"windows-874", kWin874}, {"cp874", kWin874}, {"dos-874", kWin874}, {"x-cp874", kWin874},
    {"iso-2022-kr", kIso2022Kr}, {"csiso2022kr", kIso2022Kr},
    {"iso-2022-cn", kIso2022Cn}, {"csiso2022cn", kIso2022Cn},
    {"hz-gb-2312", kHz}, {"hz", kHz},
    {"euc-tw", kEucTw}, {"x-euc-tw", kEucTw}, {"cns11643", kEucTw},
    {"ibm437", kCp437}, {"cp437", kCp437}, {"437", kCp437}, {"cspc8codepage437", kCp437},
    {"ibm850", kCp850}, {"cp850", kCp850}, {"850", kCp850}, {"cspc850multilingual", kCp850},
    {"ibm852", kCp852}, {"cp852", kCp852}, {"852", kCp852}, {"cspcp852", kCp852},
    {"ibm866", kCp866}, {"cp866", kCp866}, {"866", kCp866}, {"csibm866", kCp866},
    {"macintosh", kMacintosh}, {"mac", kMacintosh}, {"x-mac-roman", kMacintosh},
    {"csmacintosh", kMacintosh}, {"macroman", kMacintosh},
    {"x-mac-cyrillic", kMacCyrillic}, {"mac-cyrillic", kMacCyrillic},
    {"x-mac-ukrainian", kMacCyrillic},
    {"utf-16", kUtf16}, {"utf16", kUtf16}, {"ucs-2", kUtf16}, {"iso-10646-ucs-2", kUtf16},
    {"csunicode", kUtf16}, {"utf-16le", kUtf16Le}, {"utf-16be", kUtf16Be},
    {"utf-32", kUtf32}, {"utf32", kUtf32}, {"utf-32le", kUtf32Le}, {"utf-32be", kUtf32Be},
    {"viscii", kViscii}, {"csviscii", kViscii},
};

constexpr char fold(char c) {
  if (c >= 'A' && c <= 'Z') return static_cast<char>(c - 'A' + 'a');
  return c == '_' ? '-' : c;
}

constexpr bool same_name(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (fold(a[i]) != fold(b[i])) return false;
  return true;
}

// Every table value is unique, every alias names a value of the table, and
// no name is listed twice (the first would silently win).
constexpr bool table_is_consistent() {
  for (size_t i = 0; i < std::size(kCharsets); ++i)
    for (size_t j = i + 1; j < std::size(kCharsets); ++j)
      if (kCharsets[i].value == kCharsets[j].value) return false;
  for (const Alias& a : kAliases) {
    bool found = false;
    for (const Charset& c : kCharsets) found = found || c.value == a.value;
    if (!found) return false;
  }
  for (size_t i = 0; i < std::size(kAliases); ++i)
    for (size_t j = i + 1; j < std::size(kAliases); ++j)
      if (same_name(kAliases[i].name, kAliases[j].name)) return false;
  return true;
}
static_assert(table_is_consistent());

// The name as declared, without surrounding blanks and without an RFC 2231
// language suffix ("utf-8*en").
std::string_view clean_name(const char* psz) {
  std::string_view s(psz);
  size_t star = s.find('*');
  if (star != std::string_view::npos) s = s.substr(0, star);
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

int language_option(Family family) {
  switch (family) {
    case Family::kUtf8: return 2;
    case Family::kSjis: return 3;
    case Family::kBig5: return 1;
    case Family::kGb:
    case Family::kEucTw: return 4;
    case Family::kUhc:
    case Family::kEucJp: return 5;  // EUC pairs: every high byte starts two
    default: return 0;
  }
}

}  // namespace

const Charset* charset_of(int value) {
  for (const Charset& c : kCharsets)
    if (c.value == value) return &c;
  return nullptr;
}

}  // namespace tarnplat

using tarnplat::charset_of;

extern "C" {

TARNPLAT_API int MLG_CharsetWEncToValue(const char* pszName) {
  if (pszName == nullptr) return MLG_UNKNOWN;
  std::string_view name = tarnplat::clean_name(pszName);
  if (name.empty()) return MLG_UNKNOWN;
  for (const tarnplat::Alias& a : tarnplat::kAliases)
    if (tarnplat::same_name(a.name, name)) return a.value;
  return MLG_UNKNOWN;
}

TARNPLAT_API const char* MLG_CharsetToMEncName(int nCharset) {
  const tarnplat::Charset* c = charset_of(nCharset);
  return c != nullptr ? c->mime : "";
}

TARNPLAT_API const char* MLG_CharsetToWEncName(int nCharset) {
  const tarnplat::Charset* c = charset_of(nCharset);
  if (c == nullptr) return "";
  return c->web != nullptr ? c->web : c->mime;
}

TARNPLAT_API int MLG_CharsetValToOpt(int nCharset) {
  const tarnplat::Charset* c = charset_of(nCharset);
  return c != nullptr ? tarnplat::language_option(c->family) : 0;
}

}  // extern "C"
