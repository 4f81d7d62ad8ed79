// "fileindexctl share", run as a program against the real registry.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/private_mounts.h"
#include "tests/system/fileindexctl_box.h"

namespace orbisk::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class ShareCommand : public Box {};

TEST_F(ShareCommand, ABoxWithoutARegistryHasNoShares) {
  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "list"}), "NAME  PATH  FLAGS\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "list", "--json"}), "[]\n"));
}

TEST_F(ShareCommand, RegisterKeepsEveryFlag) {
  AddShare(OnFirst("photo"),
           {"--encrypted", "--encryption", "--read-only", "--recycle", "--hide-unreadable", "--ftp-privilege", "-3"});

  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "list", "--json"}),
                       R"([{"encrypted":true,"encryption":true,"ftp_privilege":-3,"hide_unreadable":true,)"
                       R"("name":"photo","path":")" +
                           OnFirst("photo") +
                           R"(","read_only":true,"recycle":true}])"
                           "\n"));
  EXPECT_THAT(Fileindexctl({"share", "list"}).output,
              HasSubstr("  encrypted,encryption,read-only,recycle,hide-unreadable\n"));
}

TEST_F(ShareCommand, RegisteringAgainReplacesTheFlags) {
  AddShare(OnFirst("photo"), {"--recycle"});

  AddShare(OnFirst("photo"), {"--read-only"});

  const Json::Value shares = Parse(Fileindexctl({"share", "list", "--json"}).output);
  ASSERT_EQ(shares.size(), 1U);
  EXPECT_FALSE(shares[0]["recycle"].asBool());
  EXPECT_TRUE(shares[0]["read_only"].asBool());
}

TEST_F(ShareCommand, ARefusedRegistrationSaysWhyAndChangesNothing) {
  AddShare(OnFirst("photo"));
  MakeFolder(OnFirst("photo/2019"));
  MakeFolder(OnFirst("elsewhere"));
  WriteFile(OnFirst("file"), "");
  std::filesystem::create_directory_symlink(OnFirst("elsewhere"), OnFirst("link"));
  const std::string before = ReadFile(kRegistry);
  const auto refusal = [](const std::string& name, const std::string& path, const std::string& reason) {
    return FailsWith(Fileindexctl({"share", "register", name, path}), "fileindexctl: " + reason);
  };

  EXPECT_TRUE(refusal("", OnFirst("elsewhere"), "a share cannot be called \"\""));
  EXPECT_TRUE(refusal("a/b", OnFirst("a/b"), "a share cannot be called \"a/b\""));
  EXPECT_TRUE(refusal("..", OnFirst(".."), "a share cannot be called \"..\""));
  EXPECT_TRUE(refusal(std::string(492, 'x'), OnFirst("elsewhere"), "the share's name is too long"));
  EXPECT_TRUE(refusal("elsewhere", "elsewhere", "not a plain absolute path: elsewhere"));
  EXPECT_TRUE(refusal("elsewhere", OnFirst("elsewhere/"), "not a plain absolute path: " + OnFirst("elsewhere/")));
  EXPECT_TRUE(refusal("other", OnFirst("elsewhere"),
                      "the path " + OnFirst("elsewhere") + " does not end in the share's name other"));
  EXPECT_TRUE(refusal("missing", OnFirst("missing"), OnFirst("missing") + ": No such file or directory"));
  EXPECT_TRUE(refusal("file", OnFirst("file"), OnFirst("file") + ": not a folder"));
  EXPECT_TRUE(refusal("link", OnFirst("link"), OnFirst("link") + ": not a folder"));
  EXPECT_TRUE(refusal("2019", OnFirst("photo/2019"),
                      OnFirst("photo/2019") + " lies in the folder of the share photo or around it"));
  const std::string volume = std::filesystem::path(OnFirst("x")).parent_path();
  EXPECT_TRUE(refusal("volume1", volume, volume + " lies in the folder of the share photo or around it"));

  EXPECT_EQ(ReadFile(kRegistry), before);
}

TEST_F(ShareCommand, UnregisterRemovesTheShareAndKeepsItsFiles) {
  AddShare(OnFirst("photo"));
  AddShare(OnSecond("docs"));
  WriteFile(OnFirst("photo/a.jpg"), "kept");

  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "photo"})));

  EXPECT_THAT(Fileindexctl({"share", "list"}).output, AllOf(HasSubstr("docs"), Not(HasSubstr("photo"))));
  EXPECT_EQ(ReadFile(OnFirst("photo/a.jpg")), "kept");
  EXPECT_TRUE(FailsWith(Fileindexctl({"share", "unregister", "photo"}), "fileindexctl: no such share: photo"));
}

TEST_F(ShareCommand, ShowTellsWhatTheLibrarySees) {
  AddShare(OnSecond("docs"), {"--recycle", "--ftp-privilege", "7"});
  const std::string index = OnSecond("@fileindex/docs/");

  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "show", "docs", "--json"}),
                       R"({"can_be_indexed":true,"db":")" + index +
                           R"(db","encryption":false,"ftp_privilege":7,"hide_unreadable":false,)"
                           R"("index":"fileindex_docs","name":"docs","path":")" +
                           OnSecond("docs") + R"(","queue":")" + index +
                           R"(queue","recycle":true,"space_enough":false})"
                           "\n"));
  EXPECT_THAT(Fileindexctl({"share", "show", "docs"}).output,
              AllOf(HasSubstr("can be indexed:    yes\n"), HasSubstr("queue:             " + index + "queue\n")));
}

TEST_F(ShareCommand, ALockedShareAndAReadOnlyOneCannotBeIndexed) {
  const auto can_be_indexed = [](const std::string& name) {
    return Parse(Fileindexctl({"share", "show", name, "--json"}).output)["can_be_indexed"].asBool();
  };
  AddShare(OnFirst("locked"), {"--encrypted"});
  AddShare(OnFirst("read"), {"--read-only"});
  AddShare(OnFirst("vault"), {"--encryption"});

  EXPECT_FALSE(can_be_indexed("locked"));
  EXPECT_FALSE(can_be_indexed("read"));
  EXPECT_FALSE(can_be_indexed("vault"));
  MountEmptyFileSystem(OnFirst("vault"), 1 << 20);
  EXPECT_TRUE(can_be_indexed("vault"));
}

TEST_F(ShareCommand, ShowingAShareThatIsMissingFailsWithItsCode) {
  AddShare(OnFirst("photo"));

  EXPECT_TRUE(FailsWith(Fileindexctl({"share", "show", "nope"}), "fileindexctl: error 800: nope (no such share)"));
}

TEST_F(ShareCommand, OddNamesStayOnOneLineForPeopleAndWholeForPrograms) {
  const std::string name = "a\nb \xff\"\xc3\xa4";
  AddShare(OnFirst(name));

  const ProcessResult list = Fileindexctl({"share", "list"});
  const ProcessResult show = Fileindexctl({"share", "show", name, "--json"});

  EXPECT_THAT(list.output, HasSubstr("\na\\nb \xff\"\xc3\xa4  "));
  EXPECT_EQ(show.exit_status, 0);
  EXPECT_THAT(show.output, HasSubstr("\"name\":\"a\\nb \xff\\\"\xc3\xa4\""));
}

TEST_F(ShareCommand, ARegistryThatCannotBeReadIsNamedAndNeverReplaced) {
  AddShare(OnFirst("photo"));
  const std::string bad = R"([{"name":"photo"}])";
  const std::string trouble = std::string(kRegistry) + ": entry 1: \"path\" is no string";
  WriteFile(kRegistry, bad);

  EXPECT_TRUE(FailsWith(Fileindexctl({"share", "list"}), "fileindexctl: " + trouble));
  EXPECT_TRUE(FailsWith(Fileindexctl({"share", "unregister", "photo"}), "fileindexctl: " + trouble));
  EXPECT_TRUE(FailsWith(Fileindexctl({"share", "register", "photo", OnFirst("photo")}), "fileindexctl: " + trouble));
  EXPECT_TRUE(FailsWith(Fileindexctl({"share", "show", "photo"}), "fileindexctl: error 800: photo (" + trouble + ")"));
  EXPECT_TRUE(FailsWith(Fileindexctl({"status"}), "fileindexctl: error 121: NLIBShareEnum failed (" + trouble + ")"));
  EXPECT_TRUE(FailsWith(
      Fileindexctl({"path", "check", OnFirst("photo")}),
      "fileindexctl: error 502: NIMOShareNamePathGet failed, full_path=" + OnFirst("photo") + " (" + trouble + ")"));
  EXPECT_EQ(ReadFile(kRegistry), bad);
}

TEST_F(ShareCommand, WrongUsageIsStatusTwo) {
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"share"}), "A subcommand is required"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"share", "regster"}), "No such command: regster"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"share", "register", "photo"}), "PATH is required"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"share", "show"}), "NAME is required"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"share", "unregister", "photo", "more"}),
                           "The following argument was not expected: more"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"share", "register", "a", "/a", "--ftp-privilege", "x"}),
                           "Could not convert: --ftp-privilege = x"));
}

}  // namespace
}  // namespace orbisk::test
