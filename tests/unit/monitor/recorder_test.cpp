// Which queue gets which line.
#include "services/monitor/recorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "tests/support/temp_dir.h"

namespace nimotifyd {
namespace {

class RecorderTest : public testing::Test {
 protected:
  void Add(const std::string& queue, std::vector<WatchEntry> entries) {
    registrations_.push_back({"app", folder_ / queue, std::move(entries)});
    sinks_.try_emplace(folder_ / queue, std::make_unique<QueueSink>(folder_ / queue, 100'000));
    scopes_ = std::make_unique<Scopes>(registrations_, sinks_);
    recorder_ = std::make_unique<Recorder>(*scopes_);
  }
  FolderViews At(const std::string& path, uint64_t mount = 1) const { return {recorder_->MakeView(mount, path)}; }
  std::string Written(const std::string& queue) {
    sinks_.at(folder_ / queue)->FlushNow({});
    return std::filesystem::exists(folder_ / queue) ? orbisk::test::ReadFile(folder_ / queue) : "";
  }
  static std::string Line(int event, const std::string& path) {
    return "{\"event\":" + std::to_string(event) + ",\"is_dir\":false,\"path\":\"" + path + "\"}\n";
  }

  static constexpr uint32_t kAll = 0xFFC6;
  orbisk::test::TempDir folder_;
  std::vector<Registration> registrations_;
  std::unordered_map<std::string, std::unique_ptr<QueueSink>> sinks_;
  std::unique_ptr<Scopes> scopes_;
  std::unique_ptr<Recorder> recorder_;
};

TEST_F(RecorderTest, BitsOutsideTheMaskAreNotWrittenButWanted) {
  Add("q", {{"/s", kCreate, {}}});

  EXPECT_TRUE(recorder_->Report(At("/s"), "f", false, kModify));
  EXPECT_TRUE(recorder_->Report(At("/s"), "f", false, kCreate));
  EXPECT_EQ(Written("q"), Line(64, "/s/f"));
}

TEST_F(RecorderTest, IgnoredNameIsNotWanted) {
  Add("q", {{"/s", kAll, {"no"}}});

  EXPECT_FALSE(recorder_->Report(At("/s"), "no", false, kCreate));
  EXPECT_FALSE(recorder_->Report(At("/elsewhere"), "f", false, kCreate));
  EXPECT_EQ(Written("q"), "");
}

TEST_F(RecorderTest, RenameBetweenMountsOfDifferentViewsIsADeleteAndACreate) {
  Add("q", {{"/s", kAll, {}}});
  const FolderViews from = {recorder_->MakeView(1, "/s/a")};
  const FolderViews to = {recorder_->MakeView(2, "/s/b"), recorder_->MakeView(3, "/s/c")};

  EXPECT_TRUE(recorder_->ReportRename(from, "x", to, "y", false));

  EXPECT_EQ(Written("q"), Line(64, "/s/b/y") + Line(64, "/s/c/y") + Line(128, "/s/a/x"));
}

TEST_F(RecorderTest, RenameOfAFolderSeenThroughTwoMountsIsARenameInEach) {
  Add("q", {{"/s", kAll, {}}});
  const FolderViews folder = {recorder_->MakeView(1, "/s/a"), recorder_->MakeView(2, "/s/b")};

  recorder_->ReportRename(folder, "x", folder, "y", false);

  EXPECT_EQ(Written("q"),
            "{\"event\":256,\"is_dir\":false,\"path\":\"/s/a/y\",\"path_old\":\"/s/a/x\"}\n"
            "{\"event\":256,\"is_dir\":false,\"path\":\"/s/b/y\",\"path_old\":\"/s/b/x\"}\n");
}

TEST_F(RecorderTest, RenameFromOneQueueToAnotherIsADeleteThereAndACreateHere) {
  Add("q", {{"/s/a", kAll, {}}});
  Add("r", {{"/s/b", kAll, {}}});

  recorder_->ReportRename(At("/s/a"), "x", At("/s/b"), "y", false);

  EXPECT_EQ(Written("q"), Line(128, "/s/a/x"));
  EXPECT_EQ(Written("r"), Line(64, "/s/b/y"));
}

TEST_F(RecorderTest, RenameNeedsItsBitOnBothSides) {
  Add("q", {{"/s/a", kAll & ~kRename, {}}, {"/s/b", kAll, {}}});

  recorder_->ReportRename(At("/s/a"), "x", At("/s/b"), "y", false);

  EXPECT_EQ(Written("q"), Line(128, "/s/a/x") + Line(64, "/s/b/y"));
}

TEST_F(RecorderTest, FolderRenamedBetweenEntriesThatIgnoreDifferentNamesIsLookedThroughAgain) {
  Add("q", {{"/s/a", kAll, {"skipped"}}, {"/s/b", kAll, {}}, {"/s/c", kAll & ~kCreate, {}}});
  const std::string renamed = R"({"event":256,"is_dir":true,"path":"/s/b/y","path_old":"/s/a/x"})"
                              "\n";

  recorder_->ReportRename(At("/s/a"), "x", At("/s/b"), "y", true);
  EXPECT_EQ(Written("q"), renamed + R"({"event":64,"is_dir":true,"path":"/s/b/y"})" + "\n");

  recorder_->ReportRename(At("/s/a"), "x", At("/s/b"), "y", false);  // nothing is below a file
  recorder_->ReportRename(At("/s/b"), "x", At("/s/b"), "y", true);   // nothing else is skipped there
  recorder_->ReportRename(At("/s/a"), "x", At("/s/c"), "y", true);   // a create is not asked for there
  const std::string text = Written("q");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5);
  EXPECT_EQ(text.find("\"event\":64", text.find("\"event\":64") + 1), std::string::npos);
}

TEST_F(RecorderTest, RegisteredFolderInsideAnotherIsDecidedByItsOwnEntry) {
  Add("q", {{"/s", kAll, {}}, {"/s/in", kDelete, {}}});

  recorder_->Report(At("/s"), "in", true, kCreate);
  recorder_->Report(At("/s"), "in", true, kDelete);

  EXPECT_EQ(Written("q"), "{\"event\":128,\"is_dir\":true,\"path\":\"/s/in\"}\n");
}

TEST_F(RecorderTest, RootOfTheFileSystemMakesNoDoubleSlash) {
  Add("q", {{"/", kAll, {}}});

  recorder_->Report(At("/"), "f", false, kCreate);

  EXPECT_EQ(Written("q"), Line(64, "/f"));
}

}  // namespace
}  // namespace nimotifyd
