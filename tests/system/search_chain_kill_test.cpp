// Search daemon, extractor and its workers are killed at random instants while files are indexed: what was committed is
// found by its words, and the database opens.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "tests/support/fake_time.h"
#include "tests/support/private_mounts.h"
#include "tests/system/search_box.h"

namespace orbisk::test {
namespace {

namespace elastic = fileindex::elastic;

constexpr int kKills = 200;
constexpr int kFailures = 20;
constexpr size_t kCommitted = 100;
constexpr size_t kVolumeBytes = size_t{512} << 20;

class SearchChainKill : public SearchBox {
 protected:
  void SetUp() override {
    SearchBox::SetUp();
    MountEmptyFileSystem(OnFirst(""), kVolumeBytes);
    AddIndexedShare(OnFirst("docs"));
    MakeFolder(OnFirst("docs/in"));
    // The library waits seconds for a daemon that is gone; this one is back within milliseconds.
    time_.OnWait([](size_t) { std::this_thread::sleep_for(std::chrono::milliseconds(1)); });
  }

  void TearDown() override {
    SearchBox::TearDown();
    umount2(OnFirst("").c_str(), MNT_DETACH);
  }

  // Indexes three files after three files, and remembers those that a commit confirmed. What fails is written and sent
  // again, as by an indexer.
  void IndexUntilStopped() {
    for (int next = 0; !stop_;) {
      std::vector<std::string> batch;
      for (int i = 0; i < 3; ++i) {
        batch.push_back(OnFirst("docs/in/" + std::to_string(next + i)));
        WriteFile(batch.back(), "common word" + std::to_string(next + i) + "\n");
        const std::lock_guard lock(mutex_);
        sent_.insert(batch.back());
      }
      try {
        for (const std::string& path : batch) {
          elastic::IndexUpsert("docs", path, true);
        }
        elastic::IndexCommit("docs");
        next += 3;
        const std::lock_guard lock(mutex_);
        committed_.insert(batch.begin(), batch.end());
      } catch (const Error&) {
        ++failures_;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  }

  void KillSomething() {
    switch (random_() % 3) {
      case 0:
        KillSearchDaemon();
        StartSearchDaemon();
        break;
      case 1:
        ReplaceExtractor();
        break;
      default:
        KillWorker();
    }
  }

  // Every document that a commit had confirmed before this is found by a word of its text, and nothing else is.
  void ExpectCommittedFound() {
    std::set<std::string> committed;
    {
      const std::lock_guard lock(mutex_);
      committed = committed_;
    }
    WaitUntilOpen("docs");
    const std::vector<std::string> hits = Find({"common", "--limit", "10000"});
    const std::set<std::string> found(hits.begin(), hits.end());
    const std::lock_guard lock(mutex_);
    EXPECT_EQ(found.size(), hits.size()) << "a document is there twice";
    EXPECT_TRUE(std::includes(found.begin(), found.end(), committed.begin(), committed.end()));
    EXPECT_TRUE(std::includes(sent_.begin(), sent_.end(), found.begin(), found.end()));
  }

  // Whether enough happened between the kills to prove anything, which a slow machine needs more kills for.
  bool IsEnough(int kills) {
    const std::lock_guard lock(mutex_);
    return kills >= kKills && failures_ > kFailures && committed_.size() > kCommitted;
  }

  FakeTime time_;
  std::mt19937 random_{20261121};
  std::atomic<bool> stop_{false};
  std::atomic<int> failures_{0};
  std::mutex mutex_;
  std::set<std::string> sent_;
  std::set<std::string> committed_;
};

TEST_F(SearchChainKill, EveryCommittedDocumentIsFoundAfterHundredsOfKillsOfDaemonsAndWorkers) {
  std::thread indexer([this] { IndexUntilStopped(); });

  for (int kills = 0; !IsEnough(kills) && !HasFailure();) {
    std::this_thread::sleep_for(std::chrono::microseconds(random_() % 60'000));
    KillSomething();
    if (++kills % 50 == 0) {
      ExpectCommittedFound();
    }
  }
  stop_ = true;
  indexer.join();

  ExpectCommittedFound();
  EXPECT_EQ(Fileindexctl({"index", "stat", "docs", "--check"}).exit_status, 0);
}

}  // namespace
}  // namespace orbisk::test
