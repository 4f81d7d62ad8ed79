// The mutex and its guard, with the system's own pthreads.
#include "orbisk/mutex.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "orbisk/lock_mutex.h"
#include "orbisk/sdk/sdk_mutex.h"
#include "tests/support/record_capture.h"

namespace orbisk {
namespace {

using test::RecordCapture;

bool TryFromAnotherThread(Mutex& mutex) {
  bool taken = false;
  std::thread([&] {
    taken = mutex.TryLock();
    if (taken) {
      mutex.Unlock();
    }
  }).join();
  return taken;
}

TEST(Mutex, ExcludesOtherThreadsWhileLocked) {
  Mutex mutex(0);
  EXPECT_TRUE(mutex.Lock());
  EXPECT_FALSE(TryFromAnotherThread(mutex));
  EXPECT_TRUE(mutex.Unlock());
  EXPECT_TRUE(TryFromAnotherThread(mutex));
}

TEST(Mutex, OfTypeZeroCannotBeTakenTwiceByOneThread) {
  Mutex mutex(0);
  EXPECT_TRUE(mutex.TryLock());
  EXPECT_FALSE(mutex.TryLock());
  EXPECT_TRUE(mutex.Unlock());
}

TEST(Mutex, HasTheTypeThatIsAskedFor) {
  Mutex mutex(PTHREAD_MUTEX_RECURSIVE);
  EXPECT_TRUE(mutex.Lock());
  EXPECT_TRUE(mutex.Lock());
  EXPECT_TRUE(mutex.Unlock());
  EXPECT_FALSE(TryFromAnotherThread(mutex));
  EXPECT_TRUE(mutex.Unlock());
}

TEST(Mutex, OfAnUnknownTypeIsRecordedAndUsableAsANormalOne) {
  const RecordCapture capture;
  errno = 0;
  Mutex mutex(77);
  ASSERT_EQ(1U, capture.records().size());
  EXPECT_NE(std::string::npos,
            capture.texts()[0].find("(Mutex) Failed [0 != pthread_mutexattr_settype(&attr_, type)]"));
  EXPECT_TRUE(mutex.Lock());
  EXPECT_FALSE(mutex.TryLock());
  EXPECT_TRUE(mutex.Unlock());
}

TEST(LockMutex, HoldsTheMutexForItsScope) {
  Mutex mutex(0);
  {
    const LockMutex lock(mutex);
    EXPECT_FALSE(TryFromAnotherThread(mutex));
  }
  EXPECT_TRUE(TryFromAnotherThread(mutex));
}

TEST(LockMutex, SerialisesThreads) {
  Mutex mutex(0);
  int counter = 0;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < 2000; ++k) {
        const LockMutex lock(mutex);
        ++counter;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(8000, counter);
}

TEST(SDKMutex, IsOneMutexForAllThreads) {
  std::vector<Mutex*> seen(4);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (Mutex*& place : seen) {
    threads.emplace_back([&place] { place = &sdk::SDKMutex(); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const Mutex* mutex : seen) {
    EXPECT_EQ(&sdk::SDKMutex(), mutex);
  }
}

TEST(SDKMutex, IsNotRecursive) {
  const LockMutex lock(sdk::SDKMutex());
  EXPECT_FALSE(sdk::SDKMutex().TryLock());
}

}  // namespace
}  // namespace orbisk
