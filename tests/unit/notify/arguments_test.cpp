// The command line of nimonxmnotify, as the library writes it and as people mistype it.
#include "tools/nimonxmnotify/arguments.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace nimonxmnotify {
namespace {

using Words = std::vector<std::string>;

Arguments Parse(Words words) {
  words.insert(words.begin(), "nimonxmnotify");
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  return ParseArguments(static_cast<int>(words.size()), argv.data());
}

TEST(NotifyArguments, AreThoseThatTellOfAFullVolume) {
  const Arguments arguments = Parse({"-c", "NIMO.Scoutly.Application", "-b", "true", "-e", "false", "@administrators",
                                     "app:displayname", "error:index_no_space", "<a data-nimo-app=\"x\">", "</a>"});
  EXPECT_EQ("NIMO.Scoutly.Application", arguments.application);
  EXPECT_TRUE(arguments.on_desktops);
  EXPECT_FALSE(arguments.escape);
  EXPECT_EQ("@administrators", arguments.recipients);
  EXPECT_EQ("app:displayname", arguments.title_key);
  EXPECT_EQ("error:index_no_space", arguments.message_key);
  EXPECT_EQ((Words{"<a data-nimo-app=\"x\">", "</a>"}), arguments.texts);
}

TEST(NotifyArguments, AreThoseThatTellOfShortMemory) {
  const Arguments arguments =
      Parse({"-c", "NIMO.Scoutly.Application", "@administrators", "app:displayname", "error:lack_of_memory"});
  EXPECT_TRUE(arguments.on_desktops);
  EXPECT_TRUE(arguments.escape);
  EXPECT_EQ("error:lack_of_memory", arguments.message_key);
  EXPECT_TRUE(arguments.texts.empty());
}

TEST(NotifyArguments, TakeTextsThatLookLikeOptions) {
  EXPECT_EQ((Words{"-b", "--help", "-x", ""}), Parse({"-c", "A", "@g", "t", "m", "-b", "--help", "-x", ""}).texts);
}

TEST(NotifyArguments, StartAnewForEachCommandLine) {
  EXPECT_FALSE(Parse({"-c", "A", "-b", "false", "@g", "t", "m"}).on_desktops);
  EXPECT_TRUE(Parse({"-c", "B", "@g", "t", "m"}).on_desktops);
  EXPECT_TRUE(Parse({"--help"}).help);
  EXPECT_TRUE(Parse({"--version"}).version);
}

TEST(NotifyArguments, AreRefusedWhenTheySayTooLittleOrNothingKnown) {
  for (const Words& words :
       {Words{}, Words{"-c"}, Words{"-c", "A"}, Words{"-c", "A", "@g", "t"}, Words{"@g", "t", "m"},
        Words{"-c", "A", "-b", "yes", "@g", "t", "m"}, Words{"-c", "A", "-e", "", "@g", "t", "m"},
        Words{"-c", "A", "-x", "@g", "t", "m"}, Words{"-c", "A", "--nothing", "@g", "t", "m"},
        Words{"-c", "A", "@", "t", "m"}, Words{"-c", "A", "", "t", "m"}, Words{"-c", "", "@g", "t", "m"}}) {
    EXPECT_THROW(Parse(words), WrongUsage) << testing::PrintToString(words);
  }
}

}  // namespace
}  // namespace nimonxmnotify
