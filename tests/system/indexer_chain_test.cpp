// The indexing daemon with the real daemons round it: what happens on disk is found.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>

#include "nimo/daemon_connection.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/communication.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/json.h"
#include "orbisk/lock_file.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using fileindex::AddCustomEvent;
using testing::ElementsAre;
using testing::IsEmpty;

class IndexerChain : public IndexerBox {
 protected:
  void Write(const std::string& name, const std::string& text) const {
    MakeFolder(fs::path(Docs(name)).parent_path());
    WriteFile(Docs(name), text);
  }

  // As the management calls do for a folder that is new.
  void Announce(const std::string& path) const {
    Json::Value kinds;
    for (const char* const kind : {"document", "audio", "video", "photo"}) {
      kinds[kind] = true;
    }
    AddCustomEvent(fileindex::EVENT_UPDATE_DIRECTORY, path, "", kinds);
  }

  void StartWithFiles() {
    Write("a.txt", "kingfisher");
    Write("deep/er/b.txt", "bittern");
    Write("deep/c.txt", "heron");
    StartIndexer();
    Announce(Docs());
    ASSERT_TRUE(BecomesEqual());
  }

  // By the extractor since it started.
  static Json::Value ContentsRead() {
    nimodaemon::DomainSockConnection extractor("/var/run/nimocontentextractd.sock");
    std::string text;
    EXPECT_TRUE(extractor.Connect(5) && extractor.Send("{\"status\":true}") && extractor.Recv(text));
    return Parse(text)["data"]["contents"];
  }
};

TEST_F(IndexerChain, ANewFolderIsIndexedAndChangesInItFollow) {
  StartWithFiles();

  Write("a.txt", "dipper");
  Write("new/d.txt", "curlew");
  fs::remove_all(Docs("deep/er"));
  fs::permissions(Docs("deep/c.txt"), fs::perms::owner_read);

  EXPECT_TRUE(BecomesEqual());
  EXPECT_THAT(Find({"dipper"}), ElementsAre(Docs("a.txt")));
  EXPECT_THAT(Find({"bittern"}), IsEmpty());
}

TEST_F(IndexerChain, ARenameOfAFolderReadsNoFile) {
  StartWithFiles();
  ASSERT_TRUE(Eventually(IsIdle));
  // What was read right after it was written is read once more when it is met again.
  usleep(50'000);
  const int passes = StatusOf()["passes"].asInt();
  AddCustomEvent(fileindex::EVENT_REINDEX, Docs(), "", Json::Value());
  ASSERT_TRUE(Eventually([&] { return StatusOf()["passes"].asInt() > passes && IsIdle(); }));
  const Json::Value before = ContentsRead();

  fs::rename(Docs("deep/er"), Docs("lower"));

  EXPECT_TRUE(BecomesEqual());
  EXPECT_THAT(Find({"bittern"}), ElementsAre(Docs("lower/b.txt")));
  EXPECT_EQ(ContentsRead(), before);
}

TEST_F(IndexerChain, ALinkIsNotFollowedAndNotIndexed) {
  StartWithFiles();

  fs::create_symlink("a.txt", Docs("link.txt"));
  fs::create_directory_symlink("deep", Docs("loop"));
  Write("mark.txt", "dunlin");

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerChain, WhatIsNotWantedIsIndexedByItsAttributesAlone) {
  StartWithFiles();
  Json::Value entry = Entry("/docs", "all");
  entry["document"] = false;

  WriteFolders({entry});

  EXPECT_TRUE(Eventually([&] { return Find({"kingfisher"}).empty(); }));
  EXPECT_EQ(InIndex().size(), OnDisk().size());
  EXPECT_EQ(InIndex()[Docs("a.txt")].text, "");

  WriteFolders({Entry("/docs", "all")});

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerChain, AFolderTakenOutOfTheConfigurationIsFoundNoMore) {
  StartWithFiles();

  WriteFolders({Entry("/docs/deep/er", "some")});

  EXPECT_TRUE(Eventually([&] {
    const IndexedTree index = InIndex();
    return index.size() == 2 && index.count(Docs("deep/er")) == 1 && index.count(Docs("deep/er/b.txt")) == 1;
  }));
}

TEST_F(IndexerChain, PreservedNamesAreLeftOut) {
  Write(".git/config", "hidden");
  Write("x/@eaDir/y.txt", "hidden");
  Write("x/z.txt", "hidden");
  StartIndexer();
  Announce(Docs());

  EXPECT_TRUE(Eventually([&] { return Find({"hidden"}) == std::vector{Docs("x/z.txt")}; }));
  EXPECT_TRUE(Eventually(IsIdle));
  EXPECT_EQ(InIndex().count(Docs(".git/config")), 0U);
  EXPECT_EQ(InIndex().count(Docs("x/@eaDir")), 0U);
}

TEST_F(IndexerChain, WhileIndexingIsPausedNothingHappensAndThenEverything) {
  SkipWithoutIdentities();
  if (IsSkipped()) {
    return;
  }
  StartWithFiles();
  fileindex::StatusMgr().Pause(0);
  EXPECT_EQ(Command("status")["data"]["paused"], Json::Value(true));

  Write("a.txt", "dipper");
  ASSERT_TRUE(Eventually([] { return HasQueued(); }));
  usleep(500'000);
  EXPECT_EQ(InIndex()[Docs("a.txt")].text, "kingfisher");
  fileindex::StatusMgr().Resume();

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerChain, APauseEndsByItself) {
  StartWithFiles();
  WriteFile(kStatusFile, "{\"resume_time\":" + std::to_string(time(nullptr) + 5) + "}");
  Command("pause");
  ASSERT_EQ(Command("status")["data"]["paused"], Json::Value(true));

  Write("a.txt", "dipper");

  EXPECT_TRUE(BecomesEqual());
  EXPECT_EQ(Command("status")["data"]["paused"], Json::Value(false));
}

TEST_F(IndexerChain, ADeletedWorkerWorksNoMoreUntilItIsMadeAgain) {
  StartWithFiles();
  fileindex::SendCommandToDaemon("worker_delete", About("docs"));
  EXPECT_EQ(StatusOf()["state"].asString(), "deleted");

  Write("a.txt", "dipper");
  ASSERT_TRUE(Eventually([] { return HasQueued(); }));
  usleep(500'000);
  EXPECT_EQ(InIndex()[Docs("a.txt")].text, "kingfisher");
  fileindex::SendCommandToDaemon("worker_create", About("docs"));

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerChain, AMissingIndexIsMadeAgain) {
  StartWithFiles();
  fileindex::elastic::ShareIndexDelete("docs");

  Write("mark.txt", "dunlin");

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerChain, AnIndexThatIsMissingAtTheStartIsMadeWithoutAnEvent) {
  Write("a.txt", "kingfisher");
  fileindex::elastic::ShareIndexDelete("docs");

  StartIndexer();

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerChain, AShareThatIsMarkedIsComparedAndTheMarkTaken) {
  SkipWithoutIdentities();
  if (IsSkipped()) {
    return;
  }
  Write("a.txt", "kingfisher");
  KillMonitor();
  fs::remove(QueueOf("docs"));
  fileindex::StatusMgr().SetShareStatus("docs", 1);

  StartIndexer();

  EXPECT_TRUE(BecomesEqual());
  EXPECT_TRUE(Eventually([] { return fileindex::StatusMgr().GetShareStatus("docs") == 0; }));
}

TEST_F(IndexerChain, AFillThatIsKilledIsGoneOnWith) {
  for (int i = 0; i < 400; ++i) {
    Write(std::to_string(i) + ".txt", "word" + std::to_string(i));
  }
  KillMonitor();
  fs::remove(QueueOf("docs"));
  fileindex::elastic::ShareIndexDelete("docs");
  StartIndexer();
  ASSERT_TRUE(Eventually([] { return StatusOf()["changed"].asUInt() > 0; }));

  KillIndexer();
  EXPECT_LT(InIndex().size(), 401U);
  StartIndexer();

  EXPECT_TRUE(BecomesEqual(std::chrono::minutes(2)));
}

TEST_F(IndexerChain, WhatADeletedWorkerMissedIsComparedByTheNextDaemon) {
  StartWithFiles();
  KillMonitor();
  fileindex::SendCommandToDaemon("worker_delete", About("docs"));
  Write("a.txt", "dipper");

  KillIndexer();
  StartIndexer();

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerChain, AFolderThatIsUnpausedWhileNobodyLooksIsComparedByTheNextDaemon) {
  StartWithFiles();
  KillMonitor();
  Json::Value entry = Entry("/docs", "all");
  entry["paused"] = true;
  WriteFolders({entry});
  ASSERT_TRUE(Eventually([] { return StatusOf()["state"].asString() == "paused"; }));
  Write("a.txt", "dipper");

  KillIndexer();
  WriteFolders({Entry("/docs", "all")});
  StartIndexer();

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerChain, AMarkThatIsSetWakesTheWorker) {
  SkipWithoutIdentities();
  if (IsSkipped()) {
    return;
  }
  StartWithFiles();
  ASSERT_TRUE(Eventually(IsIdle));
  KillMonitor();
  Write("a.txt", "dipper");

  fileindex::StatusMgr().SetShareStatus("docs", 1);

  EXPECT_TRUE(BecomesEqual());
  EXPECT_TRUE(Eventually([] { return fileindex::StatusMgr().GetShareStatus("docs") == 0; }));
}

TEST_F(IndexerChain, AMarkIsTakenThoughWhoSetItHoldsTheLockStill) {
  SkipWithoutIdentities();
  if (IsSkipped()) {
    return;
  }
  StartWithFiles();
  ASSERT_TRUE(Eventually(IsIdle));
  fileindex::StatusMgr().SetShareStatus("other", 1);
  Json::Value status;
  ASSERT_TRUE(fromFile(status, kStatusFile));
  status["share"]["docs"] = 1;
  {
    const LockFile lock("/tmp/orbisk_cfg_fi_status.lock", true);
    ASSERT_TRUE(toFile(status, kStatusFile));
    usleep(500'000);  // in which a worker that does not wait has compared
  }

  EXPECT_TRUE(Eventually([] { return fileindex::StatusMgr().GetShareStatus("docs") == 0; }));
}

TEST_F(IndexerChain, AnIndexThatWasMadeAnewMeanwhileIsFilledWhole) {
  StartWithFiles();
  ASSERT_TRUE(Eventually(IsIdle));
  fileindex::elastic::ShareIndexDelete("docs");
  fileindex::elastic::ShareIndexCreate("docs");

  Write("a.txt", "dipper");

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerChain, WhatAFailedPassChangedIsCommittedByTheNext) {
  Write("a/a.txt", "kingfisher");
  Write("b/b.txt", "bittern");
  Write("c/c.txt", "heron");
  WriteFolders({Entry("/docs/a", "a"), Entry("/docs/c", "c")});
  StartIndexer();
  ASSERT_TRUE(Eventually([] { return Find({"kingfisher", "OR", "heron"}).size() == 2; }));
  ASSERT_TRUE(Eventually(IsIdle));
  KillMonitor();
  StopExtractor();

  // What is gone is removed first; what is new cannot be read.
  WriteFolders({Entry("/docs/b", "b"), Entry("/docs/c", "c")});
  ASSERT_TRUE(Eventually([] { return StatusOf()["state"].asString() == "failing"; }));
  WriteFolders({Entry("/docs/c", "c")});

  EXPECT_TRUE(Eventually([this] { return InIndex().count(Docs("a/a.txt")) == 0; }));
  EXPECT_EQ(InIndex().size(), 2U);
}

TEST_F(IndexerChain, ADeadSearchDaemonCostsNothingButTime) {
  StartWithFiles();
  KillSearchDaemon();
  Write("a.txt", "dipper");
  StartSearchDaemon();

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerChain, WithoutAnExtractorNothingIsForgotten) {
  StartWithFiles();
  StopExtractor();
  Write("a.txt", "dipper");
  ASSERT_TRUE(Eventually([] { return StatusOf()["state"].asString() == "failing"; }));
  EXPECT_EQ(InIndex()[Docs("a.txt")].text, "kingfisher");

  ReplaceExtractor();

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerChain, AScanThatIsKilledAgainAndAgainReadsHardlyAFileTwice) {
  // What a kill may cost: a file for each core, and the stamps that have not been sent.
  const int cost = 4 + static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
  const int files = 400 + 16 * cost;
  for (int i = 0; i < files; ++i) {
    Write(std::to_string(i % 7) + "/" + std::to_string(i) + ".txt", "word" + std::to_string(i));
  }
  usleep(50'000);
  StartIndexer();
  Announce(Docs());

  constexpr int kKills = 4;
  for (int kills = 0; kills < kKills; ++kills) {
    ASSERT_TRUE(Eventually([&] { return StatusOf()["changed"].asInt() > 2 * cost; }));
    KillIndexer();
    StartIndexer();
  }

  EXPECT_TRUE(BecomesEqual(std::chrono::minutes(2)));
  EXPECT_GE(ContentsRead().asInt(), files);
  EXPECT_LE(ContentsRead().asInt(), files + kKills * cost);
}

TEST_F(IndexerChain, ItStopsWithinASecondInTheMiddleOfAScan) {
  for (int i = 0; i < 2'000; ++i) {
    Write(std::to_string(i) + ".txt", "word" + std::to_string(i));
  }
  StartIndexer();
  Announce(Docs());
  constexpr std::chrono::milliseconds kLimit{1'500};  // a second, and what a busy machine adds
  auto quickest = std::chrono::steady_clock::duration::max();

  // Once is enough: others may have the processors.
  for (int stops = 0; stops < 5 && quickest >= kLimit; ++stops) {
    ASSERT_TRUE(Eventually([] { return StatusOf()["changed"].asUInt() > 0; }));
    const auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(StopIndexer(), 0);
    quickest = std::min(quickest, std::chrono::steady_clock::now() - asked);
    EXPECT_LT(InIndex().size(), 2'001U);
    StartIndexer();
  }

  EXPECT_LT(quickest, kLimit);
  EXPECT_TRUE(BecomesEqual(std::chrono::minutes(2)));
}

TEST_F(IndexerChain, BrokenContentIsAmongTheFailures) {
  StartWithFiles();
  Write("broken.pdf", "%PDF-1.7\nthis is none");

  EXPECT_TRUE(Eventually([this] { return InIndex().count(Docs("broken.pdf")) == 1; }));
  EXPECT_TRUE(Eventually([this] {
    const Json::Value failures = StatusOf()["failures"];
    return failures.size() == 1 && failures[0]["path"].asString() == Docs("broken.pdf");
  }));
}

TEST_F(IndexerChain, NamesAreBytes) {
  StartIndexer();
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/') {
      Write(std::string("x") + static_cast<char>(byte) + "y.txt", "word" + std::to_string(byte));
    }
  }
  Write(std::string(251, 'n') + ".txt", "long");

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerChain, ItStopsInTimeAndTakesItsSocketAlong) {
  StartWithFiles();

  EXPECT_EQ(StopIndexer(), 0);

  EXPECT_FALSE(fs::exists("/var/run/fileindexd.sock"));
  EXPECT_FALSE(fs::exists("/var/run/fileindexd.pid"));
}

TEST_F(IndexerChain, AMessageThatIsNoneClosesItsConnectionAlone) {
  StartIndexer();
  nimodaemon::DomainSockConnection good("/var/run/fileindexd.sock");
  nimodaemon::DomainSockConnection bad("/var/run/fileindexd.sock");
  ASSERT_TRUE(good.Connect(5));
  ASSERT_TRUE(bad.Connect(5));
  std::string text;

  ASSERT_TRUE(bad.Send("{"));
  EXPECT_FALSE(bad.Recv(text));

  ASSERT_TRUE(good.Send("{\"type\":\"status\",\"data\":null}"));
  EXPECT_TRUE(good.Recv(text));
  ASSERT_TRUE(good.Send("{\"type\":\"nonsense\"}"));
  ASSERT_TRUE(good.Recv(text));
  EXPECT_EQ(Parse(text)["success"], Json::Value(false));
}

TEST_F(IndexerChain, AnAnnouncementOfTooMuchClosesTheConnection) {
  StartIndexer();
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, "/var/run/fileindexd.sock");
  ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  const std::uint64_t length = std::uint64_t{1} << 40;

  ASSERT_EQ(write(fd, &length, sizeof(length)), 8);

  char byte = 0;
  EXPECT_EQ(read(fd, &byte, 1), 0);
  close(fd);
  EXPECT_EQ(Command("status")["success"], Json::Value(true));
}

TEST_F(IndexerChain, IdleItDoesNotWakeUp) {
  StartWithFiles();
  ASSERT_TRUE(Eventually(IsIdle));
  const auto switches = [&] {
    long sum = 0;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(indexer().pid()) + "/task")) {
      const std::string status = ReadFile(task.path() / "status");
      sum += std::stol(status.substr(status.find("\nvoluntary_ctxt_switches:") + 25));
    }
    return sum;
  };
  long before = switches();
  // What the questions of before have set off comes to its end.
  ASSERT_TRUE(Eventually([&] {
    usleep(500'000);
    const long now = switches();
    return std::exchange(before, now) == now;
  }));

  usleep(2'000'000);

  EXPECT_EQ(switches(), before);
}

}  // namespace
}  // namespace orbisk::test
