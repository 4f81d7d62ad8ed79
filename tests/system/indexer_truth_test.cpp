// Whatever is done to the files, and whoever is killed meanwhile: when it is quiet the index equals the disk.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

// ORBISK_TRUTH_SECONDS says how long to go on; ORBISK_TRUTH_SEED repeats the choices of a run, though not its timing.
long FromEnvironment(const char* name, long missing) {
  const char* const text = getenv(name);
  return text != nullptr ? std::stol(text) : missing;
}

// Random operations on a tree of few names, so that they meet often.
class Scribbler {
 public:
  Scribbler(std::string folder, std::string outside, std::mt19937& random)
      : folder_(std::move(folder)), outside_(std::move(outside)), random_(random) {}

  void Step() {
    switch (Pick(12)) {
      case 0:
      case 1:
      case 2:
        Write(std::ios::trunc);
        break;
      case 3:
        Write(std::ios::app);
        break;
      case 4:
        fs::create_directories(Path(), ignored_);
        break;
      case 5:
      case 6:
        fs::rename(Path(), Path(), ignored_);
        break;
      case 7:
        fs::remove(Path(), ignored_);
        break;
      case 8:
        fs::remove_all(Path(), ignored_);
        break;
      case 9:
        fs::permissions(Path(), static_cast<fs::perms>(0700 + Pick(64)), ignored_);
        break;
      case 10:
        Swap();
        break;
      default:
        Pick(2) == 0 ? fs::rename(Path(), outside_ + "/x", ignored_) : fs::rename(outside_ + "/x", Path(), ignored_);
    }
  }

  unsigned Pick(unsigned bound) { return std::uniform_int_distribution<unsigned>(0, bound - 1)(random_); }

 private:
  std::string Path() {
    static const std::vector<std::string> names = {"a", "b.txt", "c\xff.txt", "d e", "f.md"};
    std::string path = folder_;
    for (unsigned depth = 1 + Pick(4); depth > 0; --depth) {
      path += "/" + names[Pick(static_cast<unsigned>(names.size()))];
    }
    return path;
  }

  void Write(std::ios::openmode mode) {
    const std::string path = Path();
    fs::create_directories(fs::path(path).parent_path(), ignored_);
    std::ofstream(path, std::ios::binary | mode) << "word" << Pick(10'000) << " plain\n";
  }

  void Swap() {
    const std::string a = Path();
    const std::string b = Path();
    const std::string between = outside_ + "/between";
    fs::rename(a, between, ignored_);
    fs::rename(b, a, ignored_);
    fs::rename(between, b, ignored_);
    fs::remove_all(between, ignored_);
  }

  std::string folder_;
  std::string outside_;
  std::mt19937& random_;
  std::error_code ignored_;
};

class IndexerTruth : public IndexerBox {
 protected:
  void KillSomebody(unsigned who) {
    switch (who) {
      case 0:
        KillSearchDaemon();
        StartSearchDaemon();
        break;
      case 1:
        ReplaceExtractor();
        break;
      case 2:
        KillMonitor();
        StartMonitor();
        break;
      default:
        KillIndexer();
        StartIndexer();
    }
  }
};

TEST_F(IndexerTruth, TheIndexEqualsTheDiskWheneverItIsQuiet) {
  const long seconds = FromEnvironment("ORBISK_TRUTH_SECONDS", 20);
  const long seed = FromEnvironment("ORBISK_TRUTH_SEED", static_cast<long>(time(nullptr)));
  SCOPED_TRACE("ORBISK_TRUTH_SEED=" + std::to_string(seed));
  std::mt19937 random(static_cast<unsigned>(seed));
  MakeFolder(OnFirst("outside"));
  Scribbler scribbler(Docs(), OnFirst("outside"), random);
  StartIndexer();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);

  for (int round = 0; round < 2 || std::chrono::steady_clock::now() < end; ++round) {
    for (unsigned step = 20 + scribbler.Pick(200); step > 0; --step) {
      scribbler.Step();
      if (scribbler.Pick(20) == 0) {
        usleep(scribbler.Pick(60'000));
      }
      if (scribbler.Pick(150) == 0) {
        KillSomebody(scribbler.Pick(6));
      }
    }
    // The library asks again after 30 s when a search daemon that was killed is not done with opening its index.
    ASSERT_TRUE(BecomesEqual(std::chrono::minutes(3))) << "round " << round;
  }
}

}  // namespace
}  // namespace orbisk::test
