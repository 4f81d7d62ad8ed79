// Appending under the queue file's lock.
#include "services/monitor/queue_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "services/base/unique_fd.h"
#include "tests/support/temp_dir.h"

namespace nimotifyd {

using service::UniqueFd;

namespace {

namespace fs = std::filesystem;
using orbisk::test::ReadFile;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;

AppendResult Append(const std::string& path, std::string_view lines) {
  return AppendToQueueFile(path, lines, true, std::nullopt);
}

TEST(QueueFileTest, MissingFileAndFoldersAreMade) {
  const TempDir folder;
  const std::string path = folder / "a/b/queue";

  const AppendResult result = Append(path, "1\n");

  EXPECT_EQ(result.outcome, AppendOutcome::kWritten);
  EXPECT_TRUE(result.fresh);
  EXPECT_EQ(ReadFile(path), "1\n");
}

TEST(QueueFileTest, MissingFolderIsLeftMissingIfSoAsked) {
  const TempDir folder;

  EXPECT_EQ(AppendToQueueFile(folder / "a/queue", "1\n", false, std::nullopt).outcome, AppendOutcome::kNoFolder);
  EXPECT_FALSE(fs::exists(folder / "a"));
}

TEST(QueueFileTest, LinesAreAppended) {
  const TempDir folder;
  Append(folder / "q", "1\n");

  const AppendResult result = Append(folder / "q", "2\n3\n");

  EXPECT_FALSE(result.fresh);
  EXPECT_EQ(result.mark.size, 6);
  EXPECT_EQ(ReadFile(folder / "q"), "1\n2\n3\n");
}

TEST(QueueFileTest, LockOfAnotherMakesItBusyAndNothingIsWritten) {
  const TempDir folder;
  WriteFile(folder / "q", "");
  const UniqueFd other(open((folder / "q").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(other.get(), LOCK_SH), 0);

  EXPECT_EQ(Append(folder / "q", "1\n").outcome, AppendOutcome::kBusy);
  EXPECT_EQ(ReadFile(folder / "q"), "");
}

TEST(QueueFileTest, LockIsReleasedAfterTheAppend) {
  const TempDir folder;
  Append(folder / "q", "1\n");
  const UniqueFd other(open((folder / "q").c_str(), O_RDONLY | O_CLOEXEC));

  EXPECT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), 0);
}

TEST(QueueFileTest, NothingIsWrittenWhileTheFileIsAsItWasLeft) {
  const TempDir folder;
  const QueueFileMark mark = Append(folder / "q", "1\n").mark;

  EXPECT_EQ(AppendToQueueFile(folder / "q", "2\n", true, mark).outcome, AppendOutcome::kUnchanged);
  WriteFile(folder / "other", "x\n");
  fs::rename(folder / "other", folder / "q");
  EXPECT_EQ(AppendToQueueFile(folder / "q", "2\n", true, mark).outcome, AppendOutcome::kWritten);
  EXPECT_EQ(ReadFile(folder / "q"), "x\n2\n");
}

TEST(QueueFileTest, TornLineOfAnotherIsEndedFirst) {
  const TempDir folder;
  WriteFile(folder / "q", "torn");

  Append(folder / "q", "1\n");

  EXPECT_EQ(ReadFile(folder / "q"), "torn\n1\n");
}

TEST(QueueFileTest, PartialWriteIsTakenBack) {
  const TempDir folder;
  const std::string path = folder / "q";
  Append(path, std::string(1000, 'x') + "\n");
  // A file size limit cuts a write short just as a full disk does.
  struct rlimit before {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = signal(SIGXFSZ, SIG_IGN);
  struct rlimit limit = before;
  limit.rlim_cur = 1500;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);

  const AppendResult result = Append(path, std::string(1000, 'y') + "\n");

  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, handler);
  EXPECT_EQ(result.outcome, AppendOutcome::kFailed);
  EXPECT_EQ(ReadFile(path), std::string(1000, 'x') + "\n");
}

TEST(QueueFileTest, LinkAtTheQueuesPathIsNotFollowed) {
  const TempDir folder;
  WriteFile(folder / "target", "");
  fs::create_symlink(folder / "target", folder / "q");

  EXPECT_EQ(Append(folder / "q", "1\n").outcome, AppendOutcome::kFailed);
  EXPECT_EQ(ReadFile(folder / "target"), "");
}

TEST(QueueFileTest, PipeInTheQueuesPlaceIsAFailure) {
  const TempDir folder;
  ASSERT_EQ(mkfifo((folder / "q").c_str(), 0644), 0);

  EXPECT_EQ(Append(folder / "q", "1\n").outcome, AppendOutcome::kFailed);
}

TEST(QueueFileTest, FolderInTheQueuesPlaceIsAFailure) {
  const TempDir folder;
  EXPECT_EQ(Append(folder.path(), "1\n").outcome, AppendOutcome::kFailed);
}

}  // namespace
}  // namespace nimotifyd
