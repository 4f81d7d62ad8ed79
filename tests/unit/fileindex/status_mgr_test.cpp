// The status manager: the pause, the shares' flags, the switch, and their file.
#include "orbisk/fileindex/status_mgr.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <filesystem>

#include "orbisk/json.h"
#include "orbisk/lock_file.h"
#include "tests/support/fake_time.h"
#include "tests/support/fake_user.h"
#include "tests/support/indexer_double.h"
#include "tests/support/lock_holder.h"
#include "tests/support/record_capture.h"
#include "tests/unit/fileindex/config_box.h"
#include "tests/unit/fileindex/failing_chmod.h"
#include "tests/unit/fileindex/queue_lines.h"
#include "tests/unit/record_match.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::ExpectFailure;
using orbisk::test::FakeTime;
using orbisk::test::FakeUsers;
using orbisk::test::IndexerDouble;
using orbisk::test::IsLocked;
using orbisk::test::ReadFile;
using orbisk::test::RecordCapture;
using orbisk::test::WriteFile;
using Texts = std::vector<std::string>;

constexpr long kNow = 1700000000;

// A change by name, for what holds for each of them.
struct Change {
  const char* name;
  std::function<void(StatusMgr&)> make;
};

const std::vector<Change>& AllChanges() {
  static const std::vector<Change> changes = {
      {"Pause", [](StatusMgr& status) { status.Pause(1); }},
      {"Resume", [](StatusMgr& status) { status.Resume(); }},
      {"SetShareStatus", [](StatusMgr& status) { status.SetShareStatus("photo", 1); }},
      {"UnsetShareStatus", [](StatusMgr& status) { status.UnsetShareStatus("photo", 1); }},
      {"ClearShareStatus", [](StatusMgr& status) { status.ClearShareStatus("photo"); }},
      {"SetVMTouchEnabled", [](StatusMgr& status) { status.SetVMTouchEnabled(true); }},
  };
  return changes;
}

class StatusMgrTest : public testing::Test {
 protected:
  static std::string StatusText() { return std::filesystem::exists(kStatusFile) ? ReadFile(kStatusFile) : "missing"; }
  static long PauseInfoOf(const std::string& text) {
    WriteFile(kStatusFile, text);
    return StatusMgr().GetPauseInfo();
  }

  const ConfigBox box_;
  FakeTime time_{kNow};
};

using StatusReading = StatusMgrTest;

TEST_F(StatusReading, WithoutAFileThereAreDefaults) {
  const StatusMgr status;
  EXPECT_EQ(-1, status.GetPauseInfo());
  EXPECT_EQ(0, status.GetShareStatus("photo"));
  EXPECT_FALSE(status.GetVMTouchEnabled());
  EXPECT_EQ("missing", StatusText()) << "reading makes no file";
  EXPECT_FALSE(std::filesystem::exists(kStatusLock)) << "and takes no lock";
}

TEST_F(StatusReading, NullAndAnEmptyObjectGiveTheDefaultsToo) {
  for (const char* const text : {"null", "{}", R"({"share":null})", R"({"share":{}})"}) {
    WriteFile(kStatusFile, text);
    const StatusMgr status;
    EXPECT_EQ(-1, status.GetPauseInfo());
    EXPECT_EQ(0, status.GetShareStatus("photo"));
    EXPECT_FALSE(status.GetVMTouchEnabled());
  }
}

TEST_F(StatusReading, WhatIsStoredIsRead) {
  WriteFile(kStatusFile, R"({"resume_time":5000000000,"share":{"photo":3,"music":0},"vmt_enabled":true})");
  const StatusMgr status;
  EXPECT_EQ(5000000000, status.GetPauseInfo());
  EXPECT_EQ(3, status.GetShareStatus("photo"));
  EXPECT_EQ(0, status.GetShareStatus("music"));
  EXPECT_EQ(0, status.GetShareStatus("Photo"));
  EXPECT_TRUE(status.GetVMTouchEnabled());
}

TEST_F(StatusReading, MembersOfAnotherTypeCountAsMissing) {
  EXPECT_EQ(-1, PauseInfoOf(R"({"resume_time":"0"})"));
  EXPECT_EQ(-1, PauseInfoOf(R"({"resume_time":1.5})"));
  EXPECT_EQ(0, PauseInfoOf(R"({"resume_time":0})"));
  WriteFile(kStatusFile, R"({"share":{"photo":"1"},"vmt_enabled":"yes"})");
  EXPECT_EQ(0, StatusMgr().GetShareStatus("photo"));
  EXPECT_FALSE(StatusMgr().GetVMTouchEnabled());
}

TEST_F(StatusReading, AFileThatCannotBeParsedIsRefused) {
  for (const char* const text : {"", "{", "{}}", "x"}) {
    WriteFile(kStatusFile, text);
    const std::string reason = std::string("Cannot load json: ") + kStatusFile;
    const RecordCapture capture;
    errno = 0;
    EXPECT_EQ("504 " + reason, ErrorOf([] { const StatusMgr status; }));
    ASSERT_EQ(1U, capture.records().size());
    ExpectFailure(capture.records()[0], "status_mgr.cpp", "StatusMgr",
                  "IsFileExist(kFileIndexStatusCfgPath) && !data_.fromFile(kFileIndexStatusCfgPath)", reason);
  }
}

TEST_F(StatusReading, ADocumentThatIsNoObjectFailsEveryQuestionAndChangeAndStaysAsItIs) {
  const IndexerDouble daemon;
  for (const char* const text : {"[]", "7", "\"text\"", "true"}) {
    WriteFile(kStatusFile, text);
    const std::string error = std::string("120 Not an object, data=") + text;
    StatusMgr status;
    EXPECT_EQ(error, ErrorOf([&] { (void)status.GetPauseInfo(); }));
    EXPECT_EQ(error, ErrorOf([&] { (void)status.GetShareStatus("photo"); }));
    EXPECT_EQ(error, ErrorOf([&] { (void)status.GetVMTouchEnabled(); }));
    for (const Change& change : AllChanges()) {
      EXPECT_EQ(error, ErrorOf([&] { change.make(status); })) << change.name;
    }
    EXPECT_EQ(text, StatusText());
  }
  EXPECT_EQ(Texts(), daemon.commands());
}

TEST_F(StatusReading, SharesThatAreNoObjectFailWhatAsksForThem) {
  const std::string text = R"({"share":[1]})";
  WriteFile(kStatusFile, text);
  StatusMgr status;
  const std::string error = "120 Not an object, data=[1]";
  EXPECT_EQ(error, ErrorOf([&] { (void)status.GetShareStatus("photo"); }));
  EXPECT_EQ(error, ErrorOf([&] { status.SetShareStatus("photo", 1); }));
  EXPECT_EQ(error, ErrorOf([&] { status.UnsetShareStatus("photo", 1); }));
  EXPECT_EQ(error, ErrorOf([&] { status.ClearShareStatus("photo"); }));
  EXPECT_EQ(text, StatusText());
  EXPECT_EQ(-1, status.GetPauseInfo());
}

using StatusPause = StatusMgrTest;

TEST_F(StatusPause, ZeroHoursPauseWithoutEnd) {
  const IndexerDouble daemon;
  StatusMgr().Pause(0);
  EXPECT_EQ(R"({"resume_time":0})", StatusText());
  EXPECT_EQ(Texts({R"({"data":{"resume_time":0},"type":"pause"})"}), daemon.commands());
  EXPECT_EQ(0, StatusMgr().GetPauseInfo());
}

TEST_F(StatusPause, HoursCountFromNow) {
  const IndexerDouble daemon;
  StatusMgr().Pause(2);
  EXPECT_EQ(R"({"resume_time":1700007200})", StatusText());
  EXPECT_EQ(Texts({R"({"data":{"resume_time":1700007200},"type":"pause"})"}), daemon.commands());
}

TEST_F(StatusPause, TheProductWrapsIn32Bits) {
  const IndexerDouble daemon;
  const std::vector<std::pair<int, long>> kCases = {
      {596523, 2147482800L},  // the most that fits
      {596524, 2147486400L - (1L << 32)},
      {1193047, 4294969200L - (1L << 32)},
      {268435456, 0L},  // all of it wraps away: a pause that ends now, not one without end
      {INT_MAX, -3600L},
  };
  for (const auto& [hours, seconds] : kCases) {
    StatusMgr().Pause(hours);
    EXPECT_EQ(kNow + seconds, StatusMgr().GetPauseInfo()) << hours;
    EXPECT_EQ("{\"data\":{\"resume_time\":" + std::to_string(kNow + seconds) + "},\"type\":\"pause\"}",
              daemon.commands().back());
  }
}

TEST_F(StatusPause, NegativeHoursAreRefusedAndChangeNothing) {
  const IndexerDouble daemon;
  for (const int hours : {-1, INT_MIN}) {
    StatusMgr status;
    const RecordCapture capture;
    errno = 0;
    EXPECT_EQ("120 Pause length should NOT be negative", ErrorOf([&] { status.Pause(hours); }));
    ASSERT_EQ(1U, capture.records().size());
    ExpectFailure(capture.records()[0], "status_mgr.cpp", "Pause", "hours < 0", "Pause length should NOT be negative");
    EXPECT_EQ(-1, status.GetPauseInfo());
  }
  EXPECT_EQ("missing", StatusText());
  EXPECT_EQ(Texts(), daemon.commands());
}

TEST_F(StatusPause, TheLockIsTakenBeforeTheHoursAreLookedAt) {
  const LockFile held(kStatusLock, true);
  const std::string error = std::string("506 Exceed max retry, path=") + kStatusLock;
  EXPECT_EQ(error, ErrorOf([] { StatusMgr().Pause(-1); }));
}

TEST_F(StatusPause, ResumingStoresMinusOneAlsoWithoutAPause) {
  const IndexerDouble daemon;
  StatusMgr().Resume();
  EXPECT_EQ(R"({"resume_time":-1})", StatusText());
  EXPECT_EQ(Texts({R"({"data":null,"type":"resume"})"}), daemon.commands());
}

TEST_F(StatusPause, EachReplacesWhatWasStored) {
  const IndexerDouble daemon;
  StatusMgr status;
  status.Pause(0);
  status.Pause(1);
  EXPECT_EQ(kNow + 3600, StatusMgr().GetPauseInfo());
  status.Resume();
  EXPECT_EQ(-1, StatusMgr().GetPauseInfo());
  EXPECT_EQ(3U, daemon.commands().size());
}

TEST_F(StatusPause, AnExpiredPauseStays) {
  const IndexerDouble daemon;
  StatusMgr().Pause(1);
  time_.Advance(7200);
  EXPECT_EQ(kNow + 3600, StatusMgr().GetPauseInfo());
  StatusMgr().SetVMTouchEnabled(true);
  EXPECT_EQ(kNow + 3600, StatusMgr().GetPauseInfo());
}

TEST_F(StatusPause, TheStateIsOnDiskAndTheLockHeldWhileTheDaemonIsTold) {
  IndexerDouble daemon;
  Texts seen;
  daemon.OnCommand([&] { seen.push_back(StatusText() + (IsLocked(kStatusLock) ? " locked" : " free")); });
  StatusMgr().Pause(1);
  StatusMgr().Resume();
  EXPECT_EQ(Texts({R"({"resume_time":1700003600} locked)", R"({"resume_time":-1} locked)"}), seen);
  EXPECT_FALSE(IsLocked(kStatusLock));
}

TEST_F(StatusPause, ADaemonThatCannotBeReachedLeavesTheNewState) {
  EXPECT_EQ("502 write failed, reason=Transport endpoint is not connected", ErrorOf([] { StatusMgr().Pause(0); }));
  EXPECT_EQ(0, StatusMgr().GetPauseInfo());
  EXPECT_FALSE(IsLocked(kStatusLock));
  EXPECT_EQ("502 write failed, reason=Transport endpoint is not connected", ErrorOf([] { StatusMgr().Resume(); }));
  EXPECT_EQ(-1, StatusMgr().GetPauseInfo());
  EXPECT_EQ(8U, time_.waits().size()) << "four pauses for each";
}

TEST_F(StatusPause, WhatCannotBeSavedIsNotTold) {
  const IndexerDouble daemon;
  const FailingChmod failing;
  EXPECT_NE("none", ErrorOf([] { StatusMgr().Pause(0); }));
  EXPECT_NE("none", ErrorOf([] { StatusMgr().Resume(); }));
  EXPECT_EQ(Texts(), daemon.commands());
}

using StatusFlags = StatusMgrTest;

TEST_F(StatusFlags, SettingAddsAndUnsettingTakesAwayBits) {
  StatusMgr status;
  status.SetShareStatus("photo", 1);
  status.SetShareStatus("photo", 2);
  EXPECT_EQ(3, status.GetShareStatus("photo"));
  status.UnsetShareStatus("photo", 1);
  EXPECT_EQ(2, status.GetShareStatus("photo"));
  status.UnsetShareStatus("photo", 1);
  EXPECT_EQ(R"({"share":{"photo":2}})", StatusText());
}

TEST_F(StatusFlags, UnsettingAllLeavesTheMemberAndClearingRemovesIt) {
  StatusMgr status;
  status.SetShareStatus("photo", 1);
  status.SetShareStatus("music", 1);
  status.UnsetShareStatus("photo", 3);
  EXPECT_EQ(R"({"share":{"music":1,"photo":0}})", StatusText());
  status.ClearShareStatus("photo");
  EXPECT_EQ(R"({"share":{"music":1}})", StatusText());
}

TEST_F(StatusFlags, UnsettingAnAbsentShareListsIt) {
  StatusMgr().UnsetShareStatus("photo", 3);
  EXPECT_EQ(R"({"share":{"photo":0}})", StatusText());
}

TEST_F(StatusFlags, ClearingAnAbsentShareSavesAnObject) {
  StatusMgr().ClearShareStatus("photo");
  EXPECT_EQ(R"({"share":{}})", StatusText());
  WriteFile(kStatusFile, R"({"resume_time":0,"share":{"music":1}})");
  StatusMgr().ClearShareStatus("photo");
  EXPECT_EQ(R"({"resume_time":0,"share":{"music":1}})", StatusText());
}

TEST_F(StatusFlags, TheSwitchIsStoredBesideTheRest) {
  WriteFile(kStatusFile, R"({"later":[1],"resume_time":0})");
  StatusMgr().SetVMTouchEnabled(true);
  EXPECT_EQ(R"({"later":[1],"resume_time":0,"vmt_enabled":true})", StatusText());
  StatusMgr().SetVMTouchEnabled(false);
  EXPECT_EQ(R"({"later":[1],"resume_time":0,"vmt_enabled":false})", StatusText());
}

TEST_F(StatusFlags, TheDaemonIsNotTold) {
  const IndexerDouble daemon;
  StatusMgr status;
  status.SetShareStatus("photo", 1);
  status.UnsetShareStatus("photo", 1);
  status.ClearShareStatus("photo");
  status.SetVMTouchEnabled(true);
  EXPECT_EQ(Texts(), daemon.commands());
}

TEST_F(StatusFlags, AWriterDoesNotReadAgainAndSoUndoesWhatAnotherWroteMeanwhile) {
  StatusMgr early;
  StatusMgr late;
  late.SetShareStatus("music", 1);
  early.SetShareStatus("photo", 1);
  EXPECT_EQ(R"({"share":{"photo":1}})", StatusText());
  EXPECT_EQ(1, late.GetShareStatus("music")) << "in memory";
}

using StatusFile = StatusMgrTest;

TEST_F(StatusFile, EachChangeTakesTheLockAndGivesItBack) {
  const IndexerDouble daemon;
  for (const Change& change : AllChanges()) {
    StatusMgr status;
    const std::string before = StatusText();
    {
      const LockFile held(kStatusLock, true);
      EXPECT_EQ(std::string("506 Exceed max retry, path=") + kStatusLock, ErrorOf([&] { change.make(status); }))
          << change.name;
    }
    EXPECT_EQ(before, StatusText()) << change.name;
    change.make(status);
    EXPECT_FALSE(IsLocked(kStatusLock)) << change.name;
  }
}

TEST_F(StatusFile, SavingByItselfTakesNoLock) {
  const LockFile held(kStatusLock, true);
  StatusMgr().Save();
  EXPECT_EQ("null", StatusText());
}

TEST_F(StatusFile, EachChangeGivesTheLockBackWhenItFails) {
  const FailingChmod failing;
  for (const Change& change : AllChanges()) {
    EXPECT_NE("none", ErrorOf([&] {
                StatusMgr status;
                change.make(status);
              }));
    EXPECT_FALSE(IsLocked(kStatusLock)) << change.name;
  }
}

TEST_F(StatusFile, SavingActsAsRootWithTheMode0644) {
  WriteFile(kStatusFile, "{}");
  ASSERT_EQ(0, chmod(kStatusFile, 0600));
  StatusMgr().SetVMTouchEnabled(true);
  struct stat status {};
  ASSERT_EQ(0, stat(kStatusFile, &status));
  EXPECT_EQ(0644U, status.st_mode & 07777U);
  ASSERT_EQ(1U, FakeUsers().reset_credentials.calls().size());
  EXPECT_EQ("root", FakeUsers().reset_credentials.calls()[0].arguments.at(0));
}

TEST_F(StatusFile, AProcessThatCannotBeRootSavesNothing) {
  FakeUsers().reset_credentials.FailAt(1);
  EXPECT_EQ("503 ", ErrorOf([] { StatusMgr().Save(); }));
  EXPECT_EQ("missing", StatusText());
}

TEST_F(StatusFile, AFileThatCannotBeWrittenIsAnError) {
  std::filesystem::create_directories(std::string(kStatusFile) + "/in the way");
  StatusMgr status;
  const std::string reason = std::string("Failed to save json: ") + kStatusFile;
  const RecordCapture capture;
  EXPECT_EQ("505 " + reason, ErrorOf([&] { status.Save(); }));
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "status_mgr.cpp", "Save", "!data_.toFile(kFileIndexStatusCfgPath)", reason,
                "Is a directory");
}

TEST_F(StatusFile, AModeThatCannotBeSetIsAnErrorAndTheFileIsThere) {
  StatusMgr status;
  const FailingChmod failing;
  const std::string reason = "chmod failed, reason=Operation not permitted";
  const RecordCapture capture;
  EXPECT_EQ("502 " + reason, ErrorOf([&] { status.Save(); }));
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "status_mgr.cpp", "Save", "-1 == chmod(kFileIndexStatusCfgPath, 0644)", reason,
                "Operation not permitted");
  EXPECT_EQ("null", StatusText());
}

}  // namespace
}  // namespace orbisk::fileindex::test
