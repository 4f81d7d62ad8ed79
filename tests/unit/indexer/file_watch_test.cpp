// Files are told of whatever becomes of them and of their folders.
#include "services/indexer/file_watch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tests/support/local_socket.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/indexer/loop.h"

namespace fileindexd {
namespace {

namespace fs = std::filesystem;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;

class FileWatchTest : public testing::Test {
 protected:
  FileWatchTest() { fs::create_directory(folder_); }

  // Counts what is told of `path`.
  FileWatch::Id Count(const std::string& path, int& told) {
    return watch_.Add(path, [&told] { ++told; });
  }
  // inotify has an event before the call that caused it returns, so all there is to be told is told.
  bool IsTold(int& told) {
    told = 0;
    loop_.RunWhatIsReady();
    return told > 0;
  }

  TempDir dir_;
  const std::string folder_ = dir_ / "folder";
  const std::string file_ = folder_ + "/queue";
  Loop loop_;
  FileWatch watch_{loop_.context()};
  int told_ = 0;
};

TEST_F(FileWatchTest, AWriteIsTold) {
  std::ofstream file(file_);
  Count(file_, told_);

  file << "line" << std::flush;

  EXPECT_TRUE(IsTold(told_));
  EXPECT_FALSE(IsTold(told_)) << "once";
}

TEST_F(FileWatchTest, AFileThatGetsTheNameIsTold) {
  WriteFile(folder_ + "/new", "text");
  Count(file_, told_);

  fs::rename(folder_ + "/new", file_);

  EXPECT_TRUE(IsTold(told_));
}

TEST_F(FileWatchTest, CreationAndOtherFilesAreNotTold) {
  Count(file_, told_);

  std::ofstream(file_).close();
  WriteFile(folder_ + "/queue.tmp", "text");
  WriteFile(dir_ / "queue", "text");

  EXPECT_FALSE(IsTold(told_));
}

TEST_F(FileWatchTest, ASocketIsToldOfWhenItIsMadeThoughAnotherFileIsWatchedBesideIt) {
  int socket = 0;
  watch_.AddSocket(folder_ + "/socket", [&socket] { ++socket; });
  Count(file_, told_);

  close(orbisk::test::ListenAt(folder_ + "/socket"));
  EXPECT_TRUE(IsTold(socket));

  std::ofstream(file_).close();
  EXPECT_FALSE(IsTold(told_)) << "a file that is made is no news";
}

TEST_F(FileWatchTest, RemovalIsTold) {
  std::ofstream(file_).close();
  Count(file_, told_);

  fs::remove(file_);

  EXPECT_TRUE(IsTold(told_));
}

TEST_F(FileWatchTest, AFolderThatAppearsIsToldWhenItIsLookedForAndWatchedFromThenOn) {
  const std::string missing = dir_ / "missing";
  Count(missing + "/queue", told_);
  watch_.LookForMissing();
  ASSERT_EQ(0, told_);

  fs::create_directory(missing);
  watch_.LookForMissing();

  EXPECT_EQ(1, told_);
  WriteFile(missing + "/queue", "text");
  EXPECT_TRUE(IsTold(told_));
  told_ = 0;
  watch_.LookForMissing();
  EXPECT_EQ(0, told_) << "it is no news any more";
}

TEST_F(FileWatchTest, AFolderThatWasRemovedIsLookedForAgain) {
  Count(file_, told_);
  fs::remove(folder_);
  loop_.RunWhatIsReady();
  fs::create_directory(folder_);

  watch_.LookForMissing();

  EXPECT_EQ(1, told_);
  WriteFile(file_, "text");
  EXPECT_TRUE(IsTold(told_));
}

TEST_F(FileWatchTest, AFolderThatWasMovedAwayIsWatchedNoMoreButTheOneInItsPlace) {
  Count(file_, told_);
  fs::rename(folder_, dir_ / "moved");
  loop_.RunWhatIsReady();
  fs::create_directory(folder_);
  watch_.LookForMissing();

  WriteFile(dir_ / "moved/queue", "text");
  EXPECT_FALSE(IsTold(told_));
  WriteFile(file_, "text");
  EXPECT_TRUE(IsTold(told_));
}

TEST_F(FileWatchTest, OneOfTwoFilesOfAFolderCanBeRemoved) {
  int other = 0;
  const FileWatch::Id id = Count(folder_ + "/other", other);
  Count(file_, told_);

  watch_.Remove(id);

  WriteFile(file_, "text");
  WriteFile(folder_ + "/other", "text");
  EXPECT_TRUE(IsTold(told_));
  EXPECT_EQ(0, other);
}

// How many folders this process watches, as the kernel says.
int WatchedFolders() {
  int watched = 0;
  for (const auto& descriptor : fs::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream info(descriptor.path());
    for (std::string line; std::getline(info, line);) {
      watched += line.rfind("inotify ", 0) == 0 ? 1 : 0;
    }
  }
  return watched;
}

TEST_F(FileWatchTest, TheFolderIsWatchedUntilItsLastFileIsRemoved) {
  const FileWatch::Id one = Count(file_, told_);
  const FileWatch::Id two = Count(folder_ + "/other", told_);
  EXPECT_EQ(1, WatchedFolders());

  watch_.Remove(one);
  EXPECT_EQ(1, WatchedFolders());
  watch_.Remove(two);
  watch_.Remove(two);

  EXPECT_EQ(0, WatchedFolders());
}

TEST_F(FileWatchTest, WhoIsRemovedByOneBeforeItIsNotTold) {
  int later = 0;
  FileWatch::Id id = 0;
  watch_.Add(file_, [&] { watch_.Remove(id); });
  id = Count(folder_ + "/other", later);

  WriteFile(folder_ + "/other", "text");
  WriteFile(file_, "text");
  loop_.RunWhatIsReady();

  EXPECT_EQ(0, later);
}

// Events of one file that follow one another are one; of two files in turn they fill the queue.
TEST_F(FileWatchTest, AnOverflowIsToldOfEveryFile) {
  unsigned room = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> room;
  ASSERT_GT(room, 0U);
  int first = 0;
  int second = 0;
  Count(folder_ + "/first", first);
  Count(folder_ + "/second", second);
  fs::create_directory(dir_ / "quiet");
  Count(dir_ / "quiet/queue", told_);
  std::ofstream one(folder_ + "/first");
  std::ofstream two(folder_ + "/second");

  for (unsigned i = 0; i < room; ++i) {
    one << 'x' << std::flush;
    two << 'x' << std::flush;
  }

  EXPECT_TRUE(IsTold(told_));
  EXPECT_GT(first, 0);
  EXPECT_GT(second, 0);
}

}  // namespace
}  // namespace fileindexd
