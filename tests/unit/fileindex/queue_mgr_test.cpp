// The queue manager: freezing under the lock, delivering, caches, and the two questions.
#include "orbisk/fileindex/queue_mgr.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stop_token>
#include <string>
#include <thread>

#include "fileindex/queue_search.h"
#include "orbisk/error.h"
#include "orbisk/lock_file.h"
#include "tests/support/fake_time.h"
#include "tests/support/lock_holder.h"
#include "tests/support/record_capture.h"
#include "tests/unit/fileindex/queue_lines.h"
#include "tests/unit/record_match.h"

namespace orbisk::fileindex::test {
namespace {

using Lines = std::vector<std::string>;
using orbisk::test::ExpectFailure;
using orbisk::test::FakeTime;
using orbisk::test::IsLocked;
using orbisk::test::LockHolder;
using orbisk::test::ReadFile;
using orbisk::test::RecordCapture;
using orbisk::test::WriteFile;

bool Exists(const std::string& path) {
  return std::filesystem::exists(std::filesystem::symlink_status(path));
}

class QueueMgrTest : public testing::Test {
 protected:
  QueueMgrTest() { unlink(queue_.c_str()); }

  void WriteQueue(const Lines& lines) const { WriteFile(queue_, Join(lines)); }
  void WriteSide(const Lines& lines) const { WriteFile(side_, Join(lines)); }

  static Lines Process(QueueMgr& manager, bool use_tmp) {
    Lines delivered;
    const int count =
        manager.ProcessOP([&](const std::shared_ptr<OP>& op) { delivered.push_back(Print(op)); }, use_tmp);
    delivered.push_back("count=" + std::to_string(count));
    return delivered;
  }
  Lines Process(bool use_tmp) const {
    QueueMgr manager(queue_);
    return Process(manager, use_tmp);
  }
  bool IsProcessing(const std::string& path) const { return QueueMgr(queue_).IsFullPathProcessing(path); }
  bool HasReindex(const std::string& path) const { return QueueMgr(queue_).IsFullPathHasReindex(path); }

  const QueueFile file_;  // for its folder
  const std::string queue_ = file_.path();
  const std::string side_ = file_.side_path();
};

using QueueFreeze = QueueMgrTest;

TEST_F(QueueFreeze, ConstructionLooksAtNoFile) {
  const QueueMgr manager("/nowhere/at/all");
  EXPECT_FALSE(Exists(queue_));
}

TEST_F(QueueFreeze, MovesTheQueueAsideUnchanged) {
  WriteQueue({Create("/a"), "{torn"});
  QueueMgr(queue_).PrepareTmpQueue();
  EXPECT_FALSE(Exists(queue_));
  EXPECT_EQ(Join({Create("/a"), "{torn"}), ReadFile(side_));
}

TEST_F(QueueFreeze, WithoutAQueueDoesNothing) {
  const FakeTime time;
  QueueMgr(queue_).PrepareTmpQueue();
  EXPECT_FALSE(Exists(queue_)) << "and takes no lock, which would make the file";
  EXPECT_FALSE(Exists(side_));
}

TEST_F(QueueFreeze, AnExistingSideFileIsNeverOverwrittenAndTheQueueKeepsGrowing) {
  WriteSide({Create("/old")});
  WriteQueue({Create("/new")});
  QueueMgr manager(queue_);
  manager.PrepareTmpQueue();
  EXPECT_EQ(Join({Create("/old")}), ReadFile(side_));
  EXPECT_EQ(Join({Create("/new")}), ReadFile(queue_));
  manager.DeleteTmp();
  manager.PrepareTmpQueue();
  EXPECT_EQ(Join({Create("/new")}), ReadFile(side_));
}

TEST_F(QueueFreeze, AnEmptySideFileIsOneToo) {
  WriteFile(side_, "");
  WriteQueue({Create("/new")});
  QueueMgr(queue_).PrepareTmpQueue();
  EXPECT_EQ("", ReadFile(side_));
  EXPECT_TRUE(Exists(queue_));
}

TEST_F(QueueFreeze, GivesTheLockBack) {
  WriteQueue({Create("/a")});
  QueueMgr(queue_).PrepareTmpQueue();
  EXPECT_FALSE(IsLocked(side_)) << "the lock went with the file";
  WriteQueue({Create("/b")});
  QueueMgr(queue_).PrepareTmpQueue();
  EXPECT_FALSE(IsLocked(queue_));
}

TEST_F(QueueFreeze, GivesUpAfter64TriesWhileAnotherProcessHoldsTheLock) {
  WriteQueue({Create("/a")});
  const LockHolder holder(queue_);
  FakeTime time;
  time.ScriptRand({7, 13, 20});
  EXPECT_EQ("506 Exceed max retry, path=" + queue_, ErrorOf([&] { QueueMgr(queue_).PrepareTmpQueue(); }));
  const auto waits = time.waits();
  ASSERT_EQ(64U, waits.size());
  EXPECT_EQ(700'000U, waits[0].microseconds);
  EXPECT_EQ(300'000U, waits[1].microseconds);
  EXPECT_EQ(0U, waits[2].microseconds);
  EXPECT_EQ(Join({Create("/a")}), ReadFile(queue_)) << "nothing was moved";
  EXPECT_FALSE(Exists(side_));
}

TEST_F(QueueFreeze, WaitsForAHolderOfThisProcessToo) {
  WriteQueue({Create("/a")});
  auto lock = std::make_unique<LockFile>(queue_, true);
  FakeTime time;
  time.OnWait([&](size_t nth) {
    EXPECT_FALSE(Exists(side_)) << "nothing is moved without the lock";
    if (nth == 64) {
      ADD_FAILURE() << "the lock was given back at the third wait";
    }
    if (nth == 3) {
      lock.reset();
    }
  });
  QueueMgr(queue_).PrepareTmpQueue();
  EXPECT_EQ(3U, time.waits().size());
  EXPECT_EQ(Join({Create("/a")}), ReadFile(side_));
}

TEST_F(QueueFreeze, TheErrorOfTheLockComesOutOfDelivery) {
  WriteQueue({Create("/a")});
  const LockHolder holder(queue_);
  const FakeTime time;
  EXPECT_EQ("506 Exceed max retry, path=" + queue_, ErrorOf([&] { Process(true); }));
}

TEST_F(QueueFreeze, AQueueThatVanishesBeforeTheLockIsFrozenAsAnEmptyBatch) {
  WriteQueue({Create("/a")});
  LockHolder holder(queue_);
  FakeTime time;
  time.OnWait([&](size_t) {
    unlink(queue_.c_str());
    holder.Release();
  });
  EXPECT_EQ((Lines{"count=0"}), Process(true));
  EXPECT_FALSE(Exists(queue_));
  EXPECT_EQ("", ReadFile(side_)) << "taking the lock made an empty queue file, which was then moved";
}

TEST_F(QueueFreeze, ASideFileThatAppearsBeforeTheLockIsKept) {
  WriteQueue({Create("/a")});
  LockHolder holder(queue_);
  FakeTime time;
  time.OnWait([&](size_t) {
    EXPECT_EQ(0, rename(queue_.c_str(), side_.c_str()));
    WriteQueue({Create("/b")});
    holder.Release();
  });
  QueueMgr(queue_).PrepareTmpQueue();
  EXPECT_EQ(Join({Create("/a")}), ReadFile(side_));
  EXPECT_EQ(Join({Create("/b")}), ReadFile(queue_));
}

TEST_F(QueueFreeze, AFailedRenameIsError502WithItsRecord) {
  WriteQueue({Create("/a")});
  ASSERT_EQ(0, mkdir(side_.c_str(), 0755));
  const RecordCapture capture;
  errno = 0;
  const std::string reason = "rename failed, reason=" + std::string(strerror(EISDIR));
  EXPECT_EQ("502 " + reason, ErrorOf([&] { QueueMgr(queue_).PrepareTmpQueue(); }));
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "queue_mgr.cpp", "PrepareTmpQueue",
                "0 > rename(queue_path_.c_str(), queue_path_tmp_.c_str())", reason, strerror(EISDIR));
  EXPECT_FALSE(IsLocked(queue_)) << "the lock is given back";
  EXPECT_EQ(Join({Create("/a")}), ReadFile(queue_));
}

TEST_F(QueueFreeze, ASymbolicLinkAsSideFileCountsAsNone) {
  WriteQueue({Create("/a")});
  WriteFile(side_ + ".target", Join({Create("/old")}));
  ASSERT_EQ(0, symlink((side_ + ".target").c_str(), side_.c_str()));
  QueueMgr(queue_).PrepareTmpQueue();
  EXPECT_FALSE(std::filesystem::is_symlink(side_));
  EXPECT_EQ(Join({Create("/a")}), ReadFile(side_));
}

TEST_F(QueueFreeze, DeleteTmpRemovesTheSideFileAlone) {
  WriteQueue({Create("/a")});
  WriteSide({Create("/b")});
  QueueMgr(queue_).DeleteTmp();
  EXPECT_FALSE(Exists(side_));
  EXPECT_TRUE(Exists(queue_));
}

TEST_F(QueueFreeze, DeleteTmpIgnoresEveryResult) {
  const RecordCapture capture;
  QueueMgr manager(queue_);
  EXPECT_NO_THROW(manager.DeleteTmp()) << "missing";
  ASSERT_EQ(0, mkdir(side_.c_str(), 0755));
  EXPECT_NO_THROW(manager.DeleteTmp()) << "a directory";
  EXPECT_TRUE(Exists(side_));
  EXPECT_TRUE(capture.records().empty());
}

using QueueDelivery = QueueMgrTest;

TEST_F(QueueDelivery, WithoutFilesReturnsZeroAndCallsNobody) {
  EXPECT_EQ((Lines{"count=0"}), Process(true));
  EXPECT_EQ((Lines{"count=0"}), Process(false));
  EXPECT_FALSE(Exists(queue_));
  EXPECT_FALSE(Exists(side_));
}

TEST_F(QueueDelivery, OfTheSideFileFreezesTheQueueFirst) {
  WriteQueue({Create("/a"), Create("/b"), Delete("/a")});
  EXPECT_EQ((Lines{"[01] /a", "[02] /b", "count=2"}), Process(true));
  EXPECT_FALSE(Exists(queue_));
  EXPECT_TRUE(Exists(side_)) << "the consumer deletes it when all is applied";
}

TEST_F(QueueDelivery, ALeftOverSideFileGoesFirstAndLeavesTheQueueUntouched) {
  WriteSide({Create("/old")});
  WriteQueue({Create("/new")});
  EXPECT_EQ((Lines{"[02] /old", "count=1"}), Process(true));
  EXPECT_EQ(Join({Create("/new")}), ReadFile(queue_));
  QueueMgr(queue_).DeleteTmp();
  EXPECT_EQ((Lines{"[02] /new", "count=1"}), Process(true));
}

TEST_F(QueueDelivery, ASideFileWithoutAQueueIsDelivered) {
  WriteSide({Create("/old")});
  EXPECT_EQ((Lines{"[02] /old", "count=1"}), Process(true));
  EXPECT_FALSE(Exists(queue_));
}

TEST_F(QueueDelivery, OfTheLiveFileTakesNoLockAndMovesNothing) {
  WriteQueue({Create("/a")});
  WriteSide({Create("/old")});
  const LockHolder holder(queue_);
  const FakeTime time;
  EXPECT_EQ((Lines{"[02] /a", "count=1"}), Process(false));
  EXPECT_TRUE(time.waits().empty());
  EXPECT_EQ(Join({Create("/a")}), ReadFile(queue_));
  EXPECT_EQ(Join({Create("/old")}), ReadFile(side_));
}

TEST_F(QueueDelivery, OfTheLiveFileSkipsALastLineThatIsTorn) {
  WriteFile(queue_, Create("/a") + "\n" + Create("/b").substr(0, 20));
  EXPECT_EQ((Lines{"[02] /a", "count=1"}), Process(false));
}

TEST_F(QueueDelivery, OfACrashedQueueIsOneOperationOnTheRoot) {
  WriteQueue({Create("/a"), Crash(), Create("/b")});
  EXPECT_EQ((Lines{"[07] ", "count=1"}), Process(true));
}

TEST_F(QueueDelivery, WhatTheConsumerThrowsComesOutAndTheBatchIsDeliveredAgain) {
  WriteQueue({Create("/a")});
  QueueMgr manager(queue_);
  EXPECT_THROW(manager.ProcessOP([](const std::shared_ptr<OP>&) { throw std::runtime_error("full"); }, true),
               std::runtime_error);
  EXPECT_EQ((Lines{"[02] /a", "count=1"}), Process(manager, true));
  EXPECT_EQ((Lines{"[02] /a", "count=1"}), Process(true)) << "by another manager too";
}

TEST_F(QueueDelivery, ASymbolicLinkAsQueueCountsAsAbsent) {
  WriteFile(queue_ + ".target", Join({Create("/a")}));
  ASSERT_EQ(0, symlink((queue_ + ".target").c_str(), queue_.c_str()));
  EXPECT_EQ((Lines{"count=0"}), Process(true));
  EXPECT_EQ((Lines{"count=0"}), Process(false));
  EXPECT_FALSE(IsProcessing("/a"));
  EXPECT_TRUE(std::filesystem::is_symlink(queue_));
}

TEST_F(QueueDelivery, ASymbolicLinkAsSideFileIsNotDelivered) {
  WriteFile(queue_ + ".target", Join({Reindex("/a")}));
  ASSERT_EQ(0, symlink((queue_ + ".target").c_str(), side_.c_str()));
  EXPECT_EQ((Lines{"count=0"}), Process(true));
  EXPECT_FALSE(IsProcessing("/a"));
  EXPECT_FALSE(HasReindex("/a"));
}

TEST_F(QueueDelivery, ADirectoryAsQueueCountsAsAbsent) {
  ASSERT_EQ(0, mkdir(queue_.c_str(), 0755));
  EXPECT_EQ((Lines{"count=0"}), Process(true));
  EXPECT_EQ((Lines{"count=0"}), Process(false));
  EXPECT_FALSE(IsProcessing("/a"));
  EXPECT_FALSE(HasReindex("/a"));
}

using QueueCache = QueueMgrTest;

TEST_F(QueueCache, ATreeIsReadAtTheFirstCallAndKept) {
  WriteQueue({Create("/a")});
  WriteSide({Create("/b")});
  const QueueMgr manager(queue_);
  const auto tree = manager.GetOPTree();
  const auto side_tree = manager.GetOPTreeTmp();
  WriteQueue({Create("/later")});
  unlink(side_.c_str());
  EXPECT_EQ(tree, manager.GetOPTree());
  EXPECT_EQ(side_tree, manager.GetOPTreeTmp());
  EXPECT_EQ((Lines{"[02] /a", "count=1"}), Deliver(*tree));
  EXPECT_EQ((Lines{"[02] /b", "count=1"}), Deliver(*side_tree));
}

TEST_F(QueueCache, ASecondPassOfOneManagerDeliversTheOldTree) {
  WriteQueue({Create("/a")});
  QueueMgr manager(queue_);
  EXPECT_EQ((Lines{"[02] /a", "count=1"}), Process(manager, true));
  manager.DeleteTmp();
  EXPECT_EQ((Lines{"count=0"}), Process(manager, true)) << "no file, nothing to deliver";
  WriteQueue({Create("/b")});
  EXPECT_EQ((Lines{"[02] /a", "count=1"}), Process(manager, true)) << "the cache never refreshes";
  EXPECT_EQ(Join({Create("/b")}), ReadFile(side_));
}

TEST_F(QueueCache, AFailedReadingIsNotKept) {
  const QueueMgr manager(queue_);
  const std::string expected = "502 Failed to open queue, reason=" + std::string(strerror(ENOENT));
  EXPECT_EQ(expected, ErrorOf([&] { manager.GetOPTree(); }));
  EXPECT_EQ(expected, ErrorOf([&] { manager.GetOPTreeTmp(); }));
  WriteQueue({Create("/a")});
  EXPECT_EQ((Lines{"[02] /a", "count=1"}), Deliver(*manager.GetOPTree()));
}

// The questions.

using QueueQuestion = QueueMgrTest;

TEST_F(QueueQuestion, WithoutFilesTheAnswerIsNo) {
  EXPECT_FALSE(IsProcessing("/v"));
  EXPECT_FALSE(HasReindex("/v"));
}

TEST_F(QueueQuestion, AQueueThatIsMovedAsideMeanwhileIsNoError) {
  WriteQueue({Create("/v/s/d")});
  std::jthread mover([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      std::filesystem::rename(queue_, side_);
      std::filesystem::rename(side_, queue_);
    }
  });

  std::string error;
  for (int question = 0; question < 10'000 && error.empty(); ++question) {
    try {
      HasReindex("/v/s");
      QueueFileSearch(queue_, {"/v/s"}).FindQueue("/v/s");
    } catch (const Error& caught) {
      error = caught.reason();
    }
  }
  mover.request_stop();
  mover.join();

  EXPECT_EQ(error, "");
}

TEST_F(QueueQuestion, ProcessingHoldsForEventsAtThePathAndBelow) {
  for (const std::string& line : {Create("/v/s/d"), Create("/v/s/d/f"), Create("/v/s/d/e/f"),
                                  Rename("/v/s/d/f", "/elsewhere"), Rename("/elsewhere", "/v/s/d/f")}) {
    WriteQueue({line});
    EXPECT_TRUE(IsProcessing("/v/s/d")) << line;
  }
}

TEST_F(QueueQuestion, ProcessingDoesNotHoldForNeighboursAndAncestors) {
  for (const std::string& line : {Create("/v/s/dd"), Create("/v/s"), Create("/v/s/D"), Create("/v/s/d2/d"),
                                  Rename("/v/s/dd", "/v/s/ddd"), Create("/x/v/s/d")}) {
    WriteQueue({line});
    EXPECT_FALSE(IsProcessing("/v/s/d")) << line;
  }
}

TEST_F(QueueQuestion, ProcessingLooksAtNoMaskAndAtTheOldPathOfEveryEvent) {
  WriteQueue({Line(0, "/v/s/d")});
  EXPECT_TRUE(IsProcessing("/v/s/d"));
  WriteQueue({R"({"event":64,"path":"/x","path_old":"/v/s/d/f"})"});
  EXPECT_TRUE(IsProcessing("/v/s/d"));
}

TEST_F(QueueQuestion, ProcessingComparesBytesWithASlashOnBothSides) {
  WriteQueue({Create("/v")});
  EXPECT_TRUE(IsProcessing("")) << "everything lies below the empty path";
  EXPECT_FALSE(IsProcessing("/v/"));
  EXPECT_FALSE(IsProcessing("/"));
  WriteQueue({Line(0x40, "/v/")});
  EXPECT_TRUE(IsProcessing("/v/"));
  EXPECT_TRUE(IsProcessing("/v"));
}

TEST_F(QueueQuestion, ReindexHoldsForThePathAndWhatLiesAboveIt) {
  WriteQueue({Reindex("/v/s/d")});
  EXPECT_TRUE(HasReindex("/v/s/d"));
  EXPECT_TRUE(HasReindex("/v/s/d/f"));
  EXPECT_TRUE(HasReindex("/v/s/d/f/g"));
  EXPECT_FALSE(HasReindex("/v/s"));
  EXPECT_FALSE(HasReindex("/v/s/dd"));
  EXPECT_FALSE(HasReindex("/v/s/D"));
}

TEST_F(QueueQuestion, AReindexBelowThePathDoesNotCoverIt) {
  WriteQueue({Reindex("/v/s/d/f/g")});
  EXPECT_FALSE(HasReindex("/v/s/d/f"));
}

TEST_F(QueueQuestion, ReindexWantsExactlyTheOneBit) {
  for (const int mask : {0x10040, 0x10001, 0x30000, 0x20000, 0x40, 0, -1}) {
    WriteQueue({Line(mask, "/v/s/d", true)});
    EXPECT_FALSE(HasReindex("/v/s/d")) << std::hex << mask;
  }
  WriteQueue({Line(0x10000, "/v/s/d", true)});
  EXPECT_TRUE(HasReindex("/v/s/d"));
}

TEST_F(QueueQuestion, ReindexDoesNotLookAtTheOldPath) {
  WriteQueue({R"({"event":65536,"path":"/x","path_old":"/v/s/d"})"});
  EXPECT_FALSE(HasReindex("/v/s/d"));
}

TEST_F(QueueQuestion, BothFilesAreAskedTheQueueFirst) {
  WriteSide({Reindex("/a")});
  EXPECT_TRUE(IsProcessing("/a")) << "the side file alone";
  EXPECT_TRUE(HasReindex("/a"));
  WriteQueue({Create("/b")});
  EXPECT_TRUE(IsProcessing("/a"));
  EXPECT_TRUE(IsProcessing("/b"));
  WriteQueue({Reindex("/b")});
  WriteSide({"{torn"});
  EXPECT_TRUE(IsProcessing("/b")) << "found before the side file is opened";
  EXPECT_TRUE(HasReindex("/b"));
  WriteQueue({"{torn"});
  WriteSide({Reindex("/a")});
  EXPECT_EQ("906 Malformed event_raw: {torn", ErrorOf([&] { IsProcessing("/a"); })) << "the queue comes first";
  EXPECT_EQ("906 Malformed event_raw: {torn", ErrorOf([&] { HasReindex("/a"); }));
}

TEST_F(QueueQuestion, RawEventsCountThatFoldingWouldCancel) {
  WriteQueue({Reindex("/d/e"), Reindex("/d"), Line(0x42, "/f"), Crash(), Reindex("/behind")});
  EXPECT_TRUE(HasReindex("/d/e"));
  EXPECT_TRUE(IsProcessing("/f"));
  EXPECT_TRUE(HasReindex("/behind")) << "the crash line does not end the scan";
}

TEST_F(QueueQuestion, LinesWithPathsThatNoTreeTakesAreNoFault) {
  WriteQueue({Create("relative"), Create("/a/"), Create("/b")});
  EXPECT_TRUE(IsProcessing("/b"));
}

TEST_F(QueueQuestion, ABadLineIsFatalUntilTheQueueIsConsumed) {
  for (const std::string bad : {"{torn", "", "nonsense"}) {
    WriteQueue({Create("/a"), bad, Reindex("/b")});
    EXPECT_EQ("906 Malformed event_raw: " + bad, ErrorOf([&] { IsProcessing("/b"); }));
    EXPECT_EQ("906 Malformed event_raw: " + bad, ErrorOf([&] { HasReindex("/b"); }));
    EXPECT_TRUE(IsProcessing("/a")) << "a match before the bad line is found";
  }
  WriteQueue({R"({"event":64})"});
  EXPECT_EQ("120 Missing property: path, data={\"event\":64}", ErrorOf([&] { IsProcessing("/b"); }));
  QueueMgr(queue_).PrepareTmpQueue();
  QueueMgr(queue_).DeleteTmp();
  EXPECT_FALSE(IsProcessing("/b"));
}

TEST_F(QueueQuestion, ALastLineThatIsStillBeingWrittenIsFatalToo) {
  WriteFile(queue_, Create("/a") + "\n" + Create("/b").substr(0, 20));
  EXPECT_EQ("906", ErrorOf([&] { IsProcessing("/b"); }).substr(0, 3));
  WriteFile(queue_, Create("/a") + "\n" + Create("/b"));
  EXPECT_TRUE(IsProcessing("/b")) << "a whole one without its newline is read";
}

TEST_F(QueueQuestion, ABadLineLeavesTheRecordOfItsCheckAlone) {
  WriteQueue({"{torn"});
  const RecordCapture capture;
  errno = 0;
  EXPECT_THROW(HasReindex("/b"), Error);
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "op.cpp", "Event", "!data.fromString(event_raw)", "Malformed event_raw: {torn");
}

TEST_F(QueueQuestion, AFileThatCannotBeOpenedIsError502WithItsRecord) {
  WriteQueue({Create("/a")});
  ASSERT_EQ(0, chmod(queue_.c_str(), 0));
  ASSERT_EQ(0, chmod(std::filesystem::path(queue_).parent_path().c_str(), 0755));
  const bool is_root = geteuid() == 0;
  const RecordCapture capture;
  if (is_root) {
    ASSERT_EQ(0, seteuid(65534));
  }
  const std::string processing = ErrorOf([&] { IsProcessing("/a"); });
  const std::string reindex = ErrorOf([&] { HasReindex("/a"); });
  const std::string tree = ErrorOf([&] { QueueMgr(queue_).GetOPTree(); });
  const auto records = capture.records();
  if (!records.empty()) {
    ExpectFailure(records[0], "queue_mgr.cpp", "FindQueue", "!input_stream",
                  "Failed to open queue, reason=" + std::string(strerror(EACCES)), strerror(EACCES));
  }
  if (is_root) {
    ASSERT_EQ(0, seteuid(0));
  }
  const std::string expected = "502 Failed to open queue, reason=" + std::string(strerror(EACCES));
  EXPECT_EQ(expected, processing);
  EXPECT_EQ(expected, reindex);
  EXPECT_EQ(expected, tree);
  EXPECT_EQ(3U, records.size());
}

TEST_F(QueueQuestion, ReadsWithoutLockingAndWithoutChangingTheFile) {
  WriteQueue({Create("/a")});
  const LockHolder holder(queue_);
  const FakeTime time;
  EXPECT_TRUE(IsProcessing("/a"));
  EXPECT_FALSE(HasReindex("/a"));
  EXPECT_TRUE(time.waits().empty());
  EXPECT_EQ(Join({Create("/a")}), ReadFile(queue_));
  EXPECT_FALSE(Exists(side_));
}

}  // namespace
}  // namespace orbisk::fileindex::test
