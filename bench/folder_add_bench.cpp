// What it costs to configure one more folder, with few and with many configured already: the library's operation alone,
// and the command while the whole stack runs.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/disk_box.h"
#include "orbisk/fileindex/index_mgr.h"
#include "tests/support/indexer_double.h"

namespace orbisk::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFolders = 1000;
constexpr int kFew = 10;
constexpr int kAround = 7;  // folders before and after are measured too, for a median
constexpr double kMostTimes = 3;

double MillisecondsOf(const std::function<void()>& work) {
  const Clock::time_point begin = Clock::now();
  work();
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

double MedianAround(const std::vector<double>& times, int number) {
  const auto middle = times.begin() + number - 1;
  std::vector<double> near(middle - kAround, std::min(middle + kAround + 1, times.end()));
  std::sort(near.begin(), near.end());
  return near[near.size() / 2];
}

class Box : public DiskBox {
 public:
  // Milliseconds of each; the first folder is the share itself, which the box has configured.
  std::vector<double> Measure(bool daemons, const std::function<void(const std::string& path)>& add) {
    SetUp();
    std::unique_ptr<test::IndexerDouble> answers;
    if (daemons) {
      StartIndexer();
    } else {
      KillMonitor();
      answers = std::make_unique<test::IndexerDouble>();
    }
    const std::string queue =
        QueueOf("docs");  // asked once: a fork makes the next operation copy the pages it writes to
    std::vector<double> times{0};
    for (int folder = 2; folder <= kFolders + kAround; ++folder) {
      const std::string name = "some folder " + std::to_string(folder);
      MakeFolder(Docs(name));
      times.push_back(MillisecondsOf([&] { add("/docs/" + name); }));
      if (!daemons) {
        std::filesystem::resize_file(queue, 0);  // as who takes the events would
      }
      if (folder % 100 == 0) {
        fprintf(stderr, "%d folders, %.1f ms\n", folder, MedianAround(times, folder - kAround));
      }
    }
    TearDown();
    return times;
  }
};

void AddByLibrary(const std::string& path) {
  Json::Value folder;
  folder["path"] = path;
  folder["name"] = path;
  for (const char* const kind : {"document", "audio", "video", "photo"}) {
    folder[kind] = true;
  }
  Json::Value list(Json::arrayValue);
  list.append(folder);
  fileindex::FolderAdd(list, false);
}

void AddByCommand(const std::string& path) {
  const test::ProcessResult result = test::Fileindexctl({"folder", "add", path});
  EXPECT_EQ(result.exit_status, 0) << result.errors;
}

bool Tell(const std::string& what, const std::vector<double>& times) {
  const double few = MedianAround(times, kFew);
  const double many = MedianAround(times, kFolders);
  printf("%s: the 10th folder %.2f ms, the 1,000th %.2f ms\n", what.c_str(), few, many);
  return Report(what + ", the 1,000th folder / the 10th", many / few, "times", kMostTimes);
}

int Run(bool library_alone, bool command_alone) {
  DiskBox::EnterNamespace();
  const bool alone = command_alone || Tell("folder add, library alone", Box().Measure(false, AddByLibrary));
  const bool whole = library_alone || Tell("folder add, command, whole box", Box().Measure(true, AddByCommand));
  return alone && whole && !testing::UnitTest::GetInstance()->Failed() ? 0 : 1;
}

}  // namespace
}  // namespace orbisk::bench

// With the argument "library" or "command" that part alone.
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const std::string part = argc > 1 ? argv[1] : "";
  return orbisk::bench::Run(part == "library", part == "command");
}
