// What the indexing daemon takes of the box: less than others want, and nothing when there is nothing to do.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orbisk/fileindex/elastic_control.h"
#include "tests/system/indexer_box.h"
#include "tests/system/silent_extractor.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class IndexerLimits : public IndexerBox {
 protected:
  // The daemon's threads that work for a share.
  std::vector<int> WorkerThreads() {
    std::vector<int> threads;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(indexer().pid()) + "/task")) {
      if (ReadFile(task.path() / "comm").rfind("i-", 0) == 0) {
        threads.push_back(std::stoi(task.path().filename()));
      }
    }
    return threads;
  }
};

TEST_F(IndexerLimits, AWorkerStandsBackForEverybodyElse) {
  StartWithOneFile();
  constexpr int kWhoThread = 1;
  constexpr long kBestEffortLowest = (2 << 13) | 7;

  const std::vector<int> threads = WorkerThreads();

  ASSERT_EQ(threads.size(), 1U);
  EXPECT_EQ(sched_getscheduler(threads[0]), SCHED_BATCH);
  EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(threads[0])), 10);
  EXPECT_EQ(syscall(SYS_ioprio_get, kWhoThread, threads[0]), kBestEffortLowest);
}

class IndexerExtractions : public IndexerBox {
 protected:
  void StartWithTwoShares(const std::string& extractions) {
    WriteFile(Docs("a.txt"), "kingfisher");
    AddShare(OnFirst("music"));
    fileindex::elastic::ShareIndexCreate("music");
    WriteFolders({Entry("/docs", "all"), Entry("/music", "songs")});
    StopExtractor();
    extractor_.emplace();
    StartIndexer({"--extractions", extractions});
  }
  void TearDown() override {
    extractor_.reset();
    IndexerBox::TearDown();
  }

  std::optional<SilentExtractor> extractor_;
};

TEST_F(IndexerExtractions, NoMoreFilesAreReadAtOnceThanAllowed) {
  StartWithTwoShares("1");

  EXPECT_TRUE(extractor_->OneMoreComes(std::chrono::seconds(30)));
  EXPECT_FALSE(extractor_->OneMoreComes(std::chrono::seconds(1)));
}

TEST_F(IndexerExtractions, SharesAreReadSideBySideWhereThatIsAllowed) {
  StartWithTwoShares("2");

  EXPECT_TRUE(extractor_->OneMoreComes(std::chrono::seconds(30)));
  EXPECT_TRUE(extractor_->OneMoreComes(std::chrono::seconds(30)));
  EXPECT_FALSE(extractor_->OneMoreComes(std::chrono::seconds(1)));
}

// What the kernel counts of a process: reads and writes, and how often its threads waited for something and went on.
using Activity = std::map<std::string, std::string>;

void AddActivity(pid_t pid, Activity& activity) {
  const std::string process = "/proc/" + std::to_string(pid);
  const std::string name = ReadFile(process + "/comm") + " " + std::to_string(pid);
  activity[name + " io"] = ReadFile(process + "/io");
  for (const auto& task : fs::directory_iterator(process + "/task")) {
    const std::string status = ReadFile(task.path() / "status");
    const size_t at = status.find("\nvoluntary_ctxt_switches:");
    activity[name + " " + task.path().filename().string()] = status.substr(at, status.find('\n', at + 1) - at);
    std::ifstream children(task.path() / "children");
    for (pid_t child = 0; children >> child;) {
      AddActivity(child, activity);
    }
  }
}

// Of all daemons with their own children; they are this program's children.
Activity ActivityOfTheBox() {
  Activity activity;
  std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
  for (pid_t child = 0; children >> child;) {
    AddActivity(child, activity);
  }
  return activity;
}

TEST_F(IndexerLimits, ABoxWithNothingToDoReadsNothingWritesNothingAndSleeps) {
  StartWithOneFile();
  // The kernel's timer for the last client's time limit of 30 s fires once more, although the client has gone.
  usleep(31'000'000);
  Activity before = ActivityOfTheBox();
  // The extractor ends what it holds in readiness, the search daemon tidies up.
  ASSERT_TRUE(Eventually(
      [&before] {
        usleep(5'000'000);
        const Activity now = ActivityOfTheBox();
        return std::exchange(before, now) == now;
      },
      std::chrono::minutes(3)));
  ASSERT_GE(before.size(), 8U);

  usleep(20'000'000);

  EXPECT_EQ(ActivityOfTheBox(), before);
}

}  // namespace
}  // namespace orbisk::test
