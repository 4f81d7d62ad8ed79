// Jobs of a crew: all done, failed, and dropped.
#include "services/indexer/crew.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <semaphore>
#include <stdexcept>
#include <thread>

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
  {
    std::jthread helper;
    Crew crew(1);
    crew.Give([&] {
      begun.release();
      go.acquire();
    });
    begun.acquire();
    crew.Give([&done] { ++done; });
    helper = std::jthread([&go] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      go.release();
    });
  }

  EXPECT_EQ(done, 0);
}

}  // namespace
}  // namespace fileindexd
