// Whatever is done to the files, whatever is managed meanwhile, and whoever is killed: when it is quiet the index
// equals the disk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <string>

#include "tests/system/indexer_box.h"
#include "tests/system/truth_manager.h"
#include "tests/system/truth_scribbler.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// ORBISK_TRUTH_SECONDS says how long to go on; ORBISK_TRUTH_SEED repeats the choices of a run, though not its timing.
long FromEnvironment(const char* name, long missing) {
  const char* const text = getenv(name);
  return text != nullptr ? std::stol(text) : missing;
}

class IndexerTruth : public IndexerBox {
 protected:
  void SetUp() override {
    IndexerBox::SetUp();
    for (const char* const share : {"music", "photo"}) {
      AddShare(OnFirst(share));
    }
    MakeFolder(OnFirst("outside"));
    StartIndexer();
  }

  void KillSomebody(unsigned who) {
    const auto rest = [this] { usleep(scribbler_.Pick(3) == 0 ? scribbler_.Pick(300'000) : 0); };
    switch (who) {
      case 0:
        KillSearchDaemon();
        rest();
        StartSearchDaemon();
        break;
      case 1:
        ReplaceExtractor();
        break;
      case 2:
        KillMonitor();
        rest();
        StartMonitor();
        break;
      case 3:
        KillWorker();
        break;
      default:
        KillIndexer();
        rest();
        StartIndexer();
    }
  }

  // Files alone, or files while the box is managed.
  void Storm(bool manages) {
    for (unsigned step = 20 + scribbler_.Pick(200); step > 0; --step) {
      scribbler_.Step();
      if (scribbler_.Pick(20) == 0) {
        usleep(scribbler_.Pick(60'000));
      }
      if (manages && scribbler_.Pick(25) == 0) {
        manager_.Begin(scribbler_.Pick(TruthManager::kKinds));
      }
      if (scribbler_.Pick(150) == 0) {
        KillSomebody(scribbler_.Pick(7));
      }
    }
  }

  // The library asks again after 30 s when a search daemon that was killed is not done with opening its index.
  testing::AssertionResult AllBecomeEqual() {
    for (const std::string& share : manager_.Shares()) {
      const testing::AssertionResult equal =
          BecomesEqualTo([this, &share] { return Wanted(share); }, std::chrono::minutes(3), share);
      if (!equal) {
        return equal;
      }
    }
    return testing::AssertionSuccess();
  }

  // What is on disk, as far as the folders file has it indexed.
  IndexedTree Wanted(const std::string& share) const {
    IndexedTree wanted;
    for (auto& [path, what] : OnDisk(share)) {
      const Json::Value folder = manager_.Governing(path);
      if (!folder.isNull() && !Scribbler::IsPreserved(path)) {
        wanted[path] = what;
        wanted[path].is_shared = IsShared(path);
        if (!what.is_folder && Scribbler::IsDocument(path) && !folder["document"].asBool()) {
          wanted[path].text.clear();
        }
      }
    }
    return wanted;
  }

  bool IsShared(const std::string& path) const {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0 && scribbler_.WasShared(info.st_dev, info.st_ino);
  }

  // What it takes to understand a failure.
  std::string Remains() const {
    std::string text = "\nmanagement:\n" + manager_.Story() + "\nfiles:\n";
    for (const std::string& line : scribbler_.story()) {
      text += line + "\n";
    }
    const auto add = [&text](const fs::path& path) {
      constexpr size_t kBytes = 8'192;
      const std::string content = fs::is_regular_file(path) ? ReadFile(path) : "";
      text += content.empty() ? "" : "\n" + path.string() + ":\n" + content.substr(0, kBytes) + "\n";
    };
    add(kFoldersFile);
    add(kStatusFile);
    for (const auto& registration : fs::directory_iterator(kRegistrations)) {
      add(registration.path());
    }
    for (const std::string& share : manager_.Shares()) {
      for (const char* const suffix : {"", ".tmp", ".mark"}) {
        add(OnFirst("@fileindex/" + share + "/queue" + suffix));
      }
    }
    return text + "\nindexing daemon:\n" + IndexerLog();
  }

  std::mt19937 random_{static_cast<unsigned>(FromEnvironment("ORBISK_TRUTH_SEED", 1))};
  TruthManager manager_{Volume(), {"docs", "music", "photo"}};
  Scribbler scribbler_{[this] { return manager_.Roots(); }, OnFirst("outside"), random_};
};

TEST_F(IndexerTruth, TheIndexEqualsTheDiskWheneverItIsQuiet) {
  const long seconds = FromEnvironment("ORBISK_TRUTH_SECONDS", 20);
  std::cout << "ORBISK_TRUTH_SEED=" << FromEnvironment("ORBISK_TRUTH_SEED", 1) << std::endl;
  const bool may_manage = ReadFile("/proc/self/setgroups") != "deny\n";
  const auto end = Clock::now() + std::chrono::seconds(seconds);

  int round = 0;
  for (; round < 4 || Clock::now() < end; ++round) {
    // A share that was managed is often compared as a whole; those that are not tell of events that get lost.
    Storm(may_manage && round % 2 == 1);
    manager_.Settle();
    ASSERT_TRUE(AllBecomeEqual()) << "round " << round
                                  << " of ORBISK_TRUTH_SEED=" << FromEnvironment("ORBISK_TRUTH_SEED", 1) << Remains();
    if (may_manage && scribbler_.Pick(8) == 0) {
      manager_.RenameShare("photo", "pictures");
    }
  }
  std::cout << round << " rounds, " << manager_.Counts() << std::endl;
}

}  // namespace
}  // namespace orbisk::test
