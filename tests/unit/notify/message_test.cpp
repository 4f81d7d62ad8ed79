// Texts by key, and what is put into them.
#include "tools/nimonxmnotify/message.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/temp_dir.h"

namespace nimonxmnotify {
namespace {

using orbisk::test::TempDir;
using orbisk::test::WriteFile;

TEST(StringTable, GivesTheTextsOfOneApplicationAndKeysWithoutTextAsTheyAre) {
  const TempDir dir;
  WriteFile(dir / "table", R"({"A": {"title": "Of A", "number": 1}, "B": {"title": "Of B"}})");
  const StringTable table = StringTable::Load(dir / "table", "A");
  EXPECT_EQ("Of A", table.Text("title"));
  EXPECT_EQ("number", table.Text("number"));
  EXPECT_EQ("unknown", table.Text("unknown"));
  EXPECT_EQ("title", StringTable::Load(dir / "table", "C").Text("title"));
}

TEST(StringTable, ThatIsMissingOrMalformedHasNoTexts) {
  const TempDir dir;
  EXPECT_EQ("title", StringTable::Load(dir / "missing", "A").Text("title"));
  EXPECT_EQ("title", StringTable::Load("", "A").Text("title"));
  for (const std::string& text : {std::string("{"), std::string("[1]"), std::string("\"A\""),
                                  std::string(R"({"A": 1})"), std::string(5000, '[')}) {
    WriteFile(dir / "table", text);
    EXPECT_EQ("title", StringTable::Load(dir / "table", "A").Text("title")) << text;
  }
}

TEST(StringTable, IsFoundBesideTheProgramOrBelowShare) {
  const TempDir dir;
  for (const char* folder :
       {"usr/nimo/bin", "usr/share/orbisk", "local/bin", "local/share/orbisk", "build", "none/bin"}) {
    std::filesystem::create_directories(dir / folder);
  }
  for (const char* file : {"usr/share/orbisk", "local/share/orbisk", "build"}) {
    WriteFile(dir / file + "/nimonxmnotify.json", "{}");
  }
  EXPECT_EQ(dir / "usr/nimo/bin/../../share/orbisk/nimonxmnotify.json", FindStringTable(dir / "usr/nimo/bin/program"));
  EXPECT_EQ(dir / "local/bin/../share/orbisk/nimonxmnotify.json", FindStringTable(dir / "local/bin/program"));
  EXPECT_EQ(dir / "build/nimonxmnotify.json", FindStringTable(dir / "build/program"));
  EXPECT_EQ("", FindStringTable(dir / "none/bin/program"));
}

TEST(Message, PutsTextsInTheirPlaces) {
  EXPECT_EQ("in the preferences.", FillIn("in {0}the preferences{1}.", {"", ""}));
  EXPECT_EQ("b a b", FillIn("{1} {0} {1}", {"a", "b"}));
  EXPECT_EQ("{2} {x} {10} {", FillIn("{2} {x} {10} {", {}));
  EXPECT_EQ("{0}", FillIn("{0}", {"{0}"})) << "what is put in is not looked at again";
}

TEST(Message, PutsTextsWithoutAPlaceAtTheEnd) {
  EXPECT_EQ("key a b", FillIn("key", {"a", "b"}));
  EXPECT_EQ("b a", FillIn("{1}", {"a", "b"}));
}

TEST(Message, LosesTagsOnly) {
  EXPECT_EQ("", WithoutTags("<a data-nimo-app=\"x\" data-nimo-fn=\"y\">"));
  EXPECT_EQ("link", WithoutTags("<a>link</a>"));
  EXPECT_EQ("1 < 2", WithoutTags("1 < 2"));
}

TEST(Message, IsShownAsItIs) {
  EXPECT_EQ("a &lt;b&gt; &amp;amp; \"c\"", EscapeMarkup("a <b> &amp; \"c\""));
}

TEST(Message, IsOneValueInARecord) {
  EXPECT_EQ("\"a \\\"b\\\" \\\\ c d \xff\"", Quote("a \"b\" \\ c\nd \xff"));
}

}  // namespace
}  // namespace nimonxmnotify
