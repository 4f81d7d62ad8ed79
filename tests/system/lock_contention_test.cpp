// The lock between real processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/lock_file.h"
#include "tests/support/fake_time.h"
#include "tests/support/record_capture.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

using std::chrono::seconds;

class LockContention : public testing::Test {
 protected:
  std::unique_ptr<Subprocess> StartHolder() {
    auto holder = std::make_unique<Subprocess>(std::vector<std::string>{ProgramBeside("lock_worker"), "hold", path_});
    EXPECT_EQ("held", holder->ReadLine(seconds(60)));
    return holder;
  }

  // Whether the lock could be had this instant.
  bool IsFree() const {
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    const bool taken = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return taken;
  }

  RecordCapture capture_;
  TempDir dir_;
  std::string path_ = dir_ / "test.lock";
};

TEST_F(LockContention, AnotherProcessKeepsTheLockForAllTries) {
  FakeTime time;
  const auto holder = StartHolder();
  try {
    const LockFile lock(path_, true);
    FAIL() << "taken although it is held";
  } catch (const Error& error) {
    EXPECT_EQ(506, error.code());
    EXPECT_EQ("Exceed max retry, path=" + path_, error.reason());
  }
  EXPECT_EQ(64U, time.waits().size());
  EXPECT_FALSE(IsFree());
}

TEST_F(LockContention, ALockThatItsHolderLetsGoIsTakenAtTheNextTry) {
  FakeTime time;
  const auto holder = StartHolder();
  time.OnWait([&](size_t nth) {
    if (nth == 5) {
      EXPECT_EQ(0, holder->Wait(seconds(60)).exit_status);
    }
  });
  const LockFile lock(path_, true);
  EXPECT_EQ(5U, time.waits().size());
}

TEST_F(LockContention, ALockWhoseHolderIsKilledIsFree) {
  FakeTime time;
  const auto holder = StartHolder();
  ASSERT_FALSE(IsFree());
  time.OnWait([&](size_t nth) {
    if (nth == 3) {
      holder->Kill(SIGKILL);
      EXPECT_EQ(SIGKILL, holder->Wait(seconds(60)).signal);
    }
  });
  const LockFile lock(path_, true);
  EXPECT_EQ(3U, time.waits().size());
}

TEST_F(LockContention, ProcessesThatCountUnderTheLockLoseNoCount) {
  constexpr int kProcesses = 4;
  constexpr int kTimes = 500;
  const std::string file = dir_ / "number";
  WriteFile(file, "0");
  std::vector<std::unique_ptr<Subprocess>> workers;
  workers.reserve(kProcesses);
  for (int i = 0; i < kProcesses; ++i) {
    workers.push_back(std::make_unique<Subprocess>(
        std::vector<std::string>{ProgramBeside("lock_worker"), "count", path_, file, std::to_string(kTimes)}));
  }
  for (const auto& worker : workers) {
    const ProcessResult result = worker->Wait(seconds(100));
    EXPECT_EQ(0, result.exit_status) << result.errors;
  }
  EXPECT_EQ(std::to_string(kProcesses * kTimes), ReadFile(file));
}

}  // namespace
}  // namespace orbisk::test
