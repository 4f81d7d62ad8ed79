// Rich Text Format.
#include <gtest/gtest.h>

#include "tests/unit/extractor_formats/extraction.h"

namespace orbisk::test {
namespace {

TEST(Rtf, OfAWriterGivesItsText) {
  const Extraction extraction = Extract(Sample("letter.rtf"));

  EXPECT_EQ(extraction.error, "");
  EXPECT_NE(extraction.Text().find("The grey heron came to the weir at dawn. Zażółć gęślą jaźń."), std::string::npos)
      << extraction.Text();
}

TEST(Rtf, GivesTheWordsOfATableOfCases) {
  const struct {
    const char* body;
    const char* text;
  } rows[] = {
      {"heron\\par weir", "heron\nweir"},
      {"her{\\b on}", "heron"},
      {"gr\\'fcn", "grün"},
      {"\\u8364?uro", "€uro"},
      {"\\u8364\\'80uro", "€uro"},
      {"\\uc0\\u8364 uro", "€uro"},
      {"\\uc2\\u8364??uro", "€uro"},
      {"{\\uc0\\u8364}\\u8364?x", "€€x"},
      {"\\u-10178?\\u-8826?", "🦆"},
      {"\\u-10178?x", "x"},
      {"\\u8364\\par x", "€\nx"},
      {"\\{heron\\}\\\\", "{heron}\\"},
      {"a\\~b\\_c\\emdash d", "a b-c\u2014d"},
      {"{\\fonttbl{\\f0 Times;}}heron", "heron"},
      {"{\\*\\unknown secret}heron", "heron"},
      {"{\\pict 0102ab}heron{\\stylesheet{\\s1 Normal;}}", "heron"},
      {"{\\pict\\bin5 }}}}}}heron", "heron"},
      {"{\\field{\\*\\fldinst HYPERLINK x}{\\fldrslt heron}}", "heron"},
      {"one\r\ntwo\\\nthree", "onetwo\nthree"},
      {"heron\\unknownword12 weir", "heronweir"},
  };
  for (const auto& row : rows) {
    const Extraction extraction = Extract("{\\rtf1\\ansi\\ansicpg1252 " + std::string(row.body) + "}");

    EXPECT_EQ(extraction.error, "") << row.body;
    EXPECT_EQ(extraction.Text(), row.text) << row.body;
  }
}

TEST(Rtf, IsReadInItsCodePage) {
  EXPECT_EQ(Extract("{\\rtf1\\ansi\\ansicpg1251 \\'f6\\'e0\\'ef\\'eb\\'ff}").Text(), "цапля");
  EXPECT_EQ(Extract("{\\rtf1\\ansi\\ansicpg932 \\'8d\\'eb}").Text(), "鷺");
  EXPECT_EQ(Extract("{\\rtf1\\mac \\'8a}").Text(), "ä");
}

TEST(Rtf, GivesItsProperties) {
  const Extraction extraction = Extract(
      "{\\rtf1\\ansi{\\info{\\title The {\\b Heron}}{\\author Ada Quill}{\\subject Birds}{\\keywords reed}"
      "{\\operator Bo}}title words}");

  EXPECT_EQ(extraction["NIMOMDTitle"], "The Heron");
  EXPECT_EQ(extraction["NIMOMDAuthors"], "Ada Quill");
  EXPECT_EQ(extraction["NIMOMDSubject"], "Birds");
  EXPECT_EQ(extraction["NIMOMDKeywords"], "reed");
  EXPECT_EQ(extraction.Text(), "title words");
}

TEST(Rtf, ThatIsBrokenFailsWithAReasonAndKeepsWhatCameBefore) {
  const Extraction open = Extract("{\\rtf1 heron {\\b weir");
  const Extraction closed = Extract("{\\rtf1 heron}}");
  const Extraction deep = Extract("{\\rtf1 heron" + std::string(1'000'000, '{'));

  EXPECT_NE(open.error.find("not closed"), std::string::npos);
  EXPECT_EQ(open.Text(), "heron weir");
  EXPECT_NE(closed.error.find("not opened"), std::string::npos);
  EXPECT_NE(deep.error.find("nested deeper"), std::string::npos);
  EXPECT_EQ(deep.Text(), "heron");
}

}  // namespace
}  // namespace orbisk::test
