// What the indexing daemon takes of the box: less than others want.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
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

}  // namespace
}  // namespace orbisk::test
