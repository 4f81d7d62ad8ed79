// What a scan shows of itself, what it takes of the box, and what becomes of it when files change or daemons are killed
// meanwhile.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "nimo/daemon_connection.h"
#include "orbisk/comm.h"
#include "orbisk/fileindex/elastic_control.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;

class IndexerScan : public IndexerBox {
 protected:
  void Write(const std::string& name, const std::string& text) const {
    MakeFolder(fs::path(Docs(name)).parent_path());
    WriteFile(Docs(name), text);
  }
  static bool Idle() { return StatusOf()["state"].asString() == "idle" && StatusOf()["backlog"] == 0; }
  static int Passes() { return StatusOf()["passes"].asInt(); }

  // Has the whole share compared with the disk, and waits for the end of that.
  static void CompareAll() {
    const int before = Passes();
    Command("worker_create", About("docs"));
    ASSERT_TRUE(Eventually([before] { return Passes() > before && Idle(); }, std::chrono::minutes(3)));
  }

  // Documents of files that are gone.
  void Plant(int documents) const {
    Json::Value request;
    for (int i = 0; i < documents; ++i) {
      Json::Value one;
      one["command"] = "document_upsert_by_id";
      one["data"]["id"] = fileindex::elastic::GetFileIndexID("docs");
      one["data"]["doc_id"] = Docs("gone/file" + std::to_string(i));
      one["data"]["data"]["NIMOMDPath"] = one["data"]["doc_id"];
      request["compound"].append(one);
      if (request["compound"].size() == 10'000 || i + 1 == documents) {
        SendRequest(request);
        request.clear();
      }
    }
    fileindex::elastic::IndexCommit("docs");
  }
  long PeakKib() {
    const std::string status = ReadFile("/proc/" + std::to_string(indexer().pid()) + "/status");
    return std::stol(status.substr(status.find("VmHWM:") + 6));
  }

  static Json::Value ExtractorStatus() {
    nimodaemon::DomainSockConnection extractor("/var/run/nimocontentextractd.sock");
    std::string text;
    EXPECT_TRUE(extractor.Connect(5) && extractor.Send("{\"status\":true}") && extractor.Recv(text));
    return Parse(text)["data"];
  }
};

// More words through one descriptor.
class OpenFile {
 public:
  explicit OpenFile(const std::string& path)
      : fd_(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644)) {
    EXPECT_GE(fd_, 0) << path;
  }
  ~OpenFile() { Close(); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  void Append(const std::string& text) const {
    EXPECT_EQ(write(fd_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void Close() {
    if (fd_ >= 0) {
      close(fd_);
      fd_ = -1;
    }
  }

 private:
  int fd_;
};

TEST_F(IndexerScan, AFileThatIsStillOpenIsIndexedAsFarAsItIsAndWholeWhenItIsClosed) {
  Write("a.txt", "kingfisher");
  StartIndexer();
  ASSERT_TRUE(BecomesEqual());
  OpenFile copy(Docs("copy.txt"));
  const auto append = [&copy](int from, int to) {
    for (int piece = from; piece < to; ++piece) {
      copy.Append("piece" + std::to_string(piece) + " ");
      usleep(20'000);
    }
  };

  append(0, 10);
  CompareAll();
  const std::string meanwhile = InIndex()[Docs("copy.txt")].text;
  append(10, 20);
  copy.Close();

  EXPECT_THAT(meanwhile, StartsWith("piece0 "));
  EXPECT_EQ(meanwhile.find("piece10"), std::string::npos);
  EXPECT_TRUE(BecomesEqual());
  EXPECT_THAT(Find({"piece19"}), ElementsAre(Docs("copy.txt")));
}

// Its extractor does what the files tell it to.
class IndexerSlowScan : public IndexerScan {
 protected:
  void SetUp() override {
    IndexerScan::SetUp();
    UseExtractor(ProgramBeside("hostile_extractor"), {"--deadline", "60"});
    ReplaceExtractor();
  }

  void WriteSlowFiles(int count, const std::string& milliseconds_each) const {
    for (int i = 0; i < count; ++i) {
      Write(std::to_string(i % 7) + "/" + std::to_string(i) + ".txt", "sleep_ms " + milliseconds_each);
    }
  }
  static bool IsInWork(const std::string& path) {
    const Json::Value status = ExtractorStatus();
    for (const Json::Value& content : status["in_work"]) {
      if (content["path"].asString() == path) {
        return true;
      }
    }
    return false;
  }
};

TEST_F(IndexerSlowScan, AFileThatIsReplacedWhileItIsReadIsReadAgain) {
  KillMonitor();
  Write("a.txt", "hold");
  StartIndexer();
  ASSERT_TRUE(Eventually([this] { return IsInWork(Docs("a.txt")); }));

  OpenFile replaced(Docs("a.txt"));
  WriteFile(OnFirst("new"), "dipper");
  fs::rename(OnFirst("new"), Docs("a.txt"));
  usleep(50'000);        // a file this young is looked at again whatever the index says of it
  replaced.Append("x");  // has the reader go on
  ASSERT_TRUE(Eventually([this] { return InIndex().count(Docs("a.txt")) == 1 && Idle(); }));
  CompareAll();

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerSlowScan, ARunningScanTellsRateTimeLeftAndFile) {
  WriteSlowFiles(400, "20");
  StartIndexer({"--extractions", "1"});

  Json::Value docs;
  EXPECT_TRUE(Eventually([&docs, this] {
    const ProcessResult told = Fileindexctl({"daemon", "status", "--json"});
    EXPECT_EQ(told.exit_status, 0) << told.errors;
    docs = Parse(told.output)["shares"][0];
    return docs["state"] == "working" && docs["to_do"].asUInt() > 0 && docs["rate"].asDouble() > 0 &&
           docs["seconds_left"].isUInt() && docs["seconds_left"].asUInt() > 0 && docs["backlog"].isUInt() &&
           docs["file"].asString().rfind(Docs() + "/", 0) == 0;
  })) << docs;
}

TEST_F(IndexerSlowScan, TheReadersStandBackForEverybodyElseToo) {
  constexpr int kWhoThread = 1;
  constexpr long kBestEffortLowest = (2 << 13) | 7;
  Write("a.txt", "hold");
  StartIndexer();
  ASSERT_TRUE(Eventually([this] { return IsInWork(Docs("a.txt")); }));

  int readers = 0;
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(indexer().pid()) + "/task")) {
    if (ReadFile(task.path() / "comm") == "i-crew\n") {
      const int thread = std::stoi(task.path().filename());
      EXPECT_EQ(sched_getscheduler(thread), SCHED_BATCH);
      EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(thread)), 10);
      EXPECT_EQ(syscall(SYS_ioprio_get, kWhoThread, thread), kBestEffortLowest);
      ++readers;
    }
  }

  EXPECT_GE(readers, 1);
  OpenFile(Docs("a.txt")).Append("x");
}

// Each time longer than what passes between two milestones.
TEST_F(IndexerSlowScan, AScanThatIsKilledEveryFewSecondsReadsHardlyAFileTwice) {
  constexpr int kFiles = 600;
  constexpr int kEachKill = 6;  // in work, or without their stamp yet
  WriteSlowFiles(kFiles, "25");
  usleep(50'000);  // younger files are read once more
  const auto all = [this] { return InIndex().size() == OnDisk().size() && Idle(); };

  int kills = 0;
  StartIndexer({"--extractions", "1"});
  while (!Eventually(all, seconds(6)) && kills < 30) {
    KillIndexer();
    ++kills;
    StartIndexer({"--extractions", "1"});
  }

  EXPECT_TRUE(Eventually(all));
  EXPECT_GE(kills, 2);
  EXPECT_GE(ExtractorStatus()["contents"].asInt(), kFiles);
  EXPECT_LE(ExtractorStatus()["contents"].asInt(), kFiles + kEachKill * kills);
}

// Sanitizers keep what was released.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)
TEST_F(IndexerScan, AComparisonOfManyDocumentsKeepsWithinItsMemory) {
  constexpr int kDocuments = 100'000;
  Write("a.txt", "kingfisher");
  StartIndexer();
  ASSERT_TRUE(BecomesEqual());
  Plant(kDocuments);
  const long before = PeakKib();

  CompareAll();

  EXPECT_TRUE(BecomesEqual());
  // 200 bytes for each, and the answer to one question about some of them.
  EXPECT_LT(PeakKib() - before, 32 * 1024);
}
#endif

// Where events count as one after the other that lie far apart, so that a busy machine makes no difference.
class IndexerSettle : public IndexerScan {
 protected:
  void SetUp() override {
    IndexerScan::SetUp();
    Write("log.txt", "begin ");
    StartIndexer({"--settle-ms", "3000"});
    ASSERT_TRUE(BecomesEqual());
    ASSERT_TRUE(Eventually(Idle));
  }

  void Append(const std::string& text) const { OpenFile(Docs("log.txt")).Append(text); }
};

TEST_F(IndexerSettle, EventsThatKeepComingAreTakenAfterTwoSecondsAtMost) {
  const int before = Passes();
  const auto begun = Clock::now();
  const auto took = [begun] { return Clock::now() - begun; };
  while (took() < seconds(5) || (Passes() < before + 2 && took() < seconds(30))) {
    Append("word ");
    usleep(50'000);
  }

  const int passes = Passes() - before;

  EXPECT_GE(passes, 2);
  EXPECT_LE(passes, 1 + took() / seconds(2)) << "each takes what came in two seconds";
  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerSettle, AnEventAfterQuietIsTakenAtOnce) {
  bool at_once = false;
  // A machine can be so busy that it takes as long as settling does; not each time.
  for (int attempt = 0; attempt < 3 && !at_once; ++attempt) {
    usleep(3'100'000);
    Append("word ");
    at_once = Eventually([this] { return InIndex() == OnDisk(); }, milliseconds(2'500));
    EXPECT_TRUE(BecomesEqual());
  }

  EXPECT_TRUE(at_once);
}

}  // namespace
}  // namespace orbisk::test
