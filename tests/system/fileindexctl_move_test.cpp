// "fileindexctl share move-name", run as a program with all daemons: the share has another name, and nothing else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>

#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/json.h"
#include "orbisk/sdk/share.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kNote[] = "/etc/nimo/share-move.json";

// The share "music" is indexed.
class MoveCommand : public IndexerBox {
 protected:
  void SetUp() override {
    SkipWithoutIdentities();
    if (IsSkipped()) {
      return;
    }
    IndexerBox::SetUp();
    AddShare(OnFirst("music"), {"--recycle", "--ftp-privilege", "3"});
    WriteFile(OnFirst("music/a.txt"), "kingfisher");
    MakeFolder(OnFirst("music/deep"));
    WriteFile(OnFirst("music/deep/b.txt"), "bittern");
    StartIndexer();
    ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/music", "--name", "Songs"})));
    ASSERT_TRUE(BecomesEqual(std::chrono::seconds(30), "music"));
  }
  void TearDown() override {
    if (!IsSkipped()) {
      IndexerBox::TearDown();
    }
  }

  static ProcessResult Move(const std::string& from, const std::string& to) {
    return Fileindexctl({"share", "move-name", from, to});
  }
  std::string IndexFolder(const std::string& share) const { return OnFirst("@fileindex/" + share); }
  static std::string Registered(const std::string& share) {
    for (const Json::Value& one : Parse(Fileindexctl({"share", "list", "--json"}).output)) {
      if (one["name"].asString() == share) {
        return one["path"].asString();
      }
    }
    return "";
  }
  // The share is as before: what changes in it is found.
  void ExpectUntouched() const {
    EXPECT_EQ(Registered("music"), OnFirst("music"));
    EXPECT_EQ(Registered("songs"), "");
    EXPECT_TRUE(fileindex::FolderMgr().HasFolder("/music"));
    EXPECT_FALSE(fs::exists(kNote));
    WriteFile(OnFirst("music/new.txt"), "wagtail");
    EXPECT_TRUE(BecomesEqual(std::chrono::seconds(30), "music"));
  }
  void ExpectMoved() const {
    EXPECT_EQ(Registered("music"), "");
    EXPECT_EQ(Registered("songs"), OnFirst("songs"));
    EXPECT_FALSE(fs::exists(OnFirst("music")));
    EXPECT_FALSE(fileindex::FolderMgr().HasFolder("/music"));
    EXPECT_FALSE(fs::exists(kNote));
    WriteFile(OnFirst("songs/new.txt"), "wagtail");
    EXPECT_TRUE(BecomesEqual(std::chrono::seconds(30), "songs"));
  }
  // Until a call has begun, or perhaps ended.
  static void AwaitNote() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!fs::exists(kNote) && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  }
  // The note that a call leaves which was killed in the step of this number.
  void WriteNote(unsigned step) const {
    Json::Value note;
    note["from"] = "music";
    note["to"] = "songs";
    note["path_from"] = OnFirst("music");
    note["path_to"] = OnFirst("songs");
    struct stat attributes {};
    ASSERT_TRUE(stat(OnFirst("music").c_str(), &attributes) == 0 || stat(OnFirst("songs").c_str(), &attributes) == 0);
    note["folder"] = Json::UInt64{attributes.st_ino};
    note["indexed"] = true;
    note["resume"] = true;
    note["step"] = step;
    ASSERT_TRUE(toFile(note, kNote));
  }
};

TEST_F(MoveCommand, FolderEntryIndexAndDocumentsHaveTheNewName) {
  EXPECT_TRUE(Succeeds(Move("music", "songs")));

  ExpectMoved();
  const Json::Value folder = Parse(Fileindexctl({"folder", "get", "/songs", "--json"}).output);
  EXPECT_EQ(folder["name"], "Songs");
  EXPECT_FALSE(folder["paused"].asBool());
  EXPECT_FALSE(fs::exists(IndexFolder("music")));
  const ProcessResult found = Fileindexctl({"search", "--share", "songs", "bittern"});
  EXPECT_THAT(found.output, StartsWith(OnFirst("songs/deep/b.txt")));
}

TEST_F(MoveCommand, TheEntryKeepsItsSettingsAndItsPlace) {
  ASSERT_TRUE(Succeeds(Move("docs", "papers")));
  ASSERT_TRUE(Succeeds(Move("music", "songs")));

  const Json::Value shares = Parse(Fileindexctl({"share", "list", "--json"}).output);
  ASSERT_EQ(shares.size(), 2U);
  EXPECT_EQ(shares[0]["name"], "papers");
  EXPECT_EQ(shares[1]["name"], "songs");
  EXPECT_TRUE(shares[1]["recycle"].asBool());
  EXPECT_EQ(shares[1]["ftp_privilege"], 3);
}

TEST_F(MoveCommand, WhatWaitsInTheQueueIsNotLost) {
  ASSERT_TRUE(Succeeds(Fileindexctl({"pause"})));
  WriteFile(OnFirst("music/deep/b.txt"), "dipper");
  fs::remove(OnFirst("music/a.txt"));
  ASSERT_TRUE(Eventually([this] { return fs::exists(IndexFolder("music") + "/queue"); }));

  EXPECT_TRUE(Succeeds(Move("music", "songs")));
  EXPECT_TRUE(Succeeds(Fileindexctl({"resume"})));

  EXPECT_TRUE(BecomesEqual(std::chrono::seconds(30), "songs"));
  EXPECT_FALSE(fs::exists(IndexFolder("music")));
}

TEST_F(MoveCommand, AShareThatWasPausedWithItsVolumeLeavesNothingBehind) {
  StopIndexer();  // it would clear up behind a share that is configured no more
  ASSERT_TRUE(fs::exists(IndexFolder("music") + "/queue.mark"));
  ASSERT_TRUE(Succeeds(Fileindexctl({"volume", "pause", Volume()})));

  EXPECT_TRUE(Succeeds(Move("music", "songs")));

  EXPECT_FALSE(fs::exists(IndexFolder("music")));
  EXPECT_TRUE(Parse(Fileindexctl({"folder", "get", "/songs", "--json"}).output)["paused"].asBool());
  StartIndexer();
  EXPECT_TRUE(Succeeds(Fileindexctl({"volume", "resume", Volume()})));
  ExpectMoved();
}

TEST_F(MoveCommand, AShareThatIsNotIndexedIsMovedAsWell) {
  AddShare(OnFirst("plain"));

  EXPECT_TRUE(Succeeds(Move("plain", "simple")));

  EXPECT_EQ(Registered("simple"), OnFirst("simple"));
  EXPECT_TRUE(fs::exists(OnFirst("simple")));
}

TEST_F(MoveCommand, APausedShareStaysPaused) {
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "pause", "music"})));

  EXPECT_TRUE(Succeeds(Move("music", "songs")));
  EXPECT_TRUE(fileindex::FolderMgr().GetFolders().back()->IsPaused());
  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "resume", "songs"})));

  ExpectMoved();
}

TEST_F(MoveCommand, AShareOfWhichOneFolderIsPausedIsRefusedBeforeAnythingIsDone) {
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/music/deep"})));
  const fileindex::FolderMgr folder_mgr;
  folder_mgr.GetFolders().back()->SetPaused(true);
  folder_mgr.Save();

  EXPECT_TRUE(
      FailsWith(Move("music", "songs"),
                "fileindexctl: the folder /music/deep is paused while others of the share are not, and would be "
                "resumed; 'fileindexctl share pause music' or 'share resume music' before makes them alike"));

  ExpectUntouched();
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "resume", "music"})));
  EXPECT_TRUE(Succeeds(Move("music", "songs")));
}

TEST_F(MoveCommand, NamesThatCannotBeAreRefusedBeforeAnythingIsDone) {
  EXPECT_TRUE(FailsWith(Move("nothing", "songs"), "fileindexctl: no such share: nothing"));
  EXPECT_TRUE(FailsWith(Move("music", "docs"), "fileindexctl: there is a share docs already"));
  EXPECT_TRUE(FailsWith(Move("music", "volume1"),
                        "fileindexctl: a folder above the share is called volume1, too; its documents would not be "
                        "found"));
  EXPECT_TRUE(FailsWith(Move("music", "music"), "fileindexctl: there is a share music already"));
  EXPECT_EQ(Move("music", "a/b").exit_status, 2);
  EXPECT_EQ(Move("music", "..").exit_status, 2);
  MakeFolder(OnFirst("songs"));
  EXPECT_TRUE(FailsWith(Move("music", "songs"), "fileindexctl: " + OnFirst("songs") + ": there is something already"));
  fs::remove(OnFirst("songs"));

  ExpectUntouched();
}

TEST_F(MoveCommand, AFolderThatCannotBeRenamedLeavesAllAsItWas) {
  ASSERT_EQ(mount(OnFirst("music").c_str(), OnFirst("music").c_str(), nullptr, MS_BIND, nullptr), 0);

  const ProcessResult result = Move("music", "songs");
  ASSERT_EQ(umount2(OnFirst("music").c_str(), MNT_DETACH), 0);

  EXPECT_TRUE(FailsWith(result, "fileindexctl: cannot rename the folder and its entry: " + OnFirst("music") + " to " +
                                    OnFirst("songs") + ": Device or resource busy; all is as it was"));
  ExpectUntouched();
}

TEST_F(MoveCommand, ARegistryThatCannotBeWrittenLeavesAllAsItWas) {
  MakeFolder("/etc/nimo/shares.json.tmp");

  const ProcessResult result = Move("music", "songs");
  fs::remove("/etc/nimo/shares.json.tmp");

  EXPECT_TRUE(FailsWith(result,
                        "fileindexctl: cannot rename the folder and its entry: cannot write "
                        "/etc/nimo/shares.json.tmp: Is a directory; all is as it was"));
  ExpectUntouched();
}

TEST_F(MoveCommand, AQueueThatCannotBeMovedLeavesAllAsItWas) {
  ASSERT_TRUE(Succeeds(Fileindexctl({"pause"})));
  WriteFile(OnFirst("music/deep/b.txt"), "dipper");
  ASSERT_TRUE(Eventually([this] { return fs::exists(IndexFolder("music") + "/queue"); }));
  MakeFolder(IndexFolder("songs"));
  MakeFolder(IndexFolder("songs") + "/queue");
  WriteFile(IndexFolder("songs") + "/queue/something", "");

  const ProcessResult result = Move("music", "songs");
  fs::remove_all(IndexFolder("songs"));
  ASSERT_TRUE(Succeeds(Fileindexctl({"resume"})));

  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.errors, StartsWith("fileindexctl: cannot move the queue: "));
  EXPECT_THAT(result.errors, HasSubstr("; all is as it was\n"));
  ExpectUntouched();
}

TEST_F(MoveCommand, AnIndexThatCannotBeRenamedLeavesAllAsItWas) {
  MakeFolder(IndexFolder("songs") + "/db");
  fs::copy(IndexFolder("docs") + "/db", IndexFolder("songs") + "/db");

  const ProcessResult result = Move("music", "songs");
  fs::remove_all(IndexFolder("songs"));

  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.errors, StartsWith("fileindexctl: cannot rename the index: error 1205: "));
  EXPECT_THAT(result.errors, HasSubstr("; all is as it was\n"));
  ExpectUntouched();
}

TEST_F(MoveCommand, WithoutTheDaemonsNothingIsDone) {
  KillIndexer();
  const ProcessResult without_indexer = Move("music", "songs");
  StartIndexer();
  KillSearchDaemon();
  const ProcessResult without_search = Move("music", "songs");
  StartSearchDaemon();
  WaitUntilOpen("music");

  EXPECT_EQ(without_indexer.exit_status, 1);
  EXPECT_THAT(without_indexer.errors, StartsWith("fileindexctl: error 502: the indexing daemon cannot be reached"));
  EXPECT_EQ(without_search.exit_status, 1);
  EXPECT_THAT(without_search.errors, StartsWith("fileindexctl: error 913: the search daemon cannot be reached"));
  ExpectUntouched();
}

TEST_F(MoveCommand, AShareThatCannotBeResumedHasItsNewNameAndIsResumedByCallingItAgain) {
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "pause", "music"})));
  ASSERT_TRUE(Succeeds(Move("music", "songs")));
  WriteNote(4);
  KillIndexer();

  const ProcessResult failed = Move("music", "songs");
  StartIndexer();

  EXPECT_EQ(failed.exit_status, 1);
  EXPECT_THAT(failed.errors, StartsWith("fileindexctl: the share has its new name, but is paused: error 502: "));
  EXPECT_THAT(failed.errors, HasSubstr("; 'fileindexctl share move-name music songs' goes on\n"));
  EXPECT_TRUE(Succeeds(Move("music", "songs")));
  ExpectMoved();
}

TEST_F(MoveCommand, AnotherMoveWaitsUntilAnInterruptedOneIsFinished) {
  WriteNote(0);

  EXPECT_TRUE(FailsWith(Move("docs", "papers"),
                        "fileindexctl: another renaming was interrupted; 'fileindexctl share move-name music songs' "
                        "goes on with it"));
  EXPECT_TRUE(Succeeds(Move("music", "songs")));

  ExpectMoved();
}

TEST_F(MoveCommand, OneThatWasInterruptedBehindTheFolderIsFinished) {
  fileindex::SharePause("music");
  fs::rename(OnFirst("music"), OnFirst("songs"));
  WriteNote(1);

  EXPECT_TRUE(Succeeds(Move("music", "songs")));

  ExpectMoved();
}

TEST_F(MoveCommand, OneThatWasInterruptedBehindTheIndexIsFinished) {
  fileindex::SharePause("music");
  fs::rename(OnFirst("music"), OnFirst("songs"));
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "music", "--force"})));
  AddShare(OnFirst("songs"));
  fileindex::elastic::ShareIndexRename("music", "songs", sdk::SDKShare("songs").GetDBPath());
  WriteNote(3);

  EXPECT_TRUE(Succeeds(Move("music", "songs")));

  ExpectMoved();
}

TEST_F(MoveCommand, OneThatWasKilledAtAnyInstantIsFinishedByCallingItAgain) {
  std::string from = "music";
  std::string to = "songs";
  int interrupted = 0;
  bool was_finished = false;
  for (std::chrono::microseconds after{0}; !was_finished; after += std::chrono::microseconds(100) + after / 32) {
    Subprocess first({BuiltProgram("fileindexctl"), "share", "move-name", from, to});
    if (after.count() > 0) {
      AwaitNote();  // how long a program takes to start is not what is tried
    }
    std::this_thread::sleep_for(after);  // the instant is
    first.Kill(SIGKILL);
    was_finished = first.Wait(std::chrono::seconds(30)).exit_status == 0;
    interrupted += fs::exists(kNote) ? 1 : 0;

    const ProcessResult second = Move(from, to);

    if (second.exit_status != 0) {  // nothing was left to be done
      EXPECT_TRUE(FailsWith(second, "fileindexctl: no such share: " + from)) << after.count() << " us";
    }
    EXPECT_EQ(Registered(to), OnFirst(to));
    EXPECT_FALSE(fs::exists(kNote));
    EXPECT_FALSE(fs::exists(OnFirst(from)));
    ASSERT_TRUE(BecomesEqual(std::chrono::seconds(30), to)) << after.count() << " us";
    std::swap(from, to);
  }
  EXPECT_GT(interrupted, 0);
}

}  // namespace
}  // namespace orbisk::test
