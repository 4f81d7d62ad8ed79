// The comparison with others who read while it goes on looking.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <semaphore>
#include <string>

#include "orbisk/error.h"
#include "services/indexer/reconciler.h"
#include "tests/unit/indexer/reconciler_box.h"

namespace fileindexd {
namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;

constexpr std::chrono::milliseconds kMoment{300};  // in which whoever does not wait has asked
constexpr std::chrono::seconds kLong{60};

class ReconcilerCrew : public ReconcilerBox {
 protected:
  ReconcilerCrew() { hands_ = 2; }

  // Whether the index is asked about `second` within `limit` while a change of `first` is in work.
  bool IsAskedMeanwhile(const std::string& first, const std::string& second, std::chrono::milliseconds limit) {
    Reconciler& reconciler = Fresh();
    std::atomic<bool> in_work = false;
    std::atomic<bool> asked_meanwhile = false;
    std::counting_semaphore<> asked{0};
    std::binary_semaphore begun{0};
    index_.on_look_up = [&](const std::string& path) {
      if (in_work && path == second) {
        asked.release();
      }
    };
    index_.on_change = [&](const std::string& path) {
      if (path == first && !in_work.exchange(true)) {
        begun.release();
        asked_meanwhile = asked.try_acquire_for(limit);
      }
    };
    reconciler.UpdateAttributes(first, false);
    EXPECT_TRUE(begun.try_acquire_for(kLong)) << first;
    reconciler.Update(second, false);
    reconciler.Finish();
    index_.on_look_up = index_.on_change = [](const std::string&) {};
    return asked_meanwhile;
  }
  // What is written down about a file, or a folder, that the index knows.
  void Touch(const std::string& path) const {
    fs::permissions(path, fs::perms::owner_write, fs::perm_options::remove);
    fs::permissions(path, fs::perms::group_all | fs::perms::owner_all);
  }
  // Has each question for the time be answered `step` later than the one before.
  void Fast(Reconciler& reconciler, std::chrono::seconds step) {
    reconciler.steady_clock = [this, step] { return time_ += step; };
  }

  std::chrono::steady_clock::time_point time_ = std::chrono::steady_clock::now();
};

TEST_F(ReconcilerCrew, ATreeIsIndexedByManyAsByOne) {
  for (int i = 0; i < 50; ++i) {
    Write("x" + std::to_string(i % 3) + "/" + std::to_string(i) + ".txt", std::to_string(i));
  }

  Tree(dir_.path());

  EXPECT_EQ(Texts(), DiskTexts());
  EXPECT_EQ(progress_.ToJson()["to_do"].asUInt(), 0U);
  EXPECT_EQ(progress_.ToJson()["file"].asString(), "");
}

TEST_F(ReconcilerCrew, AnOperationWaitsForWhatIsInWorkAtAboveOrBelowItsPath) {
  Write("x/a.txt", "one");
  Build();

  for (const char* const first : {"x/a.txt", "x"}) {
    for (const char* const second : {"x/a.txt", "x"}) {
      Touch(At(first));
      EXPECT_FALSE(IsAskedMeanwhile(At(first), At(second), kMoment)) << first << " " << second;
    }
  }
}

TEST_F(ReconcilerCrew, AnOperationDoesNotWaitForItsNeighbours) {
  Write("x/a.txt", "one");
  Write("x/b.txt", "two");
  Write("x/a.txt.old", "three");
  Build();

  for (const char* const second : {"x/b.txt", "x/a.txt.old"}) {
    Touch(At("x/a.txt"));
    EXPECT_TRUE(IsAskedMeanwhile(At("x/a.txt"), At(second), kLong)) << second;
  }
}

TEST_F(ReconcilerCrew, WhatAJobFailsWithFailsThePass) {
  for (int i = 0; i < 10; ++i) {
    Write(std::to_string(i) + ".txt", "text");
  }
  index_.on_change = [this](const std::string& path) {
    if (path == At("4.txt")) {
      throw orbisk::Error(orbisk::Code(1223), "no room");
    }
  };
  int code = 0;

  try {
    Tree(dir_.path());
  } catch (const orbisk::Error& error) {
    code = error.code();
  }

  EXPECT_EQ(code, 1223);
}

TEST_F(ReconcilerCrew, TheFileInWorkIsTheOneThatIsReadAndNoneThatWaitsOrNeededNoWork) {
  Write("slow.txt", "one");
  Write("same.txt", "two");
  Build();
  Write("slow.txt", "ONE");
  std::binary_semaphore looked{0};
  std::string file;
  index_.on_change = [&](const std::string& path) {
    if (path == At("slow.txt") && looked.try_acquire_for(kLong)) {
      file = progress_.ToJson()["file"].asString();
    }
  };
  Reconciler& reconciler = Fresh();

  reconciler.Update(At("slow.txt"), false);
  reconciler.Update(At("same.txt"), true);
  reconciler.Update(At("gone.txt"), true);
  looked.release();
  reconciler.Finish();

  EXPECT_EQ(file, At("slow.txt"));
  EXPECT_EQ(progress_.ToJson()["file"].asString(), "");
}

TEST_F(ReconcilerCrew, AWalkThatChangesNothingHasNothingMadeDurable) {
  Write("x/a.txt", "one");
  Write("x/b.txt", "two");
  Build();
  Reconciler& reconciler = Fresh();
  Fast(reconciler, std::chrono::seconds(10));
  int milestones = 0;
  reconciler.on_milestone = [&milestones] { ++milestones; };

  reconciler.Tree(dir_.path());
  EXPECT_EQ(milestones, 0);

  Write("x/a.txt", "ONE");
  Write("x/b.txt", "TWO");
  reconciler.Update(At("x/a.txt"), false);
  reconciler.Finish();
  reconciler.Update(At("x/b.txt"), false);
  EXPECT_EQ(milestones, 1);
}

// A commit, or what was still in work before it, can take longer than milestones are apart.
TEST_F(ReconcilerCrew, TheTimeToTheNextMilestoneCountsFromTheEndOfTheLast) {
  for (const unsigned hands : {0U, 2U}) {
    hands_ = hands;
    Write("a.txt", std::to_string(hands));
    Write("b.txt", std::to_string(hands));
    Write("c.txt", std::to_string(hands));
    Reconciler& reconciler = Fresh();
    reconciler.steady_clock = [this] { return time_; };
    int milestones = 0;
    reconciler.on_milestone = [&] {
      ++milestones;
      time_ += std::chrono::seconds(60);
    };

    time_ = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (const char* const name : {"a.txt", "b.txt", "c.txt"}) {
      reconciler.Update(At(name), false);
      reconciler.Finish();
    }

    EXPECT_EQ(milestones, 1) << hands;
  }
}

TEST_F(ReconcilerCrew, AShareThatGoesAwayDuringAWalkWithoutChangesLosesNoDocument) {
  Write("x/a.txt", "one");
  Write("x/b.txt", "two");
  Build();
  const auto before = Texts();
  bool gone = false;
  box_.may_be_indexed = [&](const std::string& path) {
    if (!gone && path == At("x")) {
      gone = offline_ = true;
      fs::rename(At("x"), dir_.path() + ".away");
    }
    return true;
  };

  EXPECT_THROW(Tree(dir_.path()), Offline);

  EXPECT_EQ(Texts(), before);
  EXPECT_THAT(index_.calls, IsEmpty());
  fs::remove_all(dir_.path() + ".away");
}

}  // namespace
}  // namespace fileindexd
