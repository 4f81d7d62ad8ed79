// What the box calls for volumes, homes and accounts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "nimo/home.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/json.h"
#include "orbisk/lock_file.h"
#include "tests/support/fake_daemon_connection.h"
#include "tests/support/fake_home.h"
#include "tests/support/fake_monitor_queue.h"
#include "tests/support/fake_share.h"
#include "tests/support/fake_string_list.h"
#include "tests/support/fake_user.h"
#include "tests/unit/fileindex/management_box.h"
#include "tests/unit/fileindex/queue_lines.h"
#include "tests/unit/record_match.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::FakeConnections;
using orbisk::test::FakeHomes;
using orbisk::test::FakeMonitorQueues;
using orbisk::test::FakeShares;
using orbisk::test::FakeStringLists;
using orbisk::test::FakeUsers;
using orbisk::test::Record;
using orbisk::test::RecordText;
using orbisk::test::WithoutLine;
using testing::Contains;
using testing::HasSubstr;

// Two shares on volume 1, and one on volume 10, all below the box's volume.
class VolumeOperations : public testing::Test {
 protected:
  VolumeOperations() {
    AddShare("photo", "/volume1");
    AddShare("music", "/volume1");
    AddShare("video", "/volume10");
    WriteFoldersFile({Entry("/photo/a"), Entry("/video/a"), Entry("/music"), Entry("/photo/b")});
  }

  void AddShare(const std::string& name, const std::string& volume) {
    std::filesystem::create_directories(box_.Full(volume + "/@fileindex/" + name));
    std::filesystem::create_directories(box_.Full(volume + "/" + name));
    FakeShares().Add(name, box_.Full(volume + "/" + name));
  }
  std::string Volume1() const { return box_.Full("/volume1"); }
  // A story of this volume's shares as if it were the box's.
  Story On(const std::string& volume, const std::function<void()>& action) {
    Story story = box_.StoryOf(action);
    for (std::string& line : story) {
      ReplaceAll(line, "V" + volume + "/", "V/");
    }
    return story;
  }
  // Each folder with its state: "/photo/a paused /volume1".
  Story Folders() const {
    Story lines;
    const FolderMgr folder_mgr;
    for (const auto& folder : folder_mgr.GetFolders()) {
      std::string volume = folder->GetVolumeToBeClean();
      if (volume.rfind(box_.Full(""), 0) == 0) {
        volume = volume.substr(box_.Full("").size());
      }
      lines.push_back(folder->GetPath() + (folder->IsPaused() ? " paused" : "") + (volume.empty() ? "" : " ") + volume);
    }
    return lines;
  }

  ManagementBox box_;
};

TEST_F(VolumeOperations, AMissingMountPointIsRefusedBeforeAnythingElse) {
  orbisk::test::WriteFile(kFoldersFile, "not readable");
  const std::vector<std::pair<std::string, std::function<void()>>> kCalls = {
      {"VolumePause", [] { VolumePause(""); }}, {"VolumeResume", [] { VolumeResume(""); }}, {"VolumeClearPaused", [] {
                                                                                               VolumeClearPaused("");
                                                                                             }}};
  for (const auto& [function, call] : kCalls) {
    EXPECT_EQ(Story{"Error 120 Missing mount point"}, box_.StoryOf(call));
    ExpectFailed(box_.log().records().front(), function, "mount_point.empty()", "Missing mount point");
  }
}

TEST_F(VolumeOperations, NoneTakesTheLockOfTheConfiguration) {
  AddShare("homes", "/volume1");
  const LockFile held("/tmp/orbisk_cfg_folder.lock", true);
  const std::vector<std::function<void()>> kCalls = {
      [&] { VolumePause(Volume1()); },   [&] { VolumeResume(Volume1()); }, [&] { VolumeClearPaused(Volume1()); },
      [] { UserRename("ann", "anna"); }, [] { HomeEnable(AUTH_LOCAL); },   [] { HomeDisable(AUTH_LOCAL); }};
  for (const auto& call : kCalls) {
    EXPECT_EQ("none", ErrorOf(call));
  }
}

TEST_F(VolumeOperations, PausingMarksTheFoldersSavesAndLetsTheMonitorGo) {
  EXPECT_EQ((Story{"save folders", UnwatchNote("music"), UnwatchNote("photo")}),
            On("/volume1", [&] { VolumePause(Volume1()); }))
      << "no worker_delete, no index_pause";
  EXPECT_EQ((Story{"/photo/a paused /volume1", "/video/a", "/music paused /volume1", "/photo/b paused /volume1"}),
            Folders());
}

TEST_F(VolumeOperations, AMountPointWithASlashAtItsEndHoldsNothing) {
  EXPECT_EQ(Story{"save folders"}, box_.StoryOf([&] { VolumePause(Volume1() + "/"); }));
  EXPECT_EQ(Story{"save folders"}, box_.StoryOf([&] { VolumeResume(Volume1() + "/"); }));
  EXPECT_EQ((Story{"/photo/a", "/video/a", "/music", "/photo/b"}), Folders());
}

TEST_F(VolumeOperations, AFolderThatIsTheMountPointItselfDoesNotLieOnIt) {
  EXPECT_EQ(Story{"save folders"}, box_.StoryOf([&] { VolumePause(box_.Full("/volume1/music")); }));
}

TEST_F(VolumeOperations, AMonitorThatDoesNotLetGoLeavesTheFoldersPaused) {
  FakeMonitorQueues().remove.FailAt(1);

  EXPECT_EQ((Story{"save folders", UnwatchNote("music"), "Error 502 MonitorQueue::Delete failed, share=music"}),
            On("/volume1", [&] { VolumePause(Volume1()); }));
  EXPECT_EQ("/photo/b paused /volume1", Folders().back());
}

TEST_F(VolumeOperations, AFolderOfAShareThatIsGoneFailsBeforeAnythingIsSaved) {
  FakeShares().Remove("video");

  EXPECT_EQ(Story{"Error 800 video"}, box_.StoryOf([&] { VolumePause(Volume1()); }));
}

TEST_F(VolumeOperations, ResumingSavesAndOpensIndexWorkerAndMonitorOfEachShare) {
  VolumePause(Volume1());

  EXPECT_EQ((Story{"save folders", SearchNote("index_resume", "music"), WorkerNote("worker_create", "music"),
                   WatchNote("music", {"/music"}), SearchNote("index_resume", "photo"),
                   WorkerNote("worker_create", "photo"), WatchNote("photo", {"/photo/a", "/photo/b"})}),
            On("/volume1", [&] { VolumeResume(Volume1()); }));
  EXPECT_EQ((Story{"/photo/a /volume1", "/video/a", "/music /volume1", "/photo/b /volume1"}), Folders())
      << "the mark stays";
}

TEST_F(VolumeOperations, ResumingResumesWhatSharePausePausedToo) {
  SharePause("photo");

  On("/volume1", [&] { VolumeResume(Volume1()); });

  EXPECT_EQ((Story{"/photo/a", "/video/a", "/music", "/photo/b"}), Folders());
}

TEST_F(VolumeOperations, AResumeThatFailsHasSavedTheFolders) {
  VolumePause(Volume1());
  FakeConnections().Reply(kRefusal);

  EXPECT_EQ((Story{"save folders", SearchNote("index_resume", "music"), kRefused}),
            On("/volume1", [&] { VolumeResume(Volume1()); }));
  EXPECT_EQ("/photo/b /volume1", Folders().back());
}

TEST_F(VolumeOperations, ClearingForgetsStatusFoldersAndIndexOfEachShareAndSavesAfterAll) {
  VolumePause(Volume1());
  StatusMgr().SetShareStatus("photo", 1);

  EXPECT_EQ((Story{"save status", SearchNote("index_delete", "music"), "save status",
                   SearchNote("index_delete", "photo"), "save folders"}),
            On("/volume1", [&] { VolumeClearPaused(Volume1()); }))
      << "index data and monitor are left alone";
  EXPECT_EQ(Story{"/video/a"}, Folders());
  EXPECT_EQ(0, StatusMgr().GetShareStatus("photo"));
  EXPECT_THAT(box_.records(), Contains(HasSubstr("Remove share music from folder mgr")));
  EXPECT_THAT(box_.records(), Contains(HasSubstr("Remove share photo from folder mgr")));
}

TEST_F(VolumeOperations, TheRecordOfAForgottenShareIsFileLineAndText) {
  VolumePause(Volume1());

  On("/volume1", [&] { VolumeClearPaused(Volume1()); });

  const Record record = box_.log().records().front();
  EXPECT_EQ(3, record.priority);
  EXPECT_EQ("%s:%d Remove share %s from folder mgr", record.format);
  EXPECT_EQ("index_mgr.cpp:N Remove share music from folder mgr", WithoutLine(record.text));
}

TEST_F(VolumeOperations, ClearingForgetsAllFoldersOfAShareThatHasOneMarked) {
  Json::Value marked = Entry("/photo/a");
  marked["paused"] = true;
  marked["volume_to_be_clean"] = Volume1();
  WriteFoldersFile({marked, Entry("/photo/b"), Entry("/music")});

  On("/volume1", [&] { VolumeClearPaused(Volume1()); });

  EXPECT_EQ(Story{"/music"}, Folders());
}

TEST_F(VolumeOperations, ClearingPassesOverFoldersThatSharePausePausedOrThatWereResumed) {
  VolumePause(Volume1());
  VolumeResume(Volume1());
  SharePause("video");

  EXPECT_EQ(Story{"save folders"}, box_.StoryOf([&] { VolumeClearPaused(Volume1()); }));
  EXPECT_EQ(4U, Folders().size());
}

TEST_F(VolumeOperations, ClearingForgetsAShareThatKeptItsMarkAndWasPausedByItselfLater) {
  VolumePause(Volume1());
  VolumeResume(Volume1());
  SharePause("photo");

  On("/volume1", [&] { VolumeClearPaused(Volume1()); });

  EXPECT_EQ((Story{"/video/a", "/music /volume1"}), Folders());
}

TEST_F(VolumeOperations, ClearingWantsTheMarkExactly) {
  VolumePause(Volume1());

  for (const std::string& mount_point : {Volume1() + "/", Volume1() + "0", box_.Full("/volume")}) {
    EXPECT_EQ(Story{"save folders"}, box_.StoryOf([&] { VolumeClearPaused(mount_point); }));
  }
  EXPECT_EQ(4U, Folders().size());
}

TEST_F(VolumeOperations, ClearingTheLastFolderStopsTheServices) {
  WriteFoldersFile({Entry("/photo/a")});
  VolumePause(Volume1());

  EXPECT_EQ((Story{"save status", SearchNote("index_delete", "photo"), "save folders", "NIMOSMBIsEnableSpotlight()",
                   "NLIBServiceStop(nimocontentextractd, 0)", "NLIBServicectlStop(pkg-Orbisk-fileindexd, 1)"}),
            On("/volume1", [&] { VolumeClearPaused(Volume1()); }));
}

TEST_F(VolumeOperations, AClearThatFailsSavesNoFolders) {
  VolumePause(Volume1());
  FakeConnections().Reply(R"({"success":true})");
  FakeConnections().Reply(kRefusal);

  EXPECT_EQ((Story{"save status", SearchNote("index_delete", "music"), "save status",
                   SearchNote("index_delete", "photo"), kRefused}),
            On("/volume1", [&] { VolumeClearPaused(Volume1()); }));
  EXPECT_EQ(4U, Folders().size());
}

TEST_F(VolumeOperations, AStatusThatCannotBeReadStopsAClearBeforeAnythingIsDeleted) {
  VolumePause(Volume1());
  orbisk::test::WriteFile(kStatusFile, "not readable");

  const Story story = box_.StoryOf([&] { VolumeClearPaused(Volume1()); });

  ASSERT_EQ(1U, story.size());
  EXPECT_THAT(story.front(), HasSubstr("Error 504"));
}

TEST_F(VolumeOperations, AClearKeepsTheFlagsThatOthersSetMeanwhile) {
  VolumePause(Volume1());
  FakeConnections().send.Next([](const std::string&) {
    StatusMgr().SetShareStatus("video", 1);
    return true;
  });

  On("/volume1", [&] { VolumeClearPaused(Volume1()); });

  EXPECT_EQ(1, StatusMgr().GetShareStatus("video"));
}

class Homes : public testing::Test {
 protected:
  Homes() {
    box_.AddShare("homes");
    FakeUsers().Add("ann", 2001, 2001);
    FakeUsers().Add("bob", 2002, 2002);
    FakeHomes().AddToDirectory("dora");
    for (const char* const bin : {"/homes/ann/#recycle", "/homes/bob/#recycle", "/homes/dora/#recycle"}) {
      box_.config().MakeFolder(bin);
    }
    errno = 0;
  }
  ~Homes() override { EXPECT_EQ(0, FakeStringLists().outstanding()); }

  static std::string BinNote(const std::string& account) {
    return EventNote(EVENT_REINDEX, "V/homes/" + account + "/#recycle");
  }
  void ExpectOnlyRecord(const std::string& function, const std::string& tail, const std::string& error) {
    ASSERT_EQ(1U, box_.log().records().size());
    EXPECT_EQ(RecordText("index_mgr.cpp", function, tail, error), WithoutLine(box_.records().front()));
    EXPECT_EQ(3, box_.log().records().front().priority);
    EXPECT_EQ(0, errno);
  }

  ManagementBox box_;
};

TEST_F(Homes, EnablingHasTheBinsOfThatSourceCompared) {
  EXPECT_EQ((Story{"NIMORecycleHomeEnumRecyclePathForAuthType(pointer, 1)", BinNote("ann"), BinNote("bob")}),
            box_.StoryOf([] { HomeEnable(AUTH_LOCAL); }));
  EXPECT_EQ((Story{"NIMORecycleHomeEnumRecyclePathForAuthType(pointer, 2)", BinNote("dora")}),
            box_.StoryOf([] { HomeEnable(AUTH_DIRECTORY); }));
  EXPECT_EQ("1024", FakeStringLists().alloc.calls().front().arguments.front());
}

TEST_F(Homes, DisablingHasTheBinsOfAllCompared) {
  EXPECT_EQ((Story{"NIMORecycleHomeEnumRecyclePath(pointer)", BinNote("ann"), BinNote("bob"), BinNote("dora")}),
            box_.StoryOf([] { HomeDisable(AUTH_DIRECTORY); }));
}

TEST_F(Homes, WithoutBinsNoEventIsWritten) {
  std::filesystem::remove_all(box_.Full("/homes"));

  EXPECT_EQ(Story{"NIMORecycleHomeEnumRecyclePathForAuthType(pointer, 1)"},
            box_.StoryOf([] { HomeEnable(AUTH_LOCAL); }));
  EXPECT_EQ(Story{"NIMORecycleHomeEnumRecyclePath(pointer)"}, box_.StoryOf([] { HomeDisable(AUTH_LOCAL); }));
}

TEST_F(Homes, AnItemThatThePlatformDoesNotHaveIsSkipped) {
  FakeStringLists().get.Next([](const SZLIST*, int) -> const char* { return nullptr; });
  EXPECT_EQ((Story{"NIMORecycleHomeEnumRecyclePath(pointer)", BinNote("bob"), BinNote("dora")}),
            box_.StoryOf([] { HomeDisable(AUTH_LOCAL); }));
}

TEST_F(Homes, AListThatCannotBeMadeIsLoggedAndEndsIt) {
  for (const auto& [function, call] :
       {std::pair<std::string, void (*)(AUTH_TYPE)>{"HomeEnable", HomeEnable}, {"HomeDisable", HomeDisable}}) {
    FakeStringLists().alloc.FailAt(1);
    EXPECT_EQ(Story{}, box_.StoryOf([&, change = call] { change(AUTH_LOCAL); }));
    ExpectOnlyRecord(function, "NLIBCSzListAlloc failed", "");
  }
}

TEST_F(Homes, HomesThatCannotBeListedAreLoggedWithTheSourceAndEndIt) {
  FakeHomes().enumerate_of.Next([](SZLIST** list, AUTH_TYPE) {
    FakeStringLists().Push(list, "/found/before/it/failed");
    errno = EACCES;
    return -1;
  });
  box_.StoryOf([] { HomeEnable(AUTH_DIRECTORY); });
  ExpectOnlyRecord("HomeEnable", "NIMORecycleHomeEnumRecyclePathForAuthType failed. auth: 2", "Permission denied");

  FakeHomes().enumerate.Next([](SZLIST**) { return 1; });
  EXPECT_EQ(Story{"NIMORecycleHomeEnumRecyclePath(pointer)"}, box_.StoryOf([] { HomeDisable(AUTH_DIRECTORY); }));
  ExpectOnlyRecord("HomeDisable", "NIMORecycleHomeEnumRecyclePath failed. auth: 2", "");
}

TEST_F(Homes, AListThatThePlatformReplacesIsTheOneThatIsReadAndFreed) {
  FakeHomes().enumerate.Next([&](SZLIST** list) {
    for (int i = 0; i < 1500; ++i) {
      FakeStringLists().Push(list, box_.Full("/homes/h" + std::to_string(i)));
    }
    return 0;
  });

  EXPECT_EQ(1501U, box_.StoryOf([] { HomeDisable(AUTH_LOCAL); }).size());
}

TEST_F(Homes, AnEventThatCannotBeQueuedIsAnErrorAndTheListFreed) {
  std::filesystem::remove_all(box_.Full("/@fileindex/homes"));

  const Story story = box_.StoryOf([] { HomeDisable(AUTH_LOCAL); });

  EXPECT_THAT(story.back(), HasSubstr("Error 506 open failed"));
}

class RenamingUsers : public testing::Test {
 protected:
  RenamingUsers() {
    box_.AddShare("homes");
    box_.AddShare("photo");
    WriteFoldersFile({Entry("/homes/ann"), Entry("/homes/annie"), Entry("/photo/homes/ann"), Entry("/homes/ann/docs"),
                      Entry("/homes/bob/homes/ann")});
  }
  static Story Paths() { return PathsOf(FolderMgr()); }

  ManagementBox box_;
};

TEST_F(RenamingUsers, MovesTheHomeAndWhatIsBelowItAndNobodyElse) {
  const Story story = box_.StoryOf([] { UserRename("ann", "anna"); });

  EXPECT_EQ((Story{"save folders", EventNote(EVENT_RENAME, "V/homes/anna", "V/homes/ann")}), story);
  EXPECT_EQ((Story{"/homes/anna", "/homes/annie", "/photo/homes/ann", "/homes/anna/docs", "/homes/bob/homes/ann"}),
            Paths());
}

TEST_F(RenamingUsers, IsToldForEachFolderThatChanges) {
  box_.StoryOf([] { UserRename("ann", "anna"); });

  ASSERT_EQ(2U, box_.log().records().size());
  EXPECT_EQ("%s:%d Update homes rule: [%s] -> [%s]", box_.log().records().front().format);
  EXPECT_EQ(3, box_.log().records().front().priority);
  EXPECT_EQ("index_mgr.cpp:N Update homes rule: [/homes/ann] -> [/homes/anna]", WithoutLine(box_.records()[0]));
  EXPECT_EQ("index_mgr.cpp:N Update homes rule: [/homes/ann/docs] -> [/homes/anna/docs]",
            WithoutLine(box_.records()[1]));
}

TEST_F(RenamingUsers, OfOneWithoutFoldersSavesAndQueuesTheEventAllTheSame) {
  EXPECT_EQ((Story{"save folders", EventNote(EVENT_RENAME, "V/homes/d", "V/homes/carl")}),
            box_.StoryOf([] { UserRename("carl", "d"); }));
}

TEST_F(RenamingUsers, WithoutTheShareOfHomesFailsAfterSaving) {
  FakeShares().Remove("homes");

  EXPECT_EQ((Story{"save folders", "Error 800 homes"}), box_.StoryOf([] { UserRename("ann", "anna"); }));
  EXPECT_EQ("/homes/anna", Paths().front());
}

TEST_F(RenamingUsers, AMissingNameIsRefusedBeforeAnythingElse) {
  orbisk::test::WriteFile(kFoldersFile, "not readable");

  EXPECT_EQ(Story{"Error 120 Missing user_from"}, box_.StoryOf([] { UserRename("", ""); }));
  ExpectFailed(box_.log().records().front(), "UserRename", "user_from.empty()", "Missing user_from");
  EXPECT_EQ(Story{"Error 120 Missing user_to"}, box_.StoryOf([] { UserRename("ann", ""); }));
  ExpectFailed(box_.log().records().front(), "UserRename", "user_to.empty()", "Missing user_to");
}

}  // namespace
}  // namespace orbisk::fileindex::test
