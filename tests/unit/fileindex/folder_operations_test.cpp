// Adding, changing and removing folders: what is told to whom, in which order, and what is left when something fails.
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
#include "tests/support/fake_filesystem.h"
#include "tests/support/fake_monitor_queue.h"
#include "tests/support/fake_service.h"
#include "tests/support/fake_share.h"
#include "tests/unit/fileindex/management_box.h"
#include "tests/unit/fileindex/queue_lines.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::FakeConnections;
using orbisk::test::FakeFileSystem;
using orbisk::test::FakeMonitorQueues;
using orbisk::test::FakePlatform;
using orbisk::test::FakeQuota;
using orbisk::test::FakeServices;
using orbisk::test::FakeShares;
using orbisk::test::ReadFile;
using orbisk::test::SetPlatformError;
using orbisk::test::WriteFile;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class FolderOperations : public testing::Test {
 protected:
  FolderOperations() {
    box_.AddShare("music");
    box_.AddShare("photo");
    box_.MakeFolders({"/music/a", "/photo/a", "/photo/a/b", "/photo/c"});
    FakeServices().SetSpotlight(false);
  }

  static std::vector<std::string> Paths() { return PathsOf(FolderMgr()); }
  static std::string FoldersText() { return ReadFile(kFoldersFile); }
  static void Shortage() {
    FakeQuota().Always([](int, const char*, unsigned long long) {
      SetPlatformError(0x2900, "quota.c", 1);
      return 0;
    });
  }
  Story Add(const std::vector<Json::Value>& folders, bool updater_mode = false) {
    return box_.StoryOf([&] { FolderAdd(List(folders), updater_mode); });
  }
  Story Set(const std::vector<Json::Value>& folders, bool updater_mode = false) {
    return box_.StoryOf([&] { FolderSet(List(folders), updater_mode); });
  }
  Story Delete(const std::vector<Json::Value>& paths) {
    return box_.StoryOf([&] { FolderDelete(List(paths)); });
  }

  ManagementBox box_;
};

TEST_F(FolderOperations, AddingAFolderTellsEverybodyInOrder) {
  const Story story = Add({Entry("/photo/a", "d")});

  EXPECT_EQ(Joined({{"lock folders", RoomNote("photo")},
                    ServicesOn(),
                    {CreateNote("photo"), WatchNote("photo", {"/photo/a"}), "save folders", SettingNote("photo", true),
                     EveryKindNote("V/photo/a"), "unlock folders"}}),
            story);
  EXPECT_EQ(Story{"/photo/a"}, Paths());
}

TEST_F(FolderOperations, AnIndexIsMadeWithSettingsMappingsAndEventHandler) {
  Add({Entry("/photo/a")});

  Json::Value request;
  ASSERT_TRUE(fromString(request, FakeConnections().requests().front()));
  EXPECT_EQ((std::vector<std::string>{"event_handler", "id", "mappings", "path", "settings"}),
            request["data"].getMemberNames());
}

TEST_F(FolderOperations, FoldersOfOneShareAreAddedWithOneIndexAndOneCommand) {
  const Story story = Add({Entry("/photo/c"), Entry("/photo/a")});

  EXPECT_EQ(
      Joined({{"lock folders", RoomNote("photo"), RoomNote("photo")},
              ServicesOn(),
              {CreateNote("photo"), WatchNote("photo", {"/photo/c", "/photo/a"}), "save folders",
               SettingNote("photo", true), EveryKindNote("V/photo/c"), EveryKindNote("V/photo/a"), "unlock folders"}}),
      story);
}

TEST_F(FolderOperations, SharesAreToldByNameAndEventsFollowTheList) {
  const Story story = Add({Entry("/photo/a"), Entry("/music/a")});

  EXPECT_EQ(
      Joined({{"lock folders", RoomNote("photo"), RoomNote("music")},
              ServicesOn(),
              {CreateNote("music"), WatchNote("music", {"/music/a"}), CreateNote("photo"),
               WatchNote("photo", {"/photo/a"}), "save folders", SettingNote("music", true), SettingNote("photo", true),
               EveryKindNote("V/photo/a"), EveryKindNote("V/music/a"), "unlock folders"}}),
      story);
}

TEST_F(FolderOperations, AddingToAnIndexedShareMakesNoIndex) {
  WriteFoldersFile({Entry("/photo/c", "d")});

  const Story story = Add({Entry("/photo/a")});

  EXPECT_EQ(Joined({{"lock folders", RoomNote("photo")},
                    ServicesOn(),
                    {WatchNote("photo", {"/photo/c", "/photo/a"}), "save folders", SettingNote("photo", true),
                     EveryKindNote("V/photo/a"), "unlock folders"}}),
            story);
}

TEST_F(FolderOperations, TheEventOfAnAddedFolderHasEveryKindWhateverItsOwn) {
  EXPECT_THAT(Add({Entry("/photo/a", "")}), Contains(EveryKindNote("V/photo/a")));
}

TEST_F(FolderOperations, AddingBelowAConfiguredFolderHasTheEventOfTheAddedOne) {
  WriteFoldersFile({Entry("/photo/a", "davp")});

  EXPECT_THAT(Add({Entry("/photo/a/b", "davp")}), Contains(EveryKindNote("V/photo/a/b")));
}

TEST_F(FolderOperations, AnEmptyListStartsTheServicesAndSaves) {
  WriteFoldersFile({Entry("/photo/a")});
  const std::string before = toString(ReadJson(kFoldersFile));

  EXPECT_EQ(Joined({{"lock folders"}, ServicesOn(), {"save folders", "unlock folders"}}), Add({}));
  EXPECT_EQ((Story{"lock folders", "NIMOSMBIsEnableSpotlight()", "NLIBServiceStart(nimocontentextractd, 1)",
                   "NLIBServicectlStart(pkg-Orbisk-fileindexd, 1)", "save folders", "unlock folders"}),
            Set({}));
  EXPECT_EQ(Story{"/photo/a"}, Paths());
}

TEST_F(FolderOperations, AddingAConfiguredFolderIsADuplicate) {
  WriteFoldersFile({Entry("/photo/a")});
  const std::string before = FoldersText();

  EXPECT_EQ((Story{"lock folders", "unlock folders", "Error 901 Duplicated ID: /photo/a"}), Add({Entry("/photo/a")}));
  ExpectFailed(box_.log().records().front(), "UpsertFolders", "create && folder_mgr.HasFolder(folder_new->GetPath())",
               "Duplicated ID: /photo/a");
  EXPECT_EQ(before, FoldersText());
}

TEST_F(FolderOperations, AFolderTwiceInOneListIsADuplicate) {
  const Story story = Add({Entry("/photo/a"), Entry("/photo/a")});

  EXPECT_EQ((Story{"lock folders", RoomNote("photo"), "unlock folders", "Error 901 Duplicated ID: /photo/a"}), story);
  EXPECT_FALSE(std::filesystem::exists(kFoldersFile));
}

TEST_F(FolderOperations, SettingAFolderTwiceInOneListKeepsTheLast) {
  Set({Entry("/photo/a", "d"), Entry("/photo/a", "p")});

  ASSERT_EQ(Story{"/photo/a"}, Paths());
  EXPECT_EQ("p", KindsOf(FolderMgr().GetFolders().front()));
}

TEST_F(FolderOperations, APathThatMayNotBeIndexedIsRefused) {
  const Story story = Add({Entry("/photo/missing")});

  EXPECT_EQ((Story{"lock folders", "unlock folders", "Error 903 Path cannot index: /photo/missing"}), story);
  ASSERT_EQ(1U, box_.log().records().size());
  EXPECT_THAT(box_.records().front(),
              HasSubstr("(UpsertFolders) Failed [!CanPathBeIndexed(folder_new->GetPath()) && !updater_mode], reason: "
                        "Path cannot index: /photo/missing"));
  EXPECT_EQ((Story{"lock folders", "unlock folders", "Error 903 Path cannot index: /photo/missing"}),
            Set({Entry("/photo/missing")}));
}

TEST_F(FolderOperations, WhetherAPathMayBeIndexedIsAskedBeforeWhetherItIsThere) {
  WriteFoldersFile({Entry("/photo/missing")});

  EXPECT_THAT(Add({Entry("/photo/missing")}), Contains("Error 903 Path cannot index: /photo/missing"));
}

TEST_F(FolderOperations, DuplicatesAreFoundBeforeRoomIsAskedFor) {
  WriteFoldersFile({Entry("/photo/a")});
  Shortage();

  EXPECT_EQ((Story{"lock folders", "unlock folders", "Error 901 Duplicated ID: /photo/a"}), Add({Entry("/photo/a")}));
}

TEST_F(FolderOperations, EachElementIsAskedForRoomBeforeTheNextIsLookedAt) {
  Shortage();

  const Story story = Add({Entry("/photo/a"), Entry("/photo/missing")});

  EXPECT_EQ((Story{"lock folders", RoomNote("photo"), "unlock folders", "Error 1003 Share (photo) space not enough"}),
            story);
  ExpectFailed(box_.log().records().front(), "UpsertFolders", "!share.IsSpaceEnough()",
               "Share (photo) space not enough");
}

TEST_F(FolderOperations, AFullShareRefusesAFolderThatIsOnlySetAsWell) {
  WriteFoldersFile({Entry("/photo/a")});
  Shortage();

  EXPECT_THAT(Set({Entry("/photo/a")}), Contains("Error 1003 Share (photo) space not enough"));
}

TEST_F(FolderOperations, AListWhoseThirdElementFailsLeavesTheConfigurationAsItWas) {
  WriteFoldersFile({Entry("/music/a")});
  const std::string before = FoldersText();

  const Story story = Add({Entry("/photo/a"), Entry("/photo/c"), Entry("/photo/missing")});

  EXPECT_EQ((Story{"lock folders", RoomNote("photo"), RoomNote("photo"), "unlock folders",
                   "Error 903 Path cannot index: /photo/missing"}),
            story);
  EXPECT_EQ(before, FoldersText());
}

TEST_F(FolderOperations, AListThatIsNoArrayIsRefusedWithItsText) {
  for (const Json::Value& list : {Json::Value(), Json::Value("/photo/a"), Entry("/photo/a"), Json::Value(3)}) {
    const std::string error = "Error 120 " + toString(list);
    EXPECT_EQ((Story{"lock folders", "unlock folders", error}), box_.StoryOf([&] { FolderAdd(list, false); }));
    ExpectFailed(box_.log().records().front(), "UpsertFolders", "!folder_list.isArray()", toString(list));
    EXPECT_EQ((Story{"lock folders", "unlock folders", error}), box_.StoryOf([&] { FolderSet(list, true); }));
  }
}

TEST_F(FolderOperations, AnElementThatIsNoFolderFailsAsTheFolderDoes) {
  Json::Value nameless = Entry("/photo/a");
  nameless.removeMember("name");

  EXPECT_THAT(Add({nameless}).back(), HasSubstr("Error 120 Missing property: name"));
  EXPECT_THAT(Add({Entry("/photo/a", "d", "", "all")}).back(), HasSubstr("Error 120 \"all\" is reserved group name"));
}

TEST_F(FolderOperations, AFolderOfAShareThatDoesNotExistIsRefused) {
  EXPECT_EQ((Story{"lock folders", "unlock folders", "Error 800 gone"}), Add({Entry("/gone/a")}));
}

TEST_F(FolderOperations, SettingAnUnknownFolderOfAnUnindexedShareAddsItWithoutIndexOrEvent) {
  const Story story = Set({Entry("/photo/a", "dp")});

  EXPECT_EQ(Joined({{"lock folders", RoomNote("photo")},
                    ServicesOn(),
                    {WatchNote("photo", {"/photo/a"}), "save folders", SettingNote("photo", true), "unlock folders"}}),
            story);
  EXPECT_EQ(Story{"/photo/a"}, Paths());
}

TEST_F(FolderOperations, SettingAFolderHasAnEventOfTheKindsThatChange) {
  FakeServices().SetSpotlight(true);
  WriteFoldersFile({Entry("/photo/a", "da"), Entry("/photo/c", "d")});

  const Story story = Set({Entry("/photo/a", "dp")});

  EXPECT_EQ((Story{"lock folders", RoomNote("photo"), "NIMOSMBIsEnableSpotlight()",
                   "NLIBServiceStart(nimocontentextractd, 1)", "NLIBServicectlStart(pkg-Orbisk-fileindexd, 1)",
                   WatchNote("photo", {"/photo/c", "/photo/a"}), "save folders", SettingNote("photo", true),
                   EventNote(EVENT_UPDATE_DIRECTORY, "V/photo/a", "",
                             R"({"audio":true,"document":false,"photo":true,"video":false})"),
                   "unlock folders"}),
            story);
  EXPECT_EQ((Story{"/photo/c", "/photo/a"}), Paths());
}

TEST_F(FolderOperations, SettingAFolderBelowAnotherHasTheEventOfWhatGovernedIt) {
  WriteFoldersFile({Entry("/photo/a", "da")});

  EXPECT_THAT(Set({Entry("/photo/a/b", "d")}),
              Contains(EventNote(EVENT_UPDATE_DIRECTORY, "V/photo/a", "",
                                 R"({"audio":true,"document":false,"photo":false,"video":false})")));
}

TEST_F(FolderOperations, SettingAFolderAsItIsHasAnEventWithoutAnyKind) {
  WriteFoldersFile({Entry("/photo/a", "da")});

  EXPECT_THAT(Set({Entry("/photo/a", "da")}),
              Contains(EventNote(EVENT_UPDATE_DIRECTORY, "V/photo/a", "",
                                 R"({"audio":false,"document":false,"photo":false,"video":false})")));
}

TEST_F(FolderOperations, TheUpdaterAsksNotWhetherPathsMayBeIndexedAndQueuesNoEvents) {
  const Story story = Add({Entry("/photo/missing")}, true);

  EXPECT_EQ(Joined({{"lock folders", RoomNote("photo")},
                    ServicesOn(),
                    {CreateNote("photo"), WatchNote("photo", {"/photo/missing"}), "save folders",
                     SettingNote("photo", true), "unlock folders"}}),
            story);
  WriteFoldersFile({Entry("/photo/a", "d")});
  for (const std::string& line : Set({Entry("/photo/a", "p")}, true)) {
    EXPECT_NE(0U, line.rfind("event", 0)) << line;
  }
  EXPECT_TRUE(FakeFileSystem().get_type.calls().empty());
}

TEST_F(FolderOperations, TheUpdaterIsRefusedDuplicatesAndFullSharesAllTheSame) {
  WriteFoldersFile({Entry("/photo/a", "d")});

  EXPECT_THAT(Add({Entry("/photo/a")}, true), Contains("Error 901 Duplicated ID: /photo/a"));
  Shortage();
  EXPECT_THAT(Set({Entry("/photo/a")}, true), Contains("Error 1003 Share (photo) space not enough"));
}

TEST_F(FolderOperations, AnIndexThatCannotBeMadeSkipsAllThatFollowsForAllShares) {
  FakeConnections().Reply(kRefusal);

  const Story story = Add({Entry("/photo/a"), Entry("/music/a")});

  EXPECT_EQ(Joined({{"lock folders", RoomNote("photo"), RoomNote("music")},
                    ServicesOn(),
                    {CreateNote("music"), "unlock folders", kRefused}}),
            story);
  EXPECT_FALSE(std::filesystem::exists(kFoldersFile));
}

TEST_F(FolderOperations, AMonitorThatRefusesSkipsAllThatFollows) {
  FakeMonitorQueues().upsert.FailAt(1);

  const Story story = Add({Entry("/photo/a")});

  EXPECT_EQ(Joined({{"lock folders", RoomNote("photo")},
                    ServicesOn(),
                    {CreateNote("photo"), WatchNote("photo", {"/photo/a"}), "unlock folders",
                     "Error 502 MonitorQueue::Upsert failed, share=photo"}}),
            story);
  ExpectFailed(box_.log().records().back(), "UpsertNimotifydCfg",
               "!MonitorQueue::Upsert(monitor_queue, kAppName, MONITOR_QUEUE_TYPE_APPLICATION)",
               "MonitorQueue::Upsert failed, share=photo");
  EXPECT_FALSE(std::filesystem::exists(kFoldersFile));
}

TEST_F(FolderOperations, AnEventThatCannotBeQueuedLeavesTheConfigurationSaved) {
  std::filesystem::remove_all(box_.Full("/@fileindex/photo"));

  const Story story = Add({Entry("/photo/a"), Entry("/music/a")});

  EXPECT_EQ((Story{"/photo/a", "/music/a"}), Paths());
  EXPECT_THAT(story.back(), HasSubstr("Error 506 open failed"));
  EXPECT_THAT(story, Not(Contains(EveryKindNote("V/music/a")))) << "what comes after is not done";
  EXPECT_EQ(1, StatusMgr().GetShareStatus("photo"));
}

TEST_F(FolderOperations, ChangesWaitForTheLockAndGiveUp) {
  const LockFile held("/tmp/orbisk_cfg_folder.lock", true);
  const std::vector<std::function<void()>> kChanges = {
      [] { FolderAdd(List({Entry("/photo/a")}), false); }, [] { FolderSet(List({Entry("/photo/a")}), false); },
      [] { FolderDelete(List({"/photo/a"})); }, [] { FolderDelete("photo"); }};

  for (const auto& change : kChanges) {
    EXPECT_EQ("506 Exceed max retry, path=/tmp/orbisk_cfg_folder.lock", ErrorOf(change));
  }
  EXPECT_FALSE(std::filesystem::exists(kFoldersFile));
}

TEST_F(FolderOperations, DeletingAFolderOfAnIndexedShareHasAnEventOfWhatGovernsItThen) {
  WriteFoldersFile({Entry("/photo/a", "da"), Entry("/photo/a/b", "d")});

  const Story story = Delete({"/photo/a/b"});

  EXPECT_EQ((Story{"lock folders", WatchNote("photo", {"/photo/a"}), "save folders", SettingNote("photo", false),
                   EventNote(EVENT_UPDATE_DIRECTORY, "V/photo/a/b", "",
                             R"({"audio":true,"document":false,"photo":false,"video":false})"),
                   "unlock folders"}),
            story);
  EXPECT_EQ(Story{"/photo/a"}, Paths());
}

TEST_F(FolderOperations, DeletingAFolderThatNothingGovernsThenHasAnEventOfEveryKind) {
  WriteFoldersFile({Entry("/photo/a", "d"), Entry("/photo/c", "d")});

  EXPECT_EQ((Story{"lock folders", WatchNote("photo", {"/photo/a"}), "save folders", SettingNote("photo", false),
                   EveryKindNote("V/photo/c"), "unlock folders"}),
            Delete({"/photo/c"}));
}

TEST_F(FolderOperations, DeletingTheLastFolderOfAShareDropsIndexAndData) {
  WriteFoldersFile({Entry("/music/a"), Entry("/photo/a")});

  const Story story = Delete({"/photo/a"});

  EXPECT_EQ(Joined({{"lock folders", SearchNote("index_delete", "photo"), UnwatchNote("photo")},
                    CleanNotes("V/photo"),
                    {"save folders", SettingNote("photo", false), "unlock folders"}}),
            story);
  EXPECT_EQ(Story{"/music/a"}, Paths());
}

TEST_F(FolderOperations, DeletingTheLastFolderOfAllStopsTheServicesLast) {
  FakeServices().SetSpotlight(true);
  WriteFoldersFile({Entry("/photo/a")});

  const Story story = Delete({"/photo/a"});

  EXPECT_EQ(Joined({{"lock folders", SearchNote("index_delete", "photo"), UnwatchNote("photo")},
                    CleanNotes("V/photo"),
                    {"save folders", SettingNote("photo", false)},
                    ServicesOff(),
                    {"unlock folders"}}),
            story);
}

TEST_F(FolderOperations, DeletingFromSeveralSharesTellsThemByNameAndHasEventsOfThoseThatStay) {
  WriteFoldersFile({Entry("/photo/a", "d"), Entry("/photo/c", "d"), Entry("/music/a", "d")});

  const Story story = Delete({"/photo/a", "/music/a"});

  EXPECT_EQ(Joined({{"lock folders", SearchNote("index_delete", "music"), UnwatchNote("music")},
                    CleanNotes("V/music"),
                    {WatchNote("photo", {"/photo/c"}), "save folders", SettingNote("music", false),
                     SettingNote("photo", false), EveryKindNote("V/photo/a"), "unlock folders"}}),
            story);
}

TEST_F(FolderOperations, DeletingAnUnknownPathOfAnUnindexedShareDropsWhatItMayHaveLeft) {
  WriteFoldersFile({Entry("/music/a")});

  EXPECT_EQ(Joined({{"lock folders", SearchNote("index_delete", "photo"), UnwatchNote("photo")},
                    CleanNotes("V/photo"),
                    {"save folders", SettingNote("photo", false), "unlock folders"}}),
            Delete({"/photo/unknown"}));
}

TEST_F(FolderOperations, DeletingAnUnknownPathBelowAFolderHasAnEventWithoutAnyKind) {
  WriteFoldersFile({Entry("/photo/a", "d")});

  EXPECT_EQ((Story{"lock folders", WatchNote("photo", {"/photo/a"}), "save folders", SettingNote("photo", false),
                   EventNote(EVENT_UPDATE_DIRECTORY, "V/photo/a", "",
                             R"({"audio":false,"document":false,"photo":false,"video":false})"),
                   "unlock folders"}),
            Delete({"/photo/a/unknown"}));
}

TEST_F(FolderOperations, DeletingNothingSavesAndStopsTheServicesIfNothingIsConfigured) {
  EXPECT_EQ(
      (Story{"lock folders", "save folders", "NIMOSMBIsEnableSpotlight()", "NLIBServiceStop(nimocontentextractd, 0)",
             "NLIBServicectlStop(pkg-Orbisk-fileindexd, 1)", "unlock folders"}),
      Delete({}));
  WriteFoldersFile({Entry("/photo/a")});
  EXPECT_EQ((Story{"lock folders", "save folders", "unlock folders"}), Delete({}));
}

TEST_F(FolderOperations, AListToDeleteThatIsNoArrayOfStringsIsRefused) {
  WriteFoldersFile({Entry("/photo/a")});
  const std::string before = FoldersText();

  EXPECT_EQ((Story{"lock folders", "unlock folders", R"(Error 120 {"path":1})"}), box_.StoryOf([] {
    Json::Value list;
    list["path"] = 1;
    FolderDelete(list);
  }));
  ExpectFailed(box_.log().records().front(), "FolderDelete", "!path_list.isArray()", R"({"path":1})");
  EXPECT_EQ((Story{"lock folders", "unlock folders", "Error 120 [7]"}), Delete({"/photo/a", List({7})}));
  ExpectFailed(box_.log().records().front(), "FolderDelete", "!it.isString()", "[7]");
  EXPECT_EQ(before, FoldersText());
}

TEST_F(FolderOperations, DeletingInAShareThatDoesNotExistFailsAndStoresNothing) {
  WriteFoldersFile({Entry("/gone/a"), Entry("/photo/a")});
  const std::string before = FoldersText();

  EXPECT_EQ((Story{"lock folders", "unlock folders", "Error 800 gone"}), Delete({"/photo/a", "/gone/a"}));
  EXPECT_EQ(before, FoldersText());
}

TEST_F(FolderOperations, AnIndexThatCannotBeDeletedLeavesTheConfiguration) {
  WriteFoldersFile({Entry("/photo/a")});
  const std::string before = FoldersText();
  FakeConnections().Reply(kRefusal);

  EXPECT_EQ((Story{"lock folders", SearchNote("index_delete", "photo"), "unlock folders", kRefused}),
            Delete({"/photo/a"}));
  EXPECT_EQ(before, FoldersText());
}

TEST_F(FolderOperations, DeletingAShareDeletesAllItsFoldersUnderOneLock) {
  WriteFoldersFile({Entry("/photo/a"), Entry("/music/a"), Entry("/photo/c")});
  const std::string share = "photo";

  const Story story = box_.StoryOf([&] { FolderDelete(share); });

  EXPECT_EQ(Joined({{"lock folders", SearchNote("index_delete", "photo"), UnwatchNote("photo")},
                    CleanNotes("V/photo"),
                    {"save folders", SettingNote("photo", false), "unlock folders"}}),
            story);
  EXPECT_EQ(Story{"/music/a"}, Paths());
}

TEST_F(FolderOperations, ALiteralIsTheNameOfAShare) {
  WriteFoldersFile({Entry("/photo/a"), Entry("/music/a")});

  box_.StoryOf([] { FolderDelete("music"); });

  EXPECT_EQ(Story{"/photo/a"}, Paths());
}

TEST_F(FolderOperations, DeletingAShareWithoutFoldersOnlySaves) {
  WriteFoldersFile({Entry("/photo/a")});

  EXPECT_EQ((Story{"lock folders", "save folders", "unlock folders"}), box_.StoryOf([] { FolderDelete("phot"); }));
}

class Reindexing : public FolderOperations {
 protected:
  Reindexing() { WriteFoldersFile({Entry("/photo/a"), Entry("/music/a")}); }
  static void SetStatus(const std::string& share, int flags) { StatusMgr().SetShareStatus(share, flags); }
  static Story Statuses() {
    return {std::to_string(StatusMgr().GetShareStatus("music")), std::to_string(StatusMgr().GetShareStatus("photo"))};
  }
  Story ReindexAll(const std::vector<Json::Value>& paths) {
    return box_.StoryOf([&] { FolderReindex(List(paths)); });
  }
};

TEST_F(Reindexing, QueuesAnEventForEachPathInTheOrderOfTheListWithoutALock) {
  EXPECT_EQ((Story{EventNote(EVENT_REINDEX, "V/photo/a"), EventNote(EVENT_REINDEX, "V/music"),
                   EventNote(EVENT_REINDEX, "V/photo/unknown")}),
            ReindexAll({"/photo/a", "/music", "/photo/unknown"}));
}

TEST_F(Reindexing, PassesOverSharesThatAreNotIndexed) {
  WriteFoldersFile({Entry("/music/a")});

  EXPECT_EQ((Story{EventNote(EVENT_REINDEX, "V/music/a")}), ReindexAll({"/photo/a", "/gone/x", "/music/a"}));
}

TEST_F(Reindexing, RebuildsAShareWithTheValueTwoAndTellsNeitherMonitorNorWorker) {
  SetStatus("photo", 2);

  EXPECT_EQ((Story{EventNote(EVENT_REINDEX, "V/music/a"), SearchNote("index_delete", "photo"), CreateNote("photo"),
                   EventNote(EVENT_REINDEX, "V/photo")}),
            ReindexAll({"/photo/a", "/music/a", "/photo/c"}));
  EXPECT_EQ((Story{"0", "2"}), Statuses()) << "only the value 1 has the flags cleared";
}

TEST_F(Reindexing, ClearsBothValuesOfAShareThatHasTheValueOne) {
  SetStatus("photo", 3);
  SetStatus("music", 1);

  EXPECT_EQ((Story{EventNote(EVENT_REINDEX, "V/music/a"), SearchNote("index_delete", "photo"), CreateNote("photo"),
                   EventNote(EVENT_REINDEX, "V/photo"), "save status", "save status"}),
            ReindexAll({"/photo/a", "/music/a"}));
  EXPECT_EQ((Story{"0", "0"}), Statuses());
}

TEST_F(Reindexing, ClearsTheFlagsOfATouchedShareThatIsNotIndexedToo) {
  WriteFoldersFile({Entry("/music/a")});
  SetStatus("photo", 3);
  SetStatus("music", 1);

  EXPECT_EQ(Story{"save status"}, ReindexAll({"/photo/a"}));
  EXPECT_EQ((Story{"1", "0"}), Statuses());
}

TEST_F(Reindexing, RebuildsSharesByName) {
  SetStatus("photo", 2);
  SetStatus("music", 2);

  EXPECT_EQ((Story{SearchNote("index_delete", "music"), CreateNote("music"), EventNote(EVENT_REINDEX, "V/music"),
                   SearchNote("index_delete", "photo"), CreateNote("photo"), EventNote(EVENT_REINDEX, "V/photo")}),
            ReindexAll({"/photo/a", "/music/a"}));
}

TEST_F(Reindexing, KeepsWhatOthersStoredMeanwhile) {
  SetStatus("photo", 3);
  FakeConnections().send.Next([](const std::string&) {
    StatusMgr().SetShareStatus("music", 1);
    return true;
  });

  ReindexAll({"/photo/a"});

  EXPECT_EQ((Story{"1", "0"}), Statuses());
}

TEST_F(Reindexing, LooksAtTheWholeListBeforeItQueuesAnything) {
  EXPECT_EQ(Story{R"(Error 120 "/photo")"}, box_.StoryOf([] { FolderReindex(Json::Value("/photo")); }));
  ExpectFailed(box_.log().records().front(), "FolderReindex", "!path_list.isArray()", "\"/photo\"");
  EXPECT_EQ(Story{"Error 120 null"}, ReindexAll({"/photo/a", Json::Value()}));
  ExpectFailed(box_.log().records().front(), "FolderReindex", "!it.isString()", "null");
  EXPECT_EQ(Story{"Error 120 "}, ReindexAll({"/photo/a", "photo/a"}));
}

TEST_F(Reindexing, ReadsStatusAndFoldersBeforeItLooksAtTheList) {
  const auto reindex = [] { FolderReindex(Json::Value("/photo")); };
  WriteFile(kStatusFile, "not readable");
  EXPECT_THAT(box_.StoryOf(reindex), ElementsAre(AllOf(StartsWith("Error "), Not(StartsWith("Error 120")))));
  std::filesystem::remove(kStatusFile);
  WriteFile(kFoldersFile, "not readable");
  EXPECT_THAT(box_.StoryOf(reindex), ElementsAre(AllOf(StartsWith("Error "), Not(StartsWith("Error 120")))));
}

TEST_F(Reindexing, AFailedRebuildLeavesTheFlags) {
  SetStatus("photo", 3);
  FakeConnections().Reply(R"({"success":true})");
  FakeConnections().Reply(kRefusal);

  EXPECT_EQ((Story{SearchNote("index_delete", "photo"), CreateNote("photo"), kRefused}), ReindexAll({"/photo/a"}));
  EXPECT_EQ((Story{"0", "3"}), Statuses());
}

}  // namespace
}  // namespace orbisk::fileindex::test
