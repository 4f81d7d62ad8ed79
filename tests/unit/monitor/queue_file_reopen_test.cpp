// What happens between opening a queue file and having its lock. A program of its own, because it replaces flock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "services/monitor/queue_file.h"
#include "tests/support/temp_dir.h"

namespace {

std::function<void()> before_lock;

}  // namespace

// Does what the test asks for at the instant before the lock is taken.
extern "C" int flock(int fd, int operation) noexcept {
  if (before_lock) {
    before_lock();
  }
  return static_cast<int>(syscall(SYS_flock, fd, operation));
}

namespace nimotifyd {
namespace {

namespace fs = std::filesystem;
using orbisk::test::ReadFile;
using orbisk::test::WriteFile;

class QueueFileReopenTest : public testing::Test {
 protected:
  ~QueueFileReopenTest() override { before_lock = nullptr; }
  AppendResult Append() const { return AppendToQueueFile(path_, "new\n", true, std::nullopt); }

  orbisk::test::TempDir folder_;
  std::string path_ = folder_ / "queue";
  int locks_ = 0;
};

TEST_F(QueueFileReopenTest, QueueMovedAsideAfterItWasOpenedGetsNothingAndANewOneIsMade) {
  WriteFile(path_, "old\n");
  before_lock = [this] {
    if (++locks_ == 1) {
      fs::rename(path_, path_ + ".tmp");
    }
  };

  const AppendResult result = Append();

  EXPECT_EQ(result.outcome, AppendOutcome::kWritten);
  EXPECT_TRUE(result.fresh);
  EXPECT_EQ(locks_, 2);
  EXPECT_EQ(ReadFile(path_ + ".tmp"), "old\n");
  EXPECT_EQ(ReadFile(path_), "new\n");
}

TEST_F(QueueFileReopenTest, QueueReplacedByAnotherFileAfterItWasOpenedIsOpenedAgain) {
  WriteFile(path_, "old\n");
  WriteFile(folder_ / "another", "of another writer\n");
  before_lock = [this] {
    if (++locks_ == 1) {
      fs::rename(path_, path_ + ".tmp");
      fs::rename(folder_ / "another", path_);
    }
  };

  const AppendResult result = Append();

  EXPECT_EQ(result.outcome, AppendOutcome::kWritten);
  EXPECT_FALSE(result.fresh);
  EXPECT_EQ(ReadFile(path_ + ".tmp"), "old\n");
  EXPECT_EQ(ReadFile(path_), "of another writer\nnew\n");
}

TEST_F(QueueFileReopenTest, QueueThatIsMovedAsideEveryTimeIsBusy) {
  before_lock = [this] { fs::rename(path_, folder_ / ("side" + std::to_string(++locks_))); };

  EXPECT_EQ(Append().outcome, AppendOutcome::kBusy);

  EXPECT_FALSE(fs::exists(path_));
  for (int i = 1; i <= locks_; ++i) {
    EXPECT_EQ(ReadFile(folder_ / ("side" + std::to_string(i))), "");
  }
}

}  // namespace
}  // namespace nimotifyd
