// Text is as wide as a terminal shows it.
#include "tools/fileindexctl/columns.h"

#include <gtest/gtest.h>

namespace fileindexctl {
namespace {

constexpr char kWide[] = "\u4e2d\u6587";       // two columns each
constexpr char kAccent[] = "e\u0301a";         // two bytes that take no column
constexpr char kNotUtf8[] = "a\xff\xc3(\xe4";  // three bytes that are no characters, and two that are

TEST(Columns, AreThoseOfATerminal) {
  EXPECT_EQ(0U, ColumnsOf(""));
  EXPECT_EQ(5U, ColumnsOf("photo"));
  EXPECT_EQ(4U, ColumnsOf("M\u00fcll"));
  EXPECT_EQ(4U, ColumnsOf(kWide));
  EXPECT_EQ(2U, ColumnsOf(kAccent));
  EXPECT_EQ(2U, ColumnsOf("\U0001f4c1"));  // a folder
  EXPECT_EQ(5U, ColumnsOf(kNotUtf8));
}

TEST(Columns, OfTheBeginningAreNotExceeded) {
  EXPECT_EQ("ph", CutToColumns("photo", 2));
  EXPECT_EQ("photo", CutToColumns("photo", 5));
  EXPECT_EQ("\u4e2d", CutToColumns(kWide, 3)) << "half of a character is none";
  EXPECT_EQ("", CutToColumns(kWide, 1));
  EXPECT_EQ("e\u0301", CutToColumns(kAccent, 1)) << "an accent stays with its letter";
  EXPECT_EQ("a\xff", CutToColumns(kNotUtf8, 2));
}

TEST(Columns, OfTheEndAreNotExceeded) {
  EXPECT_EQ("/v/photo", CutFrontToColumns("/v/photo", 8));
  EXPECT_EQ("...hoto", CutFrontToColumns("/v/photo", 7));
  EXPECT_EQ("...\u6587", CutFrontToColumns("/v/\u4e2d\u6587", 5));
  EXPECT_EQ("...\u6587", CutFrontToColumns("/v/\u4e2d\u6587", 6)) << "half of a character is none";
  EXPECT_EQ("...\u4e2d\u6587", CutFrontToColumns("/volume/\u4e2d\u6587", 7));
  EXPECT_EQ("...bcd", CutFrontToColumns("/volume/e\u0301bcd", 6)) << "an accent goes with its letter";
  EXPECT_EQ("/v/p", CutFrontToColumns("/v/photo", 4)) << "no room for dots";
}

}  // namespace
}  // namespace fileindexctl
