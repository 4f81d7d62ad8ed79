// Byte-wise string helpers.
#include "orbisk/string_util.h"

#include <gtest/gtest.h>

namespace orbisk {
namespace {

TEST(Trim, KeepsWhatIsBetween) {
  EXPECT_EQ("a b", Trim("  a b a\t\n").substr(0, 3));
  EXPECT_EQ("a b", Trim("  a b \t\n"));
}

TEST(Trim, OfBlanksIsEmpty) {
  EXPECT_EQ("", Trim("   "));
  EXPECT_EQ("", LTrim(" \t"));
  EXPECT_EQ("", RTrim("\n "));
  EXPECT_EQ("", Trim(""));
}

TEST(LTrim, KeepsTrailingBlanks) {
  EXPECT_EQ("a  ", LTrim("  a  "));
}

TEST(RTrim, KeepsLeadingBlanks) {
  EXPECT_EQ("  a", RTrim("  a  "));
}

TEST(Trim, TakesVerticalTabAndFormFeedForWhiteSpace) {
  EXPECT_EQ("a", Trim("\v\f\r\n\t a \t\n\r\f\v"));
}

TEST(Trim, KeepsNulBytes) {
  const std::string with_nul("\0a\0", 3);
  EXPECT_EQ(with_nul, Trim(" " + with_nul + " "));
}

TEST(Trim, LeavesBytesAbove127Alone) {
  EXPECT_EQ("\xa0\xff\x85", Trim(" \xa0\xff\x85 "));
}

TEST(ToLower, ChangesAsciiLettersOnly) {
  EXPECT_EQ("abz019_[@`{", ToLower("AbZ019_[@`{"));
}

TEST(ToLower, LeavesBytesAbove127Alone) {
  EXPECT_EQ("\xc3\x84\xff\x80", ToLower("\xc3\x84\xff\x80"));  // no Unicode: the umlaut stays a capital
}

}  // namespace
}  // namespace orbisk
