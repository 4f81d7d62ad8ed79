// "fileindexctl event", run as a program against real queues.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/system/fileindexctl_box.h"

namespace orbisk::test {
namespace {

using testing::HasSubstr;

class EventCommand : public Box {
 protected:
  void SetUp() override {
    Box::SetUp();
    AddShare(OnFirst("photo"));
    queue_ = QueueOf("photo");
  }

  std::string Queue() const { return std::filesystem::exists(queue_) ? ReadFile(queue_) : "none"; }

  static bool NeedsReindex(const std::string& share) {
    return Parse(Fileindexctl({"status", "--json"}).output)["share"][share].asInt() == 1;
  }

  std::string Reindex(const std::string& path) const {
    return R"({"data":null,"event":65536,"path":")" + OnFirst(path) + R"(","path_old":""})" + "\n";
  }

  std::string queue_;
};

class MarkedShare : public EventCommand {
 protected:
  void SetUp() override {
    EventCommand::SetUp();
    SkipWithoutIdentities();
  }
};

TEST_F(EventCommand, EachTypeIsOneLineOfTheQueue) {
  const std::string a = OnFirst("photo/a");
  const std::string b = OnFirst("photo/b");

  EXPECT_TRUE(Succeeds(Fileindexctl({"event", "add", "rename", b, "--old", a})));
  EXPECT_TRUE(Succeeds(Fileindexctl({"event", "add", "update_directory", a, "--data", R"({"photo": true})"})));
  EXPECT_TRUE(Succeeds(Fileindexctl({"event", "add", "reindex", a})));

  EXPECT_EQ(Queue(), R"({"data":null,"event":256,"path":")" + b + R"(","path_old":")" + a + "\"}\n" +
                         R"({"data":{"photo":true},"event":131072,"path":")" + a + "\",\"path_old\":\"\"}\n" +
                         Reindex("photo/a"));
}

TEST_F(EventCommand, OddNamesComeBackByteForByte) {
  const std::string path = OnFirst("photo/a\n\t\xff\"\\");

  EXPECT_TRUE(Succeeds(Fileindexctl({"event", "add", "reindex", path})));

  EXPECT_EQ(Queue(), R"({"data":null,"event":65536,"path":")" + OnFirst("photo/a\\n\\t\xff\\\"\\\\") +
                         "\",\"path_old\":\"\"}\n");
}

TEST_F(EventCommand, AReindexThatWaitsSwallowsWhatItCovers) {
  ASSERT_TRUE(Succeeds(Fileindexctl({"event", "add", "reindex", OnFirst("photo/2019")})));

  EXPECT_TRUE(Succeeds(Fileindexctl({"event", "add", "reindex", OnFirst("photo/2019")})));
  EXPECT_TRUE(Succeeds(Fileindexctl({"event", "add", "reindex", OnFirst("photo/2019/may")})));
  EXPECT_TRUE(
      Succeeds(Fileindexctl({"event", "add", "rename", OnFirst("photo/2019/b"), "--old", OnFirst("photo/2019/a")})));
  EXPECT_EQ(Queue(), Reindex("photo/2019"));

  EXPECT_TRUE(Succeeds(Fileindexctl({"event", "add", "reindex", OnFirst("photo/20190")})));
  EXPECT_TRUE(Succeeds(Fileindexctl({"event", "add", "reindex", OnFirst("photo")})));
  EXPECT_EQ(Queue(), Reindex("photo/2019") + Reindex("photo/20190") + Reindex("photo"));
}

TEST_F(EventCommand, AShareThatCannotBeIndexedSwallowsEverything) {
  AddShare(OnFirst("photo"), {"--read-only"});

  EXPECT_TRUE(Succeeds(Fileindexctl({"event", "add", "reindex", OnFirst("photo/2019")})));

  EXPECT_EQ(Queue(), "none");
  EXPECT_FALSE(NeedsReindex("photo"));
}

TEST_F(MarkedShare, AMalformedQueueFailsAndMarksTheShare) {
  WriteFile(queue_, "rubbish\n");

  const ProcessResult result = Fileindexctl({"event", "add", "reindex", OnFirst("photo/2019")});

  EXPECT_TRUE(FailsWith(result, "fileindexctl: error 906: Malformed event_raw: rubbish"));
  EXPECT_EQ(Queue(), "rubbish\n");
  EXPECT_TRUE(NeedsReindex("photo"));
  EXPECT_THAT(Fileindexctl({"status"}).output, HasSubstr("share photo:           needs a reindex\n"));
}

TEST_F(MarkedShare, AMissingQueueFolderFailsAndMarksTheShare) {
  std::filesystem::remove(std::filesystem::path(queue_).parent_path());

  const ProcessResult result = Fileindexctl({"event", "add", "reindex", OnFirst("photo/2019")});

  EXPECT_TRUE(
      FailsWith(result, "fileindexctl: error 506: open failed, path=" + queue_ + ", reason=No such file or directory"));
  EXPECT_TRUE(NeedsReindex("photo"));
}

TEST_F(EventCommand, APathThatNoShareHoldsFailsAndMarksNothing) {
  const ProcessResult result = Fileindexctl({"event", "add", "reindex", OnFirst("elsewhere")});

  EXPECT_TRUE(FailsWith(result, "fileindexctl: error 502: NIMOShareNamePathGet failed, full_path=" +
                                    OnFirst("elsewhere") + " (no share holds this path)"));
  EXPECT_FALSE(std::filesystem::exists(kStatusFile));
}

TEST_F(EventCommand, WrongUsageIsStatusTwoAndWritesNothing) {
  const std::string path = OnFirst("photo/a");
  const auto refused = [](const std::vector<std::string>& arguments, const std::string& line) {
    std::vector<std::string> command = {"event"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return IsWrongUsage(Fileindexctl(command), line);
  };

  EXPECT_TRUE(refused({}, "A subcommand is required"));
  EXPECT_TRUE(refused({"add"}, "TYPE is required"));
  EXPECT_TRUE(refused({"add", "reindex"}, "PATH is required"));
  EXPECT_TRUE(refused({"add", "nix", path}, "TYPE: nix not in {reindex,rename,update_directory}"));
  EXPECT_TRUE(refused({"add", "65536", path}, "TYPE: 65536 not in {reindex,rename,update_directory}"));
  EXPECT_TRUE(refused({"add", "rename", path}, "--old: a rename needs it"));
  EXPECT_TRUE(refused({"add", "reindex", path, "--old", path}, "--old: only a rename has it"));
  EXPECT_TRUE(refused({"add", "rename", path, "--old", "a"}, "--old: not a plain full path: a"));
  EXPECT_TRUE(refused({"add", "reindex", path, "--data", "{"}, "--data: not JSON: {"));
  for (const std::string& bad :
       {std::string("a"), path + "/", path + "//b", path + "/./b", path + "/..", std::string()}) {
    EXPECT_TRUE(refused({"add", "reindex", bad}, "PATH: not a plain full path: " + bad));
  }
  EXPECT_EQ(Queue(), "none");
}

}  // namespace
}  // namespace orbisk::test
