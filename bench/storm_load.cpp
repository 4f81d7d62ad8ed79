// A storm of changes on many files while the whole stack runs: nothing may be lost, and the index ends equal to the
// disk. Shows how much memory each process needed.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/disk_box.h"
#include "bench/process_peaks.h"
#include "tests/support/temp_dir.h"

namespace orbisk::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFilesInFolder = 1000;
constexpr std::chrono::hours kPatience{2};
constexpr long kMostMonitorKib = 128L << 10;
constexpr long kMostKib = 512L << 10;

double SecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

class StormBox : public DiskBox {
 public:
  bool Run(int events, int files) {
    SetUp();
    StartIndexer();
    ProcessPeaks peaks;
    const Clock::time_point begin = Clock::now();
    Storm(events, files);
    const double storm_seconds = SecondsSince(begin);
    printf("%d file events on %d files, written in %.1f s (%.0f a second)\n", events, files, storm_seconds,
           events / storm_seconds);
    fflush(stdout);
    const bool settled = Settles(begin);
    printf("settled %.1f s after the first event; %s passes, %s operations, %s failures; indexing daemon: %s\n",
           SecondsSince(begin), StatusOf()["passes"].asString().c_str(), StatusOf()["operations"].asString().c_str(),
           StatusOf()["failed"].asString().c_str(), StatusOf()["state"].asString().c_str());
    const bool memory = TellMemory(peaks.Stop());
    const bool equal = settled && TellDifferences();
    TearDown();
    return equal && memory;
  }

 private:
  // A file's changes come in rounds of all files, in another order each time, so that one file's are far apart.
  void Storm(int events, int files) {
    names_.resize(static_cast<size_t>(files));
    std::vector<int> order(static_cast<size_t>(files));
    for (int file = 0; file < files; ++file) {
      order[static_cast<size_t>(file)] = file;
    }
    for (int done = 0; done < events; ++done) {
      if (done % files == 0) {
        std::shuffle(order.begin(), order.end(), random_);
        fprintf(stderr, "%d of %d events written; %s\n", done, events, Progress().c_str());
      }
      Change(order[static_cast<size_t>(done % files)]);
    }
  }

  // One event of a file: it is made if it is not there; else written anew, appended to, renamed, or removed, or its
  // permissions change.
  void Change(int file) {
    std::string& name = names_[static_cast<size_t>(file)];
    const unsigned what = static_cast<unsigned>(random_() % 100);
    if (name.empty() || what < 45) {
      name = name.empty() ? NewName(file) : name;
      Write(name, std::ios::trunc);
    } else if (what < 65) {
      Write(name, std::ios::app);
    } else if (what < 80) {
      const std::string to = NewName(file);
      rename(name.c_str(), to.c_str());
      name = to;
    } else if (what < 90) {
      chmod(name.c_str(), what % 2 == 0 ? 0600 : 0640);
    } else {
      unlink(name.c_str());
      name.clear();
    }
  }

  // Some renames lead to another folder.
  std::string NewName(int file) {
    const int shift = random_() % 10 == 0 ? static_cast<int>(random_() % 10) : 0;
    const std::string folder = Docs("d" + std::to_string((file / kFilesInFolder) + shift));
    mkdir(folder.c_str(), 0755);
    return folder + "/f" + std::to_string(file) + "-" + std::to_string(++number_) + ".txt";
  }

  void Write(const std::string& path, std::ios::openmode mode) {
    std::ofstream(path, std::ios::binary | mode) << "word" << random_() << " and " << ++number_ << "\n";
  }

  static std::string Progress() {
    const Json::Value status = StatusOf();
    return "indexing: " + status["state"].asString() + ", " + status["done"].asString() + " done, " +
           status["to_do"].asString() + " to do in pass " + status["passes"].asString();
  }

  // Nothing is pending: not in the queue, not in the side file, and not in the daemon.
  bool IsSettled() const {
    struct stat info {};
    const bool queue = stat(QueueOf("docs").c_str(), &info) == 0 && info.st_size > 0;
    const bool side_file = stat((QueueOf("docs") + ".tmp").c_str(), &info) == 0;
    return !queue && !side_file && StatusOf()["state"] == "idle";
  }

  bool Settles(Clock::time_point begin) {
    int calm = 0;  // looks in a row: the monitor may have something in hand
    for (int looks = 1; Clock::now() - begin < kPatience; ++looks) {
      calm = IsSettled() ? calm + 1 : 0;
      if (calm == 4) {
        return true;
      }
      if (looks % 30 == 0) {
        fprintf(stderr, "%.0f s: %s\n", SecondsSince(begin), Progress().c_str());
      }
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    printf("NOT SETTLED in time: %s\n", Progress().c_str());
    return false;
  }

  bool TellDifferences() const {
    const test::IndexedTree disk = OnDisk();
    const test::IndexedTree index = InIndex();
    size_t missing = 0;
    size_t other = 0;
    for (const auto& [path, what] : disk) {
      const auto found = index.find(path);
      const bool is_missing = found == index.end();
      missing += is_missing ? 1 : 0;
      other += !is_missing && !(found->second == what) ? 1 : 0;
    }
    const size_t vanished = index.size() - (disk.size() - missing);
    printf("on disk %zu, in the index %zu: %zu missing, %zu different, %zu in the index alone: %s\n", disk.size(),
           index.size(), missing, other, vanished, missing + other + vanished == 0 ? "equal" : "NOT EQUAL");
    return missing + other + vanished == 0;
  }

  static bool TellMemory(const std::map<std::string, long>& peaks) {
    bool kept = true;
    // As the kernel cuts their names.
    for (const char* const daemon : {"nimotifyd", "nimoelasticd", "nimocontentextr", "fileindexd"}) {
      if (peaks.count(daemon) == 0) {
        printf("peak memory, %s: not seen\n", daemon);
        kept = false;
      }
    }
    for (const auto& [name, kib] : peaks) {
      const long bound = name.starts_with("nimotifyd") ? kMostMonitorKib : kMostKib;
      kept = Report("peak memory, " + name, static_cast<double>(kib) / 1024, "MiB", static_cast<double>(bound >> 10)) &&
             kept;
    }
    return kept;
  }

  std::vector<std::string> names_;  // "": not there
  unsigned long number_ = 0;
  std::mt19937 random_{1};
};

int Run(int events, int files) {
  DiskBox::EnterNamespace();
  const bool kept = StormBox().Run(events, files);
  return kept && !testing::UnitTest::GetInstance()->Failed() ? 0 : 1;
}

}  // namespace
}  // namespace orbisk::bench

// The arguments are how many events on how many files.
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const int events = argc > 1 ? atoi(argv[1]) : 1'000'000;
  const int files = argc > 2 ? atoi(argv[2]) : 100'000;
  if (events < 1 || files < 1) {
    fprintf(stderr, "storm_load: how many events on how many files?\n");
    return 2;
  }
  return orbisk::bench::Run(events, files);
}
