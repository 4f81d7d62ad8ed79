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
#include <system_error>
#include <thread>
#include <vector>

#include "bench/disk_box.h"
#include "orbisk/fileindex/index_mgr.h"
#include "tests/support/indexer_double.h"

namespace orbisk::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFew = 10;
constexpr int kMany = 1000;
constexpr int kSamples = 41;
constexpr int kRounds = 5;
constexpr double kMostTimes = 3;
constexpr std::chrono::minutes kPatience{5};

double MillisecondsOf(const std::function<void()>& work) {
  const Clock::time_point begin = Clock::now();
  work();
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

Json::Value ListOf(int first, int last) {
  Json::Value list(Json::arrayValue);
  for (int number = first; number <= last; ++number) {
    Json::Value folder;
    folder["path"] = "/docs/some folder " + std::to_string(number);
    folder["name"] = folder["path"];
    for (const char* const kind : {"document", "audio", "video", "photo"}) {
      folder[kind] = true;
    }
    list.append(folder);
  }
  return list;
}

struct Round {
  double few = 0;
  double many = 0;
};

class Box : public DiskBox {
 public:
  using Add = void (*)(const Json::Value& folder);

  // The milliseconds of a folder that comes as the tenth, and of one that comes as the thousandth.
  Round Measure(bool daemons, Add add) {
    SetUp();
    daemons_ = daemons;
    std::unique_ptr<test::IndexerDouble> answers;
    if (daemons) {
      StartIndexer();
    } else {
      KillMonitor();
      answers = std::make_unique<test::IndexerDouble>();
    }
    queue_ = QueueOf("docs");  // asked once: a fork makes the next operation copy the pages it writes to
    for (int number = 2; number <= kMany; ++number) {
      MakeFolder(Docs("some folder " + std::to_string(number)));
    }
    // The first folder is the share itself, which the box has configured.
    Grow(2, kFew - 1);
    Round round;
    round.few = TimeOf(kFew, add);
    Grow(kFew, kMany - 1);
    round.many = TimeOf(kMany, add);
    TearDown();
    return round;
  }

 private:
  void Grow(int first, int last) {
    fileindex::FolderAdd(ListOf(first, last), false);
    EmptyQueue();
    AwaitRest();
  }

  // The shortest time of many, in each of which the folder comes and goes: what else the machine does only adds to a
  // time, and most to the longer ones.
  double TimeOf(int number, Add add) {
    const Json::Value folder = ListOf(number, number)[0];
    Json::Value path(Json::arrayValue);
    path.append(folder["path"]);
    std::vector<double> times;
    for (int sample = 0; sample < kSamples; ++sample) {
      times.push_back(MillisecondsOf([&] { add(folder); }));
      fileindex::FolderDelete(path);
      EmptyQueue();
    }
    return *std::min_element(times.begin(), times.end());
  }

  // As who takes the events would.
  void EmptyQueue() const {
    if (!daemons_) {
      std::filesystem::resize_file(queue_, 0);
    }
  }

  void AwaitRest() const {
    const Clock::time_point begin = Clock::now();
    while (daemons_ && !IsSettled()) {
      if (Clock::now() - begin > kPatience) {
        ADD_FAILURE() << "the daemon does not come to rest";
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  bool IsSettled() const {
    const Json::Value status = StatusOf();
    std::error_code missing;
    const bool is_taken = std::filesystem::file_size(queue_, missing) == 0 || missing;
    return is_taken && !std::filesystem::exists(queue_ + ".tmp") && status["state"] == "idle" &&
           status["passes"].asUInt64() > 0;
  }

  bool daemons_ = false;
  std::string queue_;
};

void AddByLibrary(const Json::Value& folder) {
  Json::Value list(Json::arrayValue);
  list.append(folder);
  fileindex::FolderAdd(list, false);
}

void AddByCommand(const Json::Value& folder) {
  const test::ProcessResult result = test::Fileindexctl({"folder", "add", folder["path"].asString()});
  EXPECT_EQ(result.exit_status, 0) << result.errors;
}

// Each round has a box of its own. The two of a round are near in time, so what else the machine does counts in both.
bool Tell(const std::string& what, bool daemons, Box::Add add) {
  std::vector<double> few;
  std::vector<double> many;
  std::vector<double> times;
  for (int number = 1; number <= kRounds; ++number) {
    const Round round = Box().Measure(daemons, add);
    few.push_back(round.few);
    many.push_back(round.many);
    times.push_back(round.many / round.few);
    printf("%s, round %d: the 10th folder %.2f ms, the 1,000th %.2f ms, %.2f times\n", what.c_str(), number, round.few,
           round.many, times.back());
  }
  printf("%s: the 10th folder %.2f ms, the 1,000th %.2f ms\n", what.c_str(), Median(few), Median(many));
  return Report(what + ", the 1,000th folder / the 10th", Median(times), "times", kMostTimes);
}

int Run(bool library_alone, bool command_alone) {
  DiskBox::EnterNamespace();
  const bool alone = command_alone || Tell("folder add, library alone", false, AddByLibrary);
  const bool whole = library_alone || Tell("folder add, command, whole box", true, AddByCommand);
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
