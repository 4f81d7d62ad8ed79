// The mutex when pthreads refuse. This program replaces the pthread functions that the mutex uses.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "orbisk/lock_mutex.h"
#include "orbisk/mutex.h"
#include "orbisk/sdk/sdk_mutex.h"
#include "tests/support/record_capture.h"
#include "tests/support/record_tail.h"

namespace {

// Plain data: these functions are called before the program's own objects stand.
struct Script {
  bool record;
  int attr_init;
  int attr_settype;
  int mutex_init;
  int mutex_destroy;
  int attr_destroy;
  int lock;
  int unlock;
};
Script script;
const void* watched_mutex;  // whose destruction is told to `told_to`
int told_to;
std::vector<std::string>* sequence;  // where `script.record` puts the calls

template <class Function>
Function Real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void Note(const char* name) {
  if (script.record && sequence != nullptr) {
    script.record = false;  // appending may itself lock
    sequence->push_back(name);
    script.record = true;
  }
}

}  // namespace

extern "C" {

int pthread_mutexattr_init(pthread_mutexattr_t* attr) noexcept {
  Note("attr_init");
  return script.attr_init != 0 ? script.attr_init : Real<int (*)(pthread_mutexattr_t*)>("pthread_mutexattr_init")(attr);
}

int pthread_mutexattr_settype(pthread_mutexattr_t* attr, int type) noexcept {
  Note("attr_settype");
  return script.attr_settype != 0 ? script.attr_settype
                                  : Real<int (*)(pthread_mutexattr_t*, int)>("pthread_mutexattr_settype")(attr, type);
}

int pthread_mutexattr_destroy(pthread_mutexattr_t* attr) noexcept {
  Note("attr_destroy");
  return script.attr_destroy != 0 ? script.attr_destroy
                                  : Real<int (*)(pthread_mutexattr_t*)>("pthread_mutexattr_destroy")(attr);
}

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr) noexcept {
  Note("mutex_init");
  using Function = int (*)(pthread_mutex_t*, const pthread_mutexattr_t*);
  return script.mutex_init != 0 ? script.mutex_init : Real<Function>("pthread_mutex_init")(mutex, attr);
}

int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
  Note("mutex_destroy");
  if (mutex == watched_mutex) {
    [[maybe_unused]] const ssize_t written = write(told_to, "d", 1);
  }
  return script.mutex_destroy != 0 ? script.mutex_destroy
                                   : Real<int (*)(pthread_mutex_t*)>("pthread_mutex_destroy")(mutex);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const auto real = Real<int (*)(pthread_mutex_t*)>("pthread_mutex_lock");
  return script.lock != 0 ? script.lock : real(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static const auto real = Real<int (*)(pthread_mutex_t*)>("pthread_mutex_unlock");
  return script.unlock != 0 ? script.unlock : real(mutex);
}
}

namespace orbisk {
namespace {

using test::RecordCapture;
using test::RecordTail;

// The record capture takes a lock of its own, so the script is over before records are written where that matters.
class MutexFailure : public testing::Test {
 protected:
  MutexFailure() {
    errno = 0;
    script = Script();
    sequence = &calls_;
  }
  ~MutexFailure() override {
    script = Script();
    sequence = nullptr;
  }

  std::string Tail(size_t index, const std::string& file, const std::string& function) const {
    return RecordTail(capture_.records().at(index), file, function);
  }

  RecordCapture capture_;
  std::vector<std::string> calls_;
};

TEST_F(MutexFailure, ConstructionGoesOnAfterEachFailedStep) {
  script = {true, EINVAL, EINVAL, EINVAL, 0, 0, 0, 0};
  alignas(Mutex) unsigned char storage[sizeof(Mutex)];
  auto* mutex = new (storage) Mutex(0);
  script = Script();
  EXPECT_EQ((std::vector<std::string>{"attr_init", "attr_settype", "mutex_init"}), calls_);
  ASSERT_EQ(3U, capture_.records().size());
  EXPECT_EQ("Failed [0 != pthread_mutexattr_init(&attr_)]", Tail(0, "mutex.cpp", "Mutex"));
  EXPECT_EQ("Failed [0 != pthread_mutexattr_settype(&attr_, type)]", Tail(1, "mutex.cpp", "Mutex"));
  EXPECT_EQ("Failed [0 != pthread_mutex_init(&mutex_, &attr_)]", Tail(2, "mutex.cpp", "Mutex"));
  EXPECT_TRUE(mutex->Lock());
  EXPECT_TRUE(mutex->Unlock());
  mutex->~Mutex();
}

TEST_F(MutexFailure, DestructionTakesTheMutexFirstThenTheAttributes) {
  auto mutex = std::make_unique<Mutex>(0);
  script.record = true;
  mutex.reset();
  script.record = false;
  EXPECT_EQ((std::vector<std::string>{"mutex_destroy", "attr_destroy"}), calls_);
  EXPECT_TRUE(capture_.records().empty());
}

TEST_F(MutexFailure, DestructionOnlyRecordsWhatFails) {
  auto mutex = std::make_unique<Mutex>(0);
  script = {true, 0, 0, 0, EBUSY, EINVAL, 0, 0};
  mutex.reset();
  script = Script();
  EXPECT_EQ((std::vector<std::string>{"mutex_destroy", "attr_destroy"}), calls_);
  ASSERT_EQ(2U, capture_.records().size());
  EXPECT_EQ("Failed [0 != pthread_mutex_destroy(&mutex_)]", Tail(0, "mutex.cpp", "~Mutex"));
  EXPECT_EQ("Failed [0 != pthread_mutexattr_destroy(&attr_)]", Tail(1, "mutex.cpp", "~Mutex"));
}

TEST_F(MutexFailure, TheErrorThatPthreadsReturnIsNotShownAndAnOlderErrnoIs) {
  script.attr_settype = EINVAL;
  { const Mutex without_errno(0); }
  errno = EACCES;
  { const Mutex with_errno(0); }
  script = Script();
  ASSERT_EQ(2U, capture_.records().size());
  EXPECT_EQ("Failed [0 != pthread_mutexattr_settype(&attr_, type)]", Tail(0, "mutex.cpp", "Mutex"));
  EXPECT_EQ("Failed [0 != pthread_mutexattr_settype(&attr_, type)] [err: Permission denied]",
            Tail(1, "mutex.cpp", "Mutex"));
  EXPECT_EQ(0, errno);
}

TEST_F(MutexFailure, MembersReportARefusalAndWriteNoRecord) {
  Mutex mutex(0);
  script.lock = EDEADLK;
  script.unlock = EPERM;
  const bool locked = mutex.Lock();
  const bool unlocked = mutex.Unlock();
  script = Script();
  EXPECT_FALSE(locked);
  EXPECT_FALSE(unlocked);
  EXPECT_TRUE(capture_.records().empty());
}

// An error-checking mutex fails for real, where the record capture's own lock must not.
class RefusingMutex {
 public:
  RefusingMutex() : mutex_(PTHREAD_MUTEX_ERRORCHECK) {}
  Mutex& get() { return mutex_; }

 private:
  Mutex mutex_;
};

TEST_F(MutexFailure, AGuardThatCannotLockRecordsItAndGoesOn) {
  RefusingMutex mutex;
  ASSERT_TRUE(mutex.get().Lock());
  bool went_on = false;
  EXPECT_NO_THROW({
    const LockMutex lock(mutex.get());  // this thread has it already
    went_on = true;
  });
  EXPECT_TRUE(went_on);
  ASSERT_EQ(1U, capture_.records().size());
  EXPECT_EQ("Failed [!mutex_.Lock()]", Tail(0, "lock_mutex.cpp", "LockMutex"));
}

TEST_F(MutexFailure, AGuardThatCannotUnlockRecordsIt) {
  RefusingMutex mutex;
  EXPECT_NO_THROW({
    const LockMutex lock(mutex.get());
    mutex.get().Unlock();
  });
  ASSERT_EQ(1U, capture_.records().size());
  EXPECT_EQ("Failed [!mutex_.Unlock()]", Tail(0, "lock_mutex.cpp", "~LockMutex"));
}

TEST(SDKMutex, IsDestroyedWhenTheProcessExits) {
  int told[2];
  ASSERT_EQ(0, pipe(told));
  const pid_t child = fork();
  if (child == 0) {
    told_to = told[1];
    watched_mutex = &sdk::SDKMutex();  // the pthread mutex is its first member
    exit(0);
  }
  close(told[1]);
  char byte = 0;
  EXPECT_EQ(1, read(told[0], &byte, 1));
  EXPECT_EQ('d', byte);
  close(told[0]);
  int status = 0;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
}  // namespace orbisk
