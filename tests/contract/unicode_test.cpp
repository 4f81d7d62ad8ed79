// What nimo/unicode.h promises.
#include "nimo/unicode.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace orbisk::test {
namespace {

int Sign(int number) {
  return (number > 0) - (number < 0);
}

int Compare(const std::string& a, const std::string& b) {
  return Sign(NLIBCUnicodeUTF8StrCaseCmp(a.c_str(), b.c_str()));
}

TEST(CaseCompare, TakesUpperAndLowerCaseForTheSameInEveryScript) {
  const struct {
    const char* upper;
    const char* lower;
  } kPairs[] = {
      {"PHOTO.JPG", "photo.jpg"},
      {"\xc3\x84\xc3\x96\xc3\x9c", "\xc3\xa4\xc3\xb6\xc3\xbc"},  // German
      {"\xd0\x96\xd0\x94\xd0\x81", "\xd0\xb6\xd0\xb4\xd1\x91"},  // Russian
      {"\xce\x91\xce\xa3", "\xce\xb1\xcf\x83"},                  // Greek
      {"\xce\x91\xce\xa3", "\xce\xb1\xcf\x82"},                  // its other small sigma
      {"\xd4\xb1", "\xd5\xa1"},                                  // Armenian
      {"\xf0\x90\x90\x80", "\xf0\x90\x90\xa8"},                  // Deseret, four bytes
      {"mixed \xc3\x84 \xff", "MIXED \xc3\xa4 \xff"},            // beside a byte that is no UTF-8
  };
  for (const auto& pair : kPairs) {
    EXPECT_EQ(0, Compare(pair.upper, pair.lower)) << pair.lower;
    EXPECT_EQ(0, Compare(pair.lower, pair.upper)) << pair.lower;
  }
}

TEST(CaseCompare, OrdersOtherwise) {
  EXPECT_EQ(-1, Compare("a", "B"));
  EXPECT_EQ(1, Compare("b", "A"));
  EXPECT_EQ(-1, Compare("a", "ab"));
  EXPECT_EQ(-1, Compare("", "a"));
  EXPECT_EQ(-1, Compare("z", "\xc3\xa4"));
  EXPECT_EQ(-1, Compare("\xef\xbd\x81", "\xf0\x90\x90\xa8"));  // by character, not by half of one
}

TEST(CaseCompare, TakesNullForEmpty) {
  EXPECT_EQ(0, NLIBCUnicodeUTF8StrCaseCmp(nullptr, ""));
  EXPECT_EQ(0, NLIBCUnicodeUTF8StrCaseCmp(nullptr, nullptr));
  EXPECT_GT(0, NLIBCUnicodeUTF8StrCaseCmp(nullptr, "a"));
  EXPECT_LT(0, NLIBCUnicodeUTF8StrCaseCmp("a", nullptr));
}

TEST(CaseCompare, TellsDifferentBytesThatAreNotUtf8Apart) {
  const std::vector<std::string> broken = {"\x80",         "\x81",         "\xff",     "\xc3",
                                           "\xed\xa0\x80", "\xc0\x80",     "\xf4\x90", "\xef\xbf\xbd",
                                           "\x80\x80",     "\xed\xb0\x80", "\xc3(",    "\xf5\x80\x80\x80"};
  for (const std::string& a : broken) {
    for (const std::string& b : broken) {
      EXPECT_EQ(&a == &b, Compare(a, b) == 0) << testing::PrintToString(a) << " " << testing::PrintToString(b);
    }
  }
}

// Of any three strings, out of pieces that have caused trouble: half characters, both sigmas, both cases, surrogates.
TEST(CaseCompare, IsATotalOrder) {
  const std::vector<std::string> pieces = {
      "a",        "A",        "b",    "_",    "\xc3\x84",     "\xc3\xa4",         "\xcf\x82",
      "\xcf\x83", "\xce\xa3", "\x80", "\xff", "\xed\xa0\x80", "\xf0\x90\x90\x80", "\xef\xbd\x81"};
  std::mt19937 random(20);
  const auto any = [&] {
    std::string text;
    for (size_t left = random() % 4; left > 0; --left) {
      text += pieces[random() % pieces.size()];
    }
    return text;
  };
  for (int round = 0; round < 20000; ++round) {
    const std::string a = any();
    const std::string b = any();
    const std::string c = any();
    ASSERT_EQ(0, Compare(a, a));
    ASSERT_EQ(Compare(a, b), -Compare(b, a)) << testing::PrintToString(a) << " " << testing::PrintToString(b);
    if (Compare(a, b) <= 0 && Compare(b, c) <= 0) {
      ASSERT_GE(0, Compare(a, c)) << testing::PrintToString(a) << " " << testing::PrintToString(b) << " "
                                  << testing::PrintToString(c);
    }
  }
}

}  // namespace
}  // namespace orbisk::test
