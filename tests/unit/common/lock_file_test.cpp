// The lock between processes, held against it by descriptors of this one: flock excludes them alike.
#include "orbisk/lock_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <numeric>
#include <vector>

#include "orbisk/error.h"
#include "tests/support/fake_time.h"
#include "tests/support/record_capture.h"
#include "tests/support/record_tail.h"
#include "tests/support/temp_dir.h"

namespace orbisk {
namespace {

using test::FakeTime;
using test::RecordCapture;
using test::RecordTail;
using test::TempDir;
using test::Wait;

// Somebody else with the file open.
class Other {
 public:
  explicit Other(const std::string& path) : fd_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {}
  ~Other() { close(fd_); }
  Other(const Other&) = delete;
  Other& operator=(const Other&) = delete;

  bool Try(int operation) { return flock(fd_, operation | LOCK_NB) == 0; }
  void Release() { flock(fd_, LOCK_UN); }

 private:
  int fd_;
};

size_t OpenDescriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

std::string ReasonOf(const std::string& path, int expected_code = 506) {
  try {
    const LockFile lock(path, true);
  } catch (const Error& error) {
    EXPECT_EQ(expected_code, error.code());
    return error.what();
  }
  return "nothing thrown";
}

class LockFileTest : public testing::Test {
 protected:
  LockFileTest() : path_(dir_ / "test.lock") { errno = 0; }

  FakeTime time_;
  RecordCapture capture_;
  TempDir dir_;
  std::string path_;
};

TEST_F(LockFileTest, CreatesAMissingFileWithMode0644AndLocksIt) {
  const mode_t previous = umask(0);
  const LockFile lock(path_, true);
  umask(previous);
  struct stat status;
  ASSERT_EQ(0, stat(path_.c_str(), &status));
  EXPECT_EQ(mode_t{0644}, status.st_mode & 07777);
  EXPECT_FALSE(Other(path_).Try(LOCK_SH));
  EXPECT_TRUE(time_.waits().empty());
}

TEST_F(LockFileTest, ReleasesAtDestructionAndLeavesTheFile) {
  { const LockFile lock(path_, true); }
  EXPECT_TRUE(Other(path_).Try(LOCK_EX));
  EXPECT_TRUE(std::filesystem::exists(path_));
}

TEST_F(LockFileTest, LeavesContentAlone) {
  test::WriteFile(path_, "a line\n");
  { const LockFile lock(path_, true); }
  EXPECT_EQ("a line\n", test::ReadFile(path_));
}

TEST_F(LockFileTest, SharedLocksExcludeOnlyExclusiveOnes) {
  const LockFile one(path_, false);
  const LockFile two(path_, false);
  EXPECT_TRUE(Other(path_).Try(LOCK_SH));
  EXPECT_FALSE(Other(path_).Try(LOCK_EX));
}

TEST_F(LockFileTest, OpensReadOnlyAndLetsTheDescriptorPassThroughExec) {
  const LockFile lock(path_, true);
  bool found = false;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone) == path_) {
      found = true;
      const int fd = std::stoi(entry.path().filename());
      EXPECT_EQ(O_RDONLY, fcntl(fd, F_GETFL) & O_ACCMODE);
      EXPECT_EQ(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    }
  }
  EXPECT_TRUE(found);
}

TEST_F(LockFileTest, RefusesALinkAndMakesNothingBehindIt) {
  const std::string target = dir_ / "target";
  std::filesystem::create_symlink(target, path_);

  EXPECT_EQ("open failed, path=" + path_ + ", reason=Too many levels of symbolic links", ReasonOf(path_));

  EXPECT_FALSE(std::filesystem::exists(target));
}

TEST_F(LockFileTest, DoesNotWaitForTheOtherEndOfAFifo) {
  ASSERT_EQ(0, mkfifo(path_.c_str(), 0644));

  const LockFile lock(path_, true);

  EXPECT_FALSE(Other(path_).Try(LOCK_EX));
}

TEST_F(LockFileTest, FailsAtOnceWhereTheFolderIsMissing) {
  const std::string path = dir_ / "missing/test.lock";
  const std::string reason = ReasonOf(path);
  EXPECT_EQ("open failed, path=" + path + ", reason=No such file or directory", reason);
  EXPECT_TRUE(time_.waits().empty());
  EXPECT_EQ(0U, time_.rand_calls());
  EXPECT_EQ(0, errno);
  ASSERT_EQ(1U, capture_.records().size());
  EXPECT_EQ("Failed [0 > (fd_ = open(path_.c_str(), O_RDONLY | O_CREAT, 0644))], reason: " + reason +
                " [err: No such file or directory]",
            RecordTail(capture_.records()[0], "lock_file.cpp", "LockFile"));
}

TEST_F(LockFileTest, GivesUpAfter64TriesWithAPauseAfterEachOneTheLastIncluded) {
  Other other(path_);
  ASSERT_TRUE(other.Try(LOCK_EX));
  std::vector<int> chance(64);
  std::iota(chance.begin(), chance.end(), 0);
  time_.ScriptRand(chance);
  EXPECT_EQ("Exceed max retry, path=" + path_, ReasonOf(path_));
  const std::vector<Wait> waits = time_.waits();
  ASSERT_EQ(64U, waits.size());
  for (size_t i = 0; i < waits.size(); ++i) {
    EXPECT_EQ("usleep", waits[i].function);
    EXPECT_EQ(i % 10 * 100000, waits[i].microseconds);
  }
  EXPECT_EQ(64U, time_.rand_calls());
}

TEST_F(LockFileTest, PausesFromNothingToNineTenthsOfASecond) {
  Other other(path_);
  ASSERT_TRUE(other.Try(LOCK_EX));
  time_.ScriptRand({10, 2147483639});
  time_.OnWait([&](size_t nth) {
    if (nth == 2) {
      other.Release();
    }
  });
  const LockFile lock(path_, true);
  ASSERT_EQ(2U, time_.waits().size());
  EXPECT_EQ(0U, time_.waits()[0].microseconds);
  EXPECT_EQ(900000U, time_.waits()[1].microseconds);
}

TEST_F(LockFileTest, RecordsOnceWhenItGivesUp) {
  Other other(path_);
  ASSERT_TRUE(other.Try(LOCK_EX));
  EXPECT_EQ("Exceed max retry, path=" + path_, ReasonOf(path_));
  ASSERT_EQ(1U, capture_.records().size());
  EXPECT_EQ("Failed [0 == --attempts_left], reason: Exceed max retry, path=" + path_ +
                " [err: Resource temporarily unavailable]",
            RecordTail(capture_.records()[0], "lock_file.cpp", "LockFile"));
}

TEST_F(LockFileTest, TakesTheLockOnThe64thTry) {
  Other other(path_);
  ASSERT_TRUE(other.Try(LOCK_EX));
  time_.OnWait([&](size_t nth) {
    if (nth == 63) {
      other.Release();
    }
  });
  const LockFile lock(path_, true);
  EXPECT_EQ(63U, time_.waits().size());
  EXPECT_FALSE(other.Try(LOCK_EX));
}

TEST_F(LockFileTest, LocksTheFileThatTookThePlaceOfTheOneItWaitedFor) {
  Other other(path_);
  ASSERT_TRUE(other.Try(LOCK_EX));
  time_.OnWait([&](size_t) { std::filesystem::rename(path_, path_ + ".tmp"); });
  const LockFile lock(path_, true);
  EXPECT_EQ(1U, time_.waits().size());
  EXPECT_TRUE(std::filesystem::exists(path_));
  EXPECT_FALSE(Other(path_).Try(LOCK_EX));
}

TEST_F(LockFileTest, LeavesNoDescriptorBehindWhenItGivesUp) {
  Other other(path_);
  ASSERT_TRUE(other.Try(LOCK_EX));
  const size_t before = OpenDescriptors();
  EXPECT_EQ("Exceed max retry, path=" + path_, ReasonOf(path_));
  EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(LockFileTest, IsNotReentrantAndCostsTheWholeWaitThen) {
  const LockFile lock(path_, true);
  EXPECT_EQ("Exceed max retry, path=" + path_, ReasonOf(path_));
  EXPECT_EQ(64U, time_.waits().size());
}

}  // namespace
}  // namespace orbisk
