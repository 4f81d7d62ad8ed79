// Registration files, good and bad.
#include "services/monitor/registration.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"

namespace nimotifyd {
namespace {

TEST(RegistrationTest, EverythingIsRead) {
  const auto registration = ParseRegistration(
      R"({"app":"fileindex","type":0,"queue":"/q","config":[{"path":"/a","mask":65478,"ignore":["@eaDir"]}]})");

  ASSERT_TRUE(registration);
  EXPECT_EQ(*registration, (Registration{"fileindex", "/q", {{"/a", 65478, {"@eaDir"}}}}));
}

TEST(RegistrationTest, SlashesAtTheEndOfAFolderAreDropped) {
  const auto registration =
      ParseRegistration(R"({"app":"a","queue":"/q","config":[{"path":"/a//","mask":1},{"path":"/","mask":1}]})");

  ASSERT_TRUE(registration);
  EXPECT_EQ(registration->entries[0].path, "/a");
  EXPECT_EQ(registration->entries[1].path, "/");
}

// A blank in front is nothing to the JSON parser, and more than the quick reader takes.
TEST(RegistrationTest, WhatIsReadQuicklyIsReadAsTheParserReadsIt) {
  const std::string text =
      R"({"app":"f","config":[{"ignore":["@eaDir","x"],"mask":65478,"path":"/v/a b"},{"ignore":[],"mask":1,"path":"/"},)"
      R"({"ignore":["y"],"mask":0,"path":"/v/c"}],"queue":"/q","type":0})"
      "\n";
  EXPECT_EQ(ParseRegistration(text),
            (Registration{"f", "/q", {{"/v/a b", 65478, {"@eaDir", "x"}}, {"/", 1, {}}, {"/v/c", 0, {"y"}}}}));
  for (size_t at = 0; at < text.size(); ++at) {
    for (const char* const other :
         {"", " ", "\"", "\\", "\\u0041", "0", "1", "-", "/", ",", "]", "}", "\n", "\x01", "\xff"}) {
      for (const size_t instead : {size_t{0}, size_t{1}}) {
        std::string changed = text;
        changed.replace(at, instead, other);
        EXPECT_EQ(ParseRegistration(changed), ParseRegistration(" " + changed)) << changed;
      }
    }
  }
}

TEST(RegistrationTest, BadOnesAreRefused) {
  for (const char* text : {
           "",
           "null",
           "[]",
           "{",
           R"({"app":"a"})",
           R"({"queue":"/q"})",
           R"({"app":"a","queue":"q"})",
           R"({"app":"a","queue":""})",
           R"({"app":"a","queue":"/q","config":{}})",
           R"({"app":"a","queue":"/q","config":[1]})",
           R"({"app":"a","queue":"/q","config":[{"path":"/a"}]})",
           R"({"app":"a","queue":"/q","config":[{"path":"a","mask":1}]})",
           R"({"app":"a","queue":"/q/"})",
           R"({"app":"a","queue":"/"})",
           R"({"app":"a","queue":"/v//q"})",
           R"({"app":"a","queue":"/v/./q"})",
           R"({"app":"a","queue":"/v/.."})",
           R"({"app":"a","queue":"/q\u0000"})",
           R"({"app":"a","queue":"/q","config":[{"path":"//","mask":1},{"path":"//a","mask":1}]})",
           R"({"app":"a","queue":"/q","config":[{"path":"/a//b","mask":1}]})",
           R"({"app":"a","queue":"/q","config":[{"path":"/a/./b","mask":1}]})",
           R"({"app":"a","queue":"/q","config":[{"path":"/a/.","mask":1}]})",
           R"({"app":"a","queue":"/q","config":[{"path":"/a/..","mask":1}]})",
           R"({"app":"a","queue":"/q","config":[{"path":"/../a","mask":1}]})",
           R"({"app":"a","queue":"/q","config":[{"path":"/a/../","mask":1}]})",
           R"({"app":"a","queue":"/q","config":[{"path":"","mask":1}]})",
           R"({"app":"a","queue":"/q","config":[{"path":"/a","mask":-1}]})",
           R"({"app":"a","queue":"/q","config":[{"path":"/a","mask":1,"ignore":"x"}]})",
           R"({"app":"a","queue":"/q","config":[{"path":"/a","mask":1,"ignore":[1]}]})",
       }) {
    EXPECT_FALSE(ParseRegistration(text)) << text;
  }
  EXPECT_FALSE(ParseRegistration(std::string(5000, '[')));
}

TEST(RegistrationTest, NamesThatMerelyBeginWithADotAreFine) {
  const auto registration =
      ParseRegistration(R"({"app":"a","queue":"/.v/..q","config":[{"path":"/..a/.b/c..","mask":1}]})");

  ASSERT_TRUE(registration);
  EXPECT_EQ(registration->queue, "/.v/..q");
  EXPECT_EQ(registration->entries[0].path, "/..a/.b/c..");
}

TEST(RegistrationTest, WhatIsNoFileIsLeftOutWithARecordAndNotWaitedFor) {
  orbisk::test::RecordCapture records;
  const orbisk::test::TempDir folder;
  ASSERT_EQ(mkdir((folder / "folder.json").c_str(), 0755), 0);
  ASSERT_EQ(mkfifo((folder / "pipe.json").c_str(), 0644), 0);
  orbisk::test::WriteFile(folder / "z.json", R"({"app":"a","queue":"/z"})");

  const std::vector<Registration> registrations = LoadRegistrations(folder.path());

  ASSERT_EQ(registrations.size(), 1U);
  EXPECT_EQ(registrations[0].queue, "/z");
  EXPECT_EQ(records.texts(), (std::vector<std::string>{"event=registration_malformed file=" + (folder / "folder.json"),
                                                       "event=registration_malformed file=" + (folder / "pipe.json")}));
}

TEST(RegistrationTest, FolderIsReadInTheOrderOfNamesWithoutTemporaryAndBadFiles) {
  orbisk::test::RecordCapture records;
  const orbisk::test::TempDir folder;
  orbisk::test::WriteFile(folder / "b.json", R"({"app":"a","queue":"/2"})");
  orbisk::test::WriteFile(folder / "a.json", R"({"app":"a","queue":"/1"})");
  orbisk::test::WriteFile(folder / "c.json", "torn");
  orbisk::test::WriteFile(folder / "d.json.Xy12ab", "torn");

  const std::vector<Registration> registrations = LoadRegistrations(folder.path());

  ASSERT_EQ(registrations.size(), 2U);
  EXPECT_EQ(registrations[0].queue, "/1");
  EXPECT_EQ(registrations[1].queue, "/2");
  ASSERT_EQ(records.texts().size(), 1U);
  EXPECT_EQ(records.texts()[0], "event=registration_malformed file=" + (folder / "c.json"));
}

TEST(RegistrationTest, MissingFolderHoldsNone) {
  EXPECT_TRUE(LoadRegistrations("/no/such/folder").empty());
}

}  // namespace
}  // namespace nimotifyd
