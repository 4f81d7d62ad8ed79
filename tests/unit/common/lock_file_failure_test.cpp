// The lock between processes when the system refuses for other reasons. This program replaces open(2), flock(2) and
// close(2).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <functional>
#include <utility>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/lock_file.h"
#include "tests/support/fake_time.h"
#include "tests/support/record_capture.h"
#include "tests/support/record_tail.h"
#include "tests/support/temp_dir.h"

namespace {

struct Call {
  int fd;
  int operation;
};
std::vector<int>* flock_errors;  // one for each call, 0 succeeds; null: as the system does
size_t flock_next;
std::vector<Call>* flock_calls;
std::vector<int>* closed;
std::function<void()> before_next_flock;
const char* made_by_another_user;  // as fs.protected_regular has it: O_CREAT is refused where the file is there

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
  if (made_by_another_user != nullptr && (flags & O_CREAT) != 0 && strcmp(path, made_by_another_user) == 0) {
    errno = EACCES;
    return -1;
  }
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

int flock(int fd, int operation) noexcept {
  if (flock_calls != nullptr) {
    flock_calls->push_back({fd, operation});
  }
  if (before_next_flock) {
    std::exchange(before_next_flock, nullptr)();
  }
  int error = 0;
  if (flock_errors != nullptr && flock_next < flock_errors->size()) {
    error = (*flock_errors)[flock_next++];
  }
  if (error != 0) {
    errno = error;
    return -1;
  }
  return static_cast<int>(syscall(SYS_flock, fd, operation));
}

int close(int fd) {
  if (closed != nullptr) {
    closed->push_back(fd);
  }
  return static_cast<int>(syscall(SYS_close, fd));
}
}

namespace orbisk {
namespace {

using test::RecordTail;

// Names the private descriptor, which nothing else can make -1.
template <int LockFile::*Member>
struct DescriptorAccess {
  friend int& DescriptorOf(LockFile& lock) { return lock.*Member; }
};
int& DescriptorOf(LockFile& lock);
template struct DescriptorAccess<&LockFile::fd_>;

class LockFileFailure : public testing::Test {
 protected:
  LockFileFailure() : path_(dir_ / "test.lock") {
    errno = 0;
    flock_next = 0;
    flock_errors = &errors_;
    flock_calls = &flock_calls_;
    closed = &closed_;
  }
  ~LockFileFailure() override {
    flock_errors = nullptr;
    flock_calls = nullptr;
    closed = nullptr;
    made_by_another_user = nullptr;
  }

  std::string Reason() {
    try {
      const LockFile lock(path_, true);
    } catch (const Error& error) {
      EXPECT_EQ(506, error.code());
      return error.what();
    }
    return "nothing thrown";
  }

  std::vector<int> errors_;
  std::vector<Call> flock_calls_;
  std::vector<int> closed_;
  test::FakeTime time_;
  test::RecordCapture capture_;
  test::TempDir dir_;
  std::string path_;
};

TEST_F(LockFileFailure, AsksWithoutBlocking) {
  { const LockFile exclusive(path_, true); }
  { const LockFile shared(path_, false); }
  ASSERT_EQ(4U, flock_calls_.size());
  EXPECT_EQ(LOCK_EX | LOCK_NB, flock_calls_[0].operation);
  EXPECT_EQ(LOCK_UN, flock_calls_[1].operation);
  EXPECT_EQ(LOCK_SH | LOCK_NB, flock_calls_[2].operation);
  EXPECT_EQ(LOCK_UN, flock_calls_[3].operation);
  EXPECT_EQ(2U, closed_.size());
}

TEST_F(LockFileFailure, AnInterruptionCountsAsATry) {
  errors_.assign(64, EINTR);
  EXPECT_EQ("Exceed max retry, path=" + path_, Reason());
  EXPECT_EQ(64U, flock_calls_.size());
  EXPECT_EQ(64U, time_.waits().size());
  EXPECT_EQ(64U, closed_.size());
}

TEST_F(LockFileFailure, InterruptionsAndRefusalsShareTheBudget) {
  errors_.assign(31, EINTR);
  errors_.insert(errors_.end(), 32, EWOULDBLOCK);
  const LockFile lock(path_, true);
  EXPECT_EQ(64U, flock_calls_.size());
  EXPECT_EQ(63U, time_.waits().size());
}

TEST_F(LockFileFailure, AnyOtherErrorFailsAtOnceWithTheSystemsTextAlone) {
  errors_ = {ENOLCK};
  EXPECT_EQ("No locks available", Reason());
  EXPECT_TRUE(time_.waits().empty());
  ASSERT_EQ(1U, capture_.records().size());
  EXPECT_EQ("Failed [EINTR != errno && EWOULDBLOCK != errno], reason: No locks available [err: No locks available]",
            RecordTail(capture_.records()[0], "lock_file.cpp", "LockFile"));
  EXPECT_EQ(0, errno);
}

TEST_F(LockFileFailure, AnyOtherErrorLeavesTheDescriptorOpenOnPurpose) {
  errors_ = {ENOLCK};
  EXPECT_EQ("No locks available", Reason());
  EXPECT_TRUE(closed_.empty());
  ASSERT_EQ(1U, flock_calls_.size());  // and nothing unlocked it
  const int leaked = flock_calls_[0].fd;
  EXPECT_EQ(path_, std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(leaked)));
  close(leaked);
}

TEST_F(LockFileFailure, AnyOtherErrorAfterARefusalIsNotRetriedEither) {
  errors_ = {EWOULDBLOCK, EINTR, EBADF};
  EXPECT_EQ("Bad file descriptor", Reason());
  EXPECT_EQ(2U, time_.waits().size());
  EXPECT_EQ(2U, closed_.size());
  close(flock_calls_[2].fd);
}

TEST_F(LockFileFailure, AFileMovedAsideBeforeItIsLockedIsOpenedAgainWithoutAPause) {
  const std::string aside = dir_ / "aside";
  before_next_flock = [&] { std::filesystem::rename(path_, aside); };

  const LockFile lock(path_, true);

  EXPECT_EQ(2U, flock_calls_.size());
  EXPECT_EQ(1U, closed_.size());
  EXPECT_TRUE(std::filesystem::exists(path_));
  const int other = open(aside.c_str(), O_RDONLY);
  EXPECT_EQ(0, flock(other, LOCK_EX | LOCK_NB)) << "nothing is left locked aside";
  close(other);
  EXPECT_TRUE(capture_.records().empty());
}

TEST_F(LockFileFailure, AFileThatAnotherUserMadeInTmpIsLockedAllTheSame) {
  test::WriteFile(path_, "");
  made_by_another_user = path_.c_str();

  const LockFile lock(path_, true);

  EXPECT_EQ(1U, flock_calls_.size());
  EXPECT_TRUE(capture_.records().empty());
}

TEST_F(LockFileFailure, AFileThatMayNotBeMadeFailsWithTheReasonForThat) {
  made_by_another_user = path_.c_str();

  EXPECT_EQ("open failed, path=" + path_ + ", reason=Permission denied", Reason());

  ASSERT_EQ(1U, capture_.records().size());
  EXPECT_EQ("Failed [0 > (fd_ = open(path_.c_str(), O_RDONLY | O_CREAT, 0644))], reason: open failed, path=" + path_ +
                ", reason=Permission denied [err: Permission denied]",
            RecordTail(capture_.records()[0], "lock_file.cpp", "LockFile"));
}

TEST_F(LockFileFailure, DestructionWithoutADescriptorDoesNothing) {
  int fd = -1;
  {
    LockFile lock(path_, true);
    fd = DescriptorOf(lock);
    DescriptorOf(lock) = -1;
    flock_calls_.clear();
  }
  EXPECT_TRUE(flock_calls_.empty());
  EXPECT_TRUE(closed_.empty());
  close(fd);
}

}  // namespace
}  // namespace orbisk
