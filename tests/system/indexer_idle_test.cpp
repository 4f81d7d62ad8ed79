// A box with nothing to do lets its disks sleep: for a minute no daemon reads, writes or wakes up.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>

#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

// What the kernel counts of a process: reads and writes, and how often its threads went on after they had waited or
// been interrupted.
using Activity = std::map<std::string, std::string>;

void AddActivity(pid_t pid, Activity& activity) {
  const std::string process = "/proc/" + std::to_string(pid);
  std::string name = ReadFile(process + "/comm");
  name.back() = ' ';
  name += std::to_string(pid);
  activity[name + " io"] = ReadFile(process + "/io");
  for (const auto& task : fs::directory_iterator(process + "/task")) {
    const std::string status = ReadFile(task.path() / "status");
    activity[name + " " + task.path().filename().string()] = status.substr(status.find("\nvoluntary_ctxt_switches:"));
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

using IndexerIdle = IndexerBox;

TEST_F(IndexerIdle, ABoxWithNothingToDoReadsNothingWritesNothingAndSleepsForAMinute) {
  StartWithOneFile();
  // The kernel's timer for the last client's time limit of 30 s fires once more, although the client has gone.
  usleep(31'000'000);
  Activity before = ActivityOfTheBox();
  // The extractor ends what it holds in readiness, the search daemon tidies up.
  ASSERT_TRUE(Eventually(
      [&before] {
        usleep(5'000'000);
        try {
          const Activity now = ActivityOfTheBox();
          return std::exchange(before, now) == now;
        } catch (const std::exception&) {  // one of them ended while it was looked at
          return false;
        }
      },
      std::chrono::minutes(2)));
  ASSERT_GE(before.size(), 8U) << "four daemons, each with a thread";

  // Longer than any of their timers.
  usleep(60'000'000);

  EXPECT_EQ(ActivityOfTheBox(), before);
}

}  // namespace
}  // namespace orbisk::test
