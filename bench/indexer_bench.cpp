// How long it takes from closing a changed file to its being found, with the whole stack on a disk.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/disk_box.h"
#include "orbisk/comm.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/util.h"

namespace orbisk::bench {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kFiles = 200;
constexpr milliseconds kQuiet{250};  // between two changes, at least: longer than what counts as one after the other
constexpr milliseconds kPatience{10'000};

class Box : public DiskBox {
 public:
  // Sorted milliseconds.
  std::vector<double> Measure(int changes) {
    SetUp();
    for (int file = 0; file < kFiles; ++file) {
      test::WriteFile(PathOf(file), "first words");
    }
    StartIndexer();
    fileindex::AddCustomEvent(fileindex::EVENT_REINDEX, Docs(), "", Json::Value());
    const bool ready = test::Eventually([this] { return InIndex().size() == kFiles + 1; });
    std::vector<double> latencies;
    for (int change = 0; ready && change < changes; ++change) {
      std::this_thread::sleep_for(kQuiet + milliseconds(random_() % 100));
      latencies.push_back(LatencyOf(change));
      TellProgress(latencies, changes);
    }
    TearDown();
    std::sort(latencies.begin(), latencies.end());
    return latencies;
  }

 private:
  std::string PathOf(int file) const { return Docs("f" + std::to_string(file) + ".txt"); }

  double LatencyOf(int change) {
    const std::string word = "w" + std::to_string(change) + "x" + std::to_string(random_());
    test::WriteFile(PathOf(change % kFiles), "some words and " + word + "\n");
    const Clock::time_point closed = Clock::now();
    while (!IsFound(word) && Clock::now() - closed < kPatience) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    return std::chrono::duration<double, std::milli>(Clock::now() - closed).count();
  }

  // A run takes minutes.
  static void TellProgress(std::vector<double> latencies, int changes) {
    constexpr size_t kStep = 50;
    if (latencies.size() % kStep == 0) {
      std::sort(latencies.begin(), latencies.end());
      fprintf(stderr, "%zu of %d changes, median so far %.1f ms, worst %.1f ms\n", latencies.size(), changes,
              latencies[latencies.size() / 2], latencies.back());
    }
  }

  static bool IsFound(const std::string& word) {
    Json::Value request;
    request["command"] = "document_search";
    request["data"]["id"] = "fileindex_docs";
    request["data"]["query"] = word;
    request["data"]["facets"] = false;
    Json::Value answer;
    SendRequestImpl(answer, request);
    return answer["data"]["total"].asInt() > 0;
  }

  std::mt19937 random_{1};
};

int Run(int changes) {
  Box::EnterNamespace();
  Box box;
  const std::vector<double> latencies = box.Measure(changes);
  if (latencies.size() != static_cast<size_t>(changes) || testing::UnitTest::GetInstance()->Failed()) {
    printf("the box does not work\n");
    return 1;
  }
  printf("change to found, of %d: best %.1f ms, median %.1f ms, 99 %% %.1f ms, worst %.1f ms\n", changes,
         latencies.front(), latencies[latencies.size() / 2], latencies[latencies.size() * 99 / 100], latencies.back());
  const bool median = Report("closing a changed file to found, median", latencies[latencies.size() / 2], "ms", 60);
  const bool most =
      Report("closing a changed file to found, 99th percentile", latencies[latencies.size() * 99 / 100], "ms", 300);
  return median && most ? 0 : 1;
}

}  // namespace
}  // namespace orbisk::bench

// The argument is how many changes are measured.
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return orbisk::bench::Run(argc > 1 ? atoi(argv[1]) : 1000);
}
