// URL decoding in place: escapes, '+', unchecked digits, the end of the text.

#include <gtest/gtest.h>

#include <string>

#include "tarnmail/filter.h"

namespace {

std::string dec(std::string s) {
  s.push_back('\0');
  EXPECT_EQ(0, str_html_dec(s.data()));
  return std::string(s.c_str());
}

TEST(StrHtmlDec, DecodesEscapesAndPlus) {
  EXPECT_EQ("aA b", dec("a%41+b"));
  EXPECT_EQ("//", dec("%2F%2f"));
  EXPECT_EQ("100% sure", dec("100%25+sure"));
  EXPECT_EQ("", dec(""));
  EXPECT_EQ("&#38;", dec("&#38;"));  // entities are left alone
  EXPECT_EQ("a\x01" "b", dec("a%01b"));
  EXPECT_EQ("a", dec("a%00b"));  // a decoded NUL ends the text
}

TEST(StrHtmlDec, DigitsAreNotChecked) {
  EXPECT_EQ("S", dec("%zz"));    // 'z' counts 35: 35 * 16 + 35 = 595, cut to 0x53
  EXPECT_EQ("T1", dec("%%41"));  // '%' counts -11: -176 + 4 = -172, cut to 0x54
  EXPECT_EQ("\t", dec("%g9"));   // 'g' counts 16: 256 + 9, cut to 0x09
}

TEST(StrHtmlDec, HighBytesCountAsSigned) {
  EXPECT_EQ(":", dec("%\xC3" "A"));  // -61 - '0' = -109: -1744 + 10 = -1734, cut to 0x3A
}

TEST(StrHtmlDec, PercentNearTheEndStaysAsWritten) {
  EXPECT_EQ("ab%", dec("ab%"));
  EXPECT_EQ("ab%4", dec("ab%4"));
  EXPECT_EQ(";", dec("%4+"));  // two bytes follow: '+' counts -5, 64 - 5 = 0x3B
  EXPECT_EQ(0, str_html_dec(nullptr));
}

}  // namespace
