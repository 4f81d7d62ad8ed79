// What a pass tells of itself.
#include "services/indexer/progress.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <ctime>

namespace fileindexd {
namespace {

// A pass with `done` of `known` files behind it.
void Work(Progress& progress, int done, int known) {
  progress.BeginPass();
  progress.AddWork(static_cast<std::uint64_t>(known));
  usleep(20'000);  // a rate takes time
  for (int i = 0; i < done; ++i) {
    progress.BeginFile("/v/a");
    progress.EndFile("/v/a", true);
  }
}

TEST(Progress, TheTimeLeftIsWhatIsToDoByTheRate) {
  Progress progress;

  Work(progress, 1, 101);

  const Json::Value told = progress.ToJson();
  EXPECT_EQ(told["to_do"].asUInt(), 100U);
  EXPECT_GT(told["seconds_left"].asUInt(), 0U);
  EXPECT_EQ(told["seconds_left"].asDouble(), std::ceil(100 / told["rate"].asDouble()));
}

TEST(Progress, BeforeTheFirstFileNobodyKnowsHowLongItTakes) {
  Progress progress;

  Work(progress, 0, 100);

  EXPECT_TRUE(progress.ToJson()["seconds_left"].isNull());
}

TEST(Progress, NothingIsLeftWhenItIsIdleAndNobodyKnowsWhenItFails) {
  Progress progress;
  Work(progress, 1, 101);

  progress.SetState(Progress::State::kFailing);
  EXPECT_TRUE(progress.ToJson()["seconds_left"].isNull());

  progress.EndPass(1);
  progress.SetState(Progress::State::kIdle);
  EXPECT_EQ(progress.ToJson()["seconds_left"], Json::Value(Json::UInt64{0}));
}

TEST(Progress, TheFileInWorkIsTheOldestThatHasNotEnded) {
  Progress progress;
  progress.BeginPass();
  const auto file = [&progress] { return progress.ToJson()["file"].asString(); };

  progress.BeginFile("/v/slow");
  progress.BeginFile("/v/quick");
  EXPECT_EQ(file(), "/v/slow");

  progress.EndFile("/v/quick", true);
  progress.EndFile("/v/skipped", false);
  EXPECT_EQ(file(), "/v/slow");

  progress.EndFile("/v/slow", true);
  EXPECT_EQ(file(), "");
  EXPECT_EQ(progress.ToJson()["done"].asUInt(), 3U);
}

TEST(Progress, NoFileIsInWorkAfterAPassThatWasBrokenOff) {
  Progress progress;

  for (const bool begun_again : {true, false}) {
    progress.BeginPass();
    progress.BeginFile("/v/slow");
    begun_again ? progress.BeginPass() : progress.SetState(Progress::State::kFailing);

    EXPECT_EQ(progress.ToJson()["file"].asString(), "") << begun_again;
  }
}

TEST(Progress, FailuresOutliveThePassAndAreToldOfAsFarAsWanted) {
  Progress progress;
  progress.failures().Add("/v/a", "died");
  progress.failures().Add("/v/b", "died");

  Work(progress, 1, 1);
  progress.EndPass(1);

  EXPECT_EQ(progress.ToJson()["failed"].asUInt(), 2U);
  EXPECT_EQ(progress.ToJson()["failures"].size(), 2U);
  EXPECT_EQ(progress.ToJson(1)["failures"].size(), 1U);
}

// Of each file that a walk passes by, and with somebody who watches.
TEST(Progress, TellingOfManyFilesCostsSeconds) {
  const auto used = [] {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  };
  Progress progress;
  progress.BeginPass();
  progress.BeginFile("/v/slow");
  const std::string path = "/v/" + std::string(100, 'n');
  const auto before = used();

  for (int i = 0; i < 200'000; ++i) {
    progress.AddWork(1);
    progress.BeginFile(path);
    progress.EndFile(path, i % 2 == 0);
    if (i % 1'000 == 0) {
      EXPECT_EQ(progress.ToJson()["file"].asString(), "/v/slow");
    }
  }

  // Without sanitizers it takes 0.03 s.
  EXPECT_LT(used() - before, std::chrono::seconds(5));
  EXPECT_EQ(progress.ToJson()["done"].asUInt(), 200'000U);
}

}  // namespace
}  // namespace fileindexd
