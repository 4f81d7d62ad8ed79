// In which order a batch is applied.
#include "services/indexer/pass.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "orbisk/fileindex/queue_mgr.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/indexer/fake_index.h"
#include "tests/unit/indexer/tick.h"

namespace fileindexd {
namespace {

namespace fi = orbisk::fileindex;
namespace fs = std::filesystem;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

class PassTest : public testing::Test {
 protected:
  PassTest() : policy_(Policy::Folders{{At(""), {}}}) {
    fs::create_directory(At(""));
    box_ = {[](const std::string&) { return true; }, [](const std::string&) { return false; }, [] { return true; },
            [] { return false; }, [] {}};
  }

  std::string At(const std::string& name) const { return dir_.path() + "/share" + (name.empty() ? "" : "/" + name); }
  void Write(const std::string& name, const std::string& text) const {
    fs::create_directories(fs::path(At(name)).parent_path());
    WriteFile(At(name), text);
  }
  void AddLine(int event, const std::string& path, const std::string& path_old = "", bool is_dir = false) {
    lines_ += "{\"event\":" + std::to_string(event) + ",\"is_dir\":" + (is_dir ? "true" : "false") + ",\"path\":\"" +
              path + "\",\"path_old\":\"" + path_old + "\"}\n";
  }
  // One pass over what AddLine wrote; what it did to the index.
  std::vector<std::string> Run() {
    AwaitTick();  // what is written after the pass has other dates
    WriteFile(dir_ / "queue", lines_);
    lines_.clear();
    fi::QueueMgr queue(dir_ / "queue");
    Pass pass(At(""));
    queue.ProcessOP([&pass](const std::shared_ptr<fi::OP>& operation) { pass.Take(*operation); }, true);
    Reconciler reconciler(index_, policy_, box_, progress_);
    reconciler.clock = [] { return std::chrono::system_clock::now() + std::chrono::seconds(1); };  // no stamp is young
    pass.Apply(reconciler, progress_, false);
    queue.DeleteTmp();
    return std::exchange(index_.calls, {});
  }
  void Build() {
    AddLine(fi::EVENT_QUEUE_CRASHED, At(""));
    Run();
  }

  TempDir dir_;
  FakeIndex index_;
  Policy policy_;
  Reconciler::Box box_;
  Progress progress_;
  std::string lines_;
};

TEST_F(PassTest, ACrashedQueueRemovesWhatTheShareHadUnderAnotherName) {
  Write("a.txt", "one");
  Build();
  index_.documents["/elsewhere/share"] = {"", ""};
  index_.documents["/elsewhere/share/a.txt"] = {"one", ""};

  AddLine(fi::EVENT_QUEUE_CRASHED, At(""));
  Run();

  EXPECT_EQ(index_.documents.size(), 2U);
  EXPECT_EQ(index_.documents.count(At("a.txt")), 1U);
}

TEST_F(PassTest, ACrashedQueueHasTheWholeShareCompared) {
  Write("a.txt", "one");
  Write("x/b.txt", "two");

  Build();

  EXPECT_EQ(index_.documents.size(), 4U);
}

TEST_F(PassTest, AChangeCarriedByARenameIsReadOnceAtItsNewPlace) {
  Write("x/a.txt", "one");
  Write("x/b.txt", "two");
  Build();
  Write("x/a.txt", "ONE");
  fs::rename(At("x"), At("y"));
  AddLine(fi::EVENT_MODIFY, At("x/a.txt"));
  AddLine(fi::EVENT_RENAME, At("y"), At("x"), true);

  EXPECT_THAT(Run(), ElementsAre("move " + At("x") + " " + At("y"), "read " + At("y/a.txt"), "attributes " + At("y")));
  EXPECT_EQ(index_.documents[At("y/a.txt")].text, "ONE");
}

TEST_F(PassTest, OfTwoThatChangePlacesOneIsRead) {
  Write("a.txt", "one");
  Write("b.txt", "two");
  Build();
  fs::rename(At("a.txt"), At("t"));
  fs::rename(At("b.txt"), At("a.txt"));
  fs::rename(At("t"), At("b.txt"));
  AddLine(fi::EVENT_RENAME, At("t"), At("a.txt"));
  AddLine(fi::EVENT_RENAME, At("a.txt"), At("b.txt"));
  AddLine(fi::EVENT_RENAME, At("b.txt"), At("t"));

  // The fold carries the first rename along with the last one, so it comes first and covers the other document.
  EXPECT_THAT(Run(), UnorderedElementsAre("move " + At("a.txt") + " " + At("b.txt"), "read " + At("a.txt"),
                                          "attributes " + At("b.txt")));
  EXPECT_EQ(index_.documents[At("a.txt")].text, "two");
  EXPECT_EQ(index_.documents[At("b.txt")].text, "one");
  EXPECT_EQ(index_.documents.size(), 3U);
}

TEST_F(PassTest, ARenameOfWhatWasNeverIndexedHasTheTargetRead) {
  Build();
  Write("y/a.txt", "one");
  AddLine(fi::EVENT_RENAME, At("y"), At("x"), true);

  Run();

  EXPECT_EQ(index_.documents[At("y/a.txt")].text, "one");
}

TEST_F(PassTest, WhenEventsGotLostAChangeOfAttributesIsNotTakenForAllThatHappened) {
  Write("a.txt", "one");
  Build();
  struct stat info {};
  ASSERT_EQ(stat(At("a.txt").c_str(), &info), 0);
  Write("a.txt", "ONE");
  const timespec times[] = {info.st_atim, info.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, At("a.txt").c_str(), times, 0), 0);
  AddLine(fi::EVENT_ATTRIB, At("a.txt"));
  AddLine(fi::EVENT_REINDEX, At("x"));

  Run();

  EXPECT_EQ(index_.documents[At("a.txt")].text, "ONE");
}

TEST_F(PassTest, ATreeWithinATreeIsComparedOnce) {
  Write("x/a.txt", "one");
  Write("x!/b.txt", "two");
  AddLine(fi::EVENT_REINDEX, At("x"));
  AddLine(fi::EVENT_REINDEX, At("x!"));
  AddLine(fi::EVENT_UPDATE_DIRECTORY, At("x/a.txt"));
  AddLine(fi::EVENT_RENAME, At("x/c"), At("x/d"));

  Run();

  EXPECT_EQ(progress_.ToJson()["done"].asInt(), 1 + 4) << "the rename, and each of the trees' entries";
  EXPECT_EQ(index_.documents.size(), 4U);
}

TEST_F(PassTest, WhatManyOperationsAreAboutIsAskedForTogether) {
  Build();
  constexpr int kFiles = 300;
  for (int file = 0; file < kFiles; ++file) {
    Write(std::to_string(file), "text");
    AddLine(fi::EVENT_CREATE, At(std::to_string(file)));
  }
  index_.expected.clear();

  Run();

  ASSERT_EQ(index_.expected.size(), 2U);
  EXPECT_EQ(index_.expected[0].size() + index_.expected[1].size(), size_t{kFiles});
  EXPECT_EQ(index_.documents.size(), size_t{kFiles + 1});
}

TEST_F(PassTest, ASingleOperationIsNotAskedForTwice) {
  Build();
  Write("a", "text");
  AddLine(fi::EVENT_CREATE, At("a"));
  index_.expected.clear();
  index_.questions = 0;

  Run();

  EXPECT_TRUE(index_.expected.empty());
  EXPECT_EQ(index_.questions, 1);
}

TEST_F(PassTest, NewFilesAndFilesThatCameAndWentRemoveNothing) {
  Build();
  Write("new", "text");
  AddLine(fi::EVENT_CREATE, At("new"));
  AddLine(fi::EVENT_MODIFY, At("gone"));
  index_.removals = 0;

  Run();

  EXPECT_EQ(index_.removals, 0);
  EXPECT_EQ(index_.documents.count(At("new")), 1U);
}

TEST_F(PassTest, AFileInTheFoldersPlaceRemovesWhatWasBelowThoughTheFolderHadNoDocument) {
  Write("x/a.txt", "one");
  Build();
  index_.documents.erase(At("x"));
  fs::remove_all(At("x"));
  Write("x", "a file now");
  AddLine(fi::EVENT_MODIFY, At("x"));

  Run();

  EXPECT_EQ(index_.documents.count(At("x/a.txt")), 0U);
  EXPECT_EQ(index_.documents[At("x")].text, "a file now");
}

TEST_F(PassTest, RenamesCountAsWork) {
  Write("a", "text");
  Build();
  const int before = progress_.ToJson()["done"].asInt();
  fs::rename(At("a"), At("b"));
  AddLine(fi::EVENT_RENAME, At("b"), At("a"));

  Run();

  EXPECT_EQ(progress_.ToJson()["done"].asInt() - before, 3) << "the rename, and both its sides";
  EXPECT_EQ(progress_.ToJson()["to_do"].asInt(), 0);
}

}  // namespace
}  // namespace fileindexd
