// What the box calls for whole shares: what is told to whom, in which order, and what stays when something fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/json.h"
#include "orbisk/lock_file.h"
#include "tests/support/fake_box.h"
#include "tests/support/fake_daemon_connection.h"
#include "tests/support/fake_monitor_queue.h"
#include "tests/support/fake_share.h"
#include "tests/unit/fileindex/management_box.h"
#include "tests/unit/fileindex/queue_lines.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::FakeConnections;
using orbisk::test::FakeIndexLocation;
using orbisk::test::FakeMonitorQueues;
using orbisk::test::FakePlatform;
using orbisk::test::FakeShares;
using orbisk::test::ReadFile;
using testing::Contains;
using testing::HasSubstr;

class ShareOperations : public testing::Test {
 protected:
  ShareOperations() {
    box_.AddShare("music");
    box_.AddShare("photo");
    WriteFoldersFile({Entry("/photo/a", "d"), Entry("/music/a", "d"), Entry("/photo/b", "d")});
  }

  static Story Paths() { return PathsOf(FolderMgr()); }
  // The paused folders.
  static Story Paused() {
    Story paths;
    const FolderMgr folder_mgr;
    for (const auto& folder : folder_mgr.GetFolders()) {
      if (folder->IsPaused()) {
        paths.push_back(folder->GetPath());
      }
    }
    return paths;
  }

  ManagementBox box_;
};

TEST_F(ShareOperations, AMissingArgumentIsRefusedBeforeAnythingElse) {
  orbisk::test::WriteFile(kFoldersFile, "not readable");
  const std::vector<std::tuple<std::string, std::string, std::string, std::function<void()>>> kCalls = {
      {"ShareRename", "share_from.empty()", "Missing share_from", [] { ShareRename("", ""); }},
      {"ShareRename", "share_to.empty()", "Missing share_to", [] { ShareRename("photo", ""); }},
      {"ShareMigrate", "share_name.empty()", "Missing share_name", [] { ShareMigrate("", "", ""); }},
      {"ShareMigrate", "path_from.empty()", "Missing path_from", [] { ShareMigrate("photo", "", ""); }},
      {"ShareMigrate", "path_to.empty()", "Missing path_to", [] { ShareMigrate("photo", "/v/photo", ""); }},
      {"SharePause", "share_name.empty()", "Missing share name", [] { SharePause(""); }},
      {"ShareResume", "share_name.empty()", "Missing share name", [] { ShareResume(""); }},
      {"ShareRebuild", "share_name.empty()", "Missing share name", [] { ShareRebuild(""); }},
      {"ShareClearPaused", "share_name.empty()", "Missing share name", [] { ShareClearPaused("", ""); }},
      {"ShareClearPaused", "share_path.empty()", "Missing share path", [] { ShareClearPaused("photo", ""); }},
      {"ShareAutoClean", "share_name.empty()", "Missing share name", [] { ShareAutoClean(""); }},
  };
  for (const auto& [function, condition, reason, call] : kCalls) {
    EXPECT_EQ(Story{"Error 120 " + reason}, box_.StoryOf(call)) << function;
    ASSERT_EQ(1U, box_.log().records().size());
    ExpectFailed(box_.log().records().front(), function, condition, reason);
  }
}

TEST_F(ShareOperations, NothingIsDoneForAShareWithoutFolders) {
  WriteFoldersFile({Entry("/music/a")});
  const std::string before = ReadFile(kFoldersFile);
  const std::vector<std::function<void()>> kCalls = {
      [] { ShareMigrate("photo", "/old/photo", "/new/photo"); },
      [] { SharePause("photo"); },
      [] { ShareResume("photo"); },
      [] { ShareRebuild("photo"); },
      [] { ShareAutoClean("photo"); },
      [] { ShareAutoClean("gone"); },
  };
  for (const auto& call : kCalls) {
    EXPECT_EQ(Story{}, box_.StoryOf(call));
  }
  EXPECT_EQ(before, ReadFile(kFoldersFile));
}

TEST_F(ShareOperations, NoneTakesTheLockOfTheConfiguration) {
  const LockFile held("/tmp/orbisk_cfg_folder.lock", true);
  const std::vector<std::function<void()>> kCalls = {
      [&] { ShareMigrate("photo", "/old/photo", box_.Full("/photo")); },
      [] { SharePause("photo"); },
      [] { ShareResume("photo"); },
      [] { ShareRebuild("photo"); },
      [] { ShareCheckRecycle("photo"); },
      [] { ShareAutoClean("photo"); },
      [] { ShareRename("photo", "photo"); },
      [] { ShareClearPaused("photo", "/volume1/photo"); },
  };
  for (const auto& call : kCalls) {
    EXPECT_EQ("none", ErrorOf(call));
  }
}

TEST_F(ShareOperations, RenamingSavesBeforeTheIndexIsTouchedAndQueuesOneEvent) {
  box_.AddShare("pic");

  const Story story = box_.StoryOf([] { ShareRename("photo", "pic"); });

  EXPECT_EQ((Story{"save folders",
                   R"(search index_config_set {"data":{"id":"fileindex_pic","path":"V/@fileindex/pic/db"},)"
                   R"("id":"fileindex_photo"})",
                   EventNote(EVENT_RENAME, "V/pic", "V/photo")}),
            story);
  EXPECT_EQ((Story{"/pic/a", "/music/a", "/pic/b"}), Paths());
}

TEST_F(ShareOperations, RenamingChangesTheFirstComponentOfThatNameOnly) {
  box_.AddShare("pic");
  WriteFoldersFile({Entry("/photo/photo/photo"), Entry("/photos/photo"), Entry("/music/photo")});

  box_.StoryOf([] { ShareRename("photo", "pic"); });

  EXPECT_EQ((Story{"/pic/photo/photo", "/photos/photo", "/music/photo"}), Paths());
}

TEST_F(ShareOperations, TheOldPathOfARenamedShareReplacesTheFirstComponentOfItsNewName) {
  std::filesystem::create_directories(box_.Full("/pic/@fileindex/pic"));
  std::filesystem::create_directories(box_.Full("/pic/pic"));
  FakeShares().Add("pic", box_.Full("/pic/pic"));

  const Story story = box_.StoryOf([] { ShareRename("photo", "pic"); });

  EXPECT_EQ(EventNote(EVENT_RENAME, "V/pic/pic", "V/photo/pic"), story.back());
}

TEST_F(ShareOperations, RenamingAShareWithoutFoldersSavesAndTellsAllTheSame) {
  box_.AddShare("pic");
  WriteFoldersFile({Entry("/music/a")});

  EXPECT_EQ(3U, box_.StoryOf([] { ShareRename("photo", "pic"); }).size());
}

TEST_F(ShareOperations, ARenameWhoseIndexFailsHasSavedTheFolders) {
  box_.AddShare("pic");
  FakeConnections().Reply(kRefusal);

  const Story story = box_.StoryOf([] { ShareRename("photo", "pic"); });

  EXPECT_EQ(3U, story.size());
  EXPECT_EQ(kRefused, story.back());
  EXPECT_EQ((Story{"/pic/a", "/music/a", "/pic/b"}), Paths());
}

TEST_F(ShareOperations, ARenameToAShareThatDoesNotExistHasSavedTheFolders) {
  EXPECT_EQ((Story{"save folders", "Error 800 pic"}), box_.StoryOf([] { ShareRename("photo", "pic"); }));
  EXPECT_EQ((Story{"/pic/a", "/music/a", "/pic/b"}), Paths());
}

TEST_F(ShareOperations, MigratingMovesTheIndexAndTheDocumentsAndNothingElse) {
  const Story story = box_.StoryOf([&] { ShareMigrate("photo", "/old/photo", box_.Full("/photo")); });

  EXPECT_EQ((Story{R"(search index_config_set {"data":{"path":"V/@fileindex/photo/db"},"id":"fileindex_photo"})",
                   EventNote(EVENT_RENAME, "V/photo", "/old/photo")}),
            story);
}

TEST_F(ShareOperations, PausingStopsWorkerMonitorAndIndexAndSavesLast) {
  EXPECT_EQ((Story{WorkerNote("worker_delete", "photo"), UnwatchNote("photo"), SearchNote("index_pause", "photo"),
                   "save folders"}),
            box_.StoryOf([] { SharePause("photo"); }));
  EXPECT_EQ((Story{"/photo/a", "/photo/b"}), Paused());
}

TEST_F(ShareOperations, APauseThatFailsLeavesTheFoldersUnpaused) {
  FakeConnections().Reply(kRefusal);

  EXPECT_EQ(
      (Story{WorkerNote("worker_delete", "photo"), UnwatchNote("photo"), SearchNote("index_pause", "photo"), kRefused}),
      box_.StoryOf([] { SharePause("photo"); }));
  EXPECT_EQ(Story{}, Paused());
}

TEST_F(ShareOperations, ResumingOpensIndexMonitorAndWorkerAndSavesLast) {
  box_.StoryOf([] { SharePause("photo"); });
  box_.StoryOf([] { SharePause("music"); });

  EXPECT_EQ((Story{SearchNote("index_resume", "photo"), WatchNote("photo", {"/photo/a", "/photo/b"}),
                   WorkerNote("worker_create", "photo"), "save folders"}),
            box_.StoryOf([] { ShareResume("photo"); }));
  EXPECT_EQ(Story{"/music/a"}, Paused());
}

TEST_F(ShareOperations, ChangesMadeDuringAPauseAreNotAskedForWhenItEnds) {
  box_.StoryOf([] { SharePause("photo"); });

  for (const std::string& line : box_.StoryOf([] { ShareResume("photo"); })) {
    EXPECT_NE(0U, line.rfind("event", 0)) << line;
  }
}

TEST_F(ShareOperations, RebuildingQueuesTheReindexBeforeTheWorkerIsMade) {
  EXPECT_EQ(
      (Story{SearchNote("index_delete", "photo"), CreateNote("photo"), WatchNote("photo", {"/photo/a", "/photo/b"}),
             EventNote(EVENT_REINDEX, "V/photo"), WorkerNote("worker_create", "photo")}),
      box_.StoryOf([] { ShareRebuild("photo"); }));
}

TEST_F(ShareOperations, ClearingAPausedShareForgetsItsDataIndexAndFolders) {
  const Story story = box_.StoryOf([] { ShareClearPaused("photo", "/gone/photo"); });

  EXPECT_EQ(Joined({CleanNotes("/gone/photo"), {SearchNote("index_delete", "photo"), "save folders"}}), story)
      << "the path as given, no monitor, no services while folders remain";
  EXPECT_EQ(Story{"/music/a"}, Paths());
  EXPECT_THAT(box_.records(), Contains(HasSubstr("Remove share photo from folder mgr")));
}

TEST_F(ShareOperations, ClearingThePausedShareThatIsTheLastStopsTheServices) {
  WriteFoldersFile({Entry("/photo/a")});

  EXPECT_EQ(Joined({CleanNotes("/gone/photo"),
                    {SearchNote("index_delete", "photo"), "save folders", "NIMOSMBIsEnableSpotlight()",
                     "NLIBServiceStop(nimocontentextractd, 0)", "NLIBServicectlStop(pkg-Orbisk-fileindexd, 1)"}}),
            box_.StoryOf([] { ShareClearPaused("photo", "/gone/photo"); }));
}

TEST_F(ShareOperations, ClearingAShareThatIsNotIndexedIsDoneAllTheSame) {
  EXPECT_EQ(Joined({CleanNotes("/gone/video"), {SearchNote("index_delete", "video"), "save folders"}}),
            box_.StoryOf([] { ShareClearPaused("video", "/gone/video"); }));
}

TEST_F(ShareOperations, ClearingAPausedShareStopsAtTheFirstFailure) {
  FakeConnections().Reply(kRefusal);

  EXPECT_EQ(Joined({CleanNotes("/gone/photo"), {SearchNote("index_delete", "photo"), kRefused}}),
            box_.StoryOf([] { ShareClearPaused("photo", "/gone/photo"); }));
  EXPECT_EQ(3U, Paths().size());
  EXPECT_EQ((Story{"Error 502 FILEIDXQueuePathCompose failed, share_path=photo"}),
            box_.StoryOf([] { ShareClearPaused("photo", "photo"); }));
}

TEST_F(ShareOperations, AutoCleaningDropsIndexMonitorAndDataAndKeepsTheFolders) {
  const std::string before = ReadFile(kFoldersFile);

  EXPECT_EQ(Joined({{SearchNote("index_delete", "photo"), UnwatchNote("photo")}, CleanNotes("V/photo")}),
            box_.StoryOf([] { ShareAutoClean("photo"); }));
  EXPECT_EQ(before, ReadFile(kFoldersFile));
}

TEST_F(ShareOperations, AutoCleaningAShareThatIsGoneDeletesItsIndexAndFailsAsTheLookUpDoes) {
  FakeShares().Remove("photo");

  EXPECT_EQ((Story{SearchNote("index_delete", "photo"), "Error 800 photo"}),
            box_.StoryOf([] { ShareAutoClean("photo"); }));
}

TEST_F(ShareOperations, AMonitorThatDoesNotLetGoIsAnError) {
  FakeMonitorQueues().remove.FailAt(1);

  EXPECT_EQ((Story{SearchNote("index_delete", "photo"), UnwatchNote("photo"),
                   "Error 502 MonitorQueue::Delete failed, share=photo"}),
            box_.StoryOf([] { ShareAutoClean("photo"); }));
  ExpectFailed(box_.log().records().back(), "DeleteNimotifydCfg",
               "!MonitorQueue::Delete(share.GetQueuePath(), kAppName, MONITOR_QUEUE_TYPE_APPLICATION)",
               "MonitorQueue::Delete failed, share=photo");
}

TEST_F(ShareOperations, CheckingARecycleBinHasItComparedWhetherItIsThereOrNot) {
  EXPECT_EQ(Story{EventNote(EVENT_REINDEX, "V/photo/#recycle")}, box_.StoryOf([] { ShareCheckRecycle("photo"); }));
  WriteFoldersFile({});
  EXPECT_EQ(Story{EventNote(EVENT_REINDEX, "V/music/#recycle")}, box_.StoryOf([] { ShareCheckRecycle("music"); }))
      << "indexed or not";
}

TEST_F(ShareOperations, CheckingARecycleBinOfAShareWhoseFolderIsMissingDoesNothing) {
  std::filesystem::remove_all(box_.Full("/photo"));

  EXPECT_EQ(Story{}, box_.StoryOf([] { ShareCheckRecycle("photo"); }));
}

TEST_F(ShareOperations, AFolderOfAShareThatIsALinkIsNoFolder) {
  std::filesystem::remove_all(box_.Full("/photo"));
  std::filesystem::create_directory_symlink(box_.Full("/music"), box_.Full("/photo"));

  EXPECT_EQ(Story{}, box_.StoryOf([] { ShareCheckRecycle("photo"); }));
}

TEST_F(ShareOperations, CheckingARecycleBinOfNoShareFails) {
  EXPECT_EQ(Story{"Error 800 gone"}, box_.StoryOf([] { ShareCheckRecycle("gone"); }));
  EXPECT_EQ(Story{"Error 800 "}, box_.StoryOf([] { ShareCheckRecycle(""); }));
}

}  // namespace
}  // namespace orbisk::fileindex::test
