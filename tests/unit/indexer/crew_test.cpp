// Jobs of a crew: all done, failed, and dropped.
#include "services/indexer/crew.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <semaphore>
#include <stdexcept>
#include <thread>

#include "tests/support/eventually.h"

namespace fileindexd {
namespace {

TEST(CrewTest, AllJobsAreDoneWhenTheWaitIsOver) {
  std::atomic<int> done{0};
  Crew crew(3);
  for (int job = 0; job < 100; ++job) {
    crew.Give([&done] { ++done; });
  }

  crew.Wait();

  EXPECT_EQ(done, 100);
}

TEST(CrewTest, JobsAreDoneAtTheSameTime) {
  std::binary_semaphore first{0};
  std::binary_semaphore second{0};
  Crew crew(2);
  crew.Give([&] {
    first.release();
    second.acquire();
  });
  crew.Give([&] {
    first.acquire();
    second.release();
  });

  crew.Wait();  // for ever, if one came after the other
}

TEST(CrewTest, WhatAJobThrowsIsThrownOnceByTheWaitAndTheCrewGoesOn) {
  std::atomic<int> done{0};
  Crew crew(1);
  crew.Give([] { throw std::runtime_error("no"); });
  EXPECT_THROW(crew.Wait(), std::runtime_error);

  crew.Give([&done] { ++done; });
  crew.Wait();

  EXPECT_EQ(done, 1);
}

TEST(CrewTest, WhatHasNotBegunIsDroppedAtTheEnd) {
  std::atomic<int> done{0};
  std::binary_semaphore go{0};
  std::binary_semaphore begun{0};
  auto owned = std::make_shared<int>();  // by the job that has not begun
  const std::weak_ptr<int> left = owned;
  bool was_dropped = false;
  {
    std::jthread helper;
    Crew crew(1);
    crew.Give([&] {
      begun.release();
      go.acquire();
    });
    begun.acquire();
    crew.Give([&done, owned = std::move(owned)] { done += owned.use_count() > 0 ? 1 : 0; });
    helper = std::jthread([&] {
      was_dropped = orbisk::test::Eventually([&left] { return left.expired(); });
      go.release();
    });
  }

  EXPECT_TRUE(was_dropped);
  EXPECT_EQ(done, 0);
}

}  // namespace
}  // namespace fileindexd
