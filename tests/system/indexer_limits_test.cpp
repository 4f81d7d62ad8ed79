// What the indexing daemon takes of the box: less than others want, and nothing when there is nothing to do.
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "orbisk/fileindex/elastic_control.h"
#include "tests/support/local_socket.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class IndexerLimits : public IndexerBox {
 protected:
  void StartWithFiles() {
    WriteFile(Docs("a.txt"), "kingfisher");
    StartIndexer();
    ASSERT_TRUE(BecomesEqual());
    ASSERT_TRUE(Eventually([] { return StatusOf()["state"].asString() == "idle"; }));
  }

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
  StartWithFiles();
  constexpr int kWhoThread = 1;
  constexpr long kBestEffortLowest = (2 << 13) | 7;

  const std::vector<int> threads = WorkerThreads();

  ASSERT_EQ(threads.size(), 1U);
  EXPECT_EQ(sched_getscheduler(threads[0]), SCHED_BATCH);
  EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(threads[0])), 10);
  EXPECT_EQ(syscall(SYS_ioprio_get, kWhoThread, threads[0]), kBestEffortLowest);
}

// The extractor takes requests and answers none.
class IndexerExtractions : public IndexerLimits {
 protected:
  void StartWithTwoShares(const std::string& extractions) {
    WriteFile(Docs("a.txt"), "kingfisher");
    AddShare(OnFirst("music"));
    fileindex::elastic::ShareIndexCreate("music");
    WriteFolders({Entry("/docs", "all"), Entry("/music", "songs")});
    StopExtractor();
    extractor_ = ListenAt("/var/run/nimocontentextractd.sock");
    StartIndexer({"--extractions", extractions});
  }
  void TearDown() override {
    for (const int request : requests_) {
      close(request);
    }
    close(extractor_);
    IndexerLimits::TearDown();
  }

  // Whether one more file is given to the extractor within that time. Questions about its status do not count.
  bool OneMoreComes(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (true) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
      pollfd asked{extractor_, POLLIN, 0};
      if (left <= 0 || poll(&asked, 1, static_cast<int>(left)) != 1) {
        return false;
      }
      const int request = accept4(extractor_, nullptr, nullptr, SOCK_CLOEXEC);
      if (!AsksForStatus(request)) {
        requests_.push_back(request);
        return true;
      }
      close(request);
    }
  }

 private:
  static bool AsksForStatus(int request) {
    std::uint64_t bytes = 0;
    EXPECT_EQ(recv(request, &bytes, sizeof(bytes), MSG_WAITALL), static_cast<ssize_t>(sizeof(bytes)));
    std::string text(std::min<std::uint64_t>(bytes, 4096), '\0');
    EXPECT_EQ(recv(request, text.data(), text.size(), MSG_WAITALL), static_cast<ssize_t>(text.size()));
    return text.rfind("{\"status\":true", 0) == 0;
  }

  int extractor_ = -1;
  std::vector<int> requests_;
};

TEST_F(IndexerExtractions, NoMoreFilesAreReadAtOnceThanAllowed) {
  StartWithTwoShares("1");

  EXPECT_TRUE(OneMoreComes(std::chrono::seconds(30)));
  EXPECT_FALSE(OneMoreComes(std::chrono::seconds(1)));
}

TEST_F(IndexerExtractions, SharesAreReadSideBySideWhereThatIsAllowed) {
  StartWithTwoShares("2");

  EXPECT_TRUE(OneMoreComes(std::chrono::seconds(30)));
  EXPECT_TRUE(OneMoreComes(std::chrono::seconds(30)));
  EXPECT_FALSE(OneMoreComes(std::chrono::seconds(1)));
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
  StartWithFiles();
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
