// What programs do to files in the field, with the real daemons: the index follows.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

class IndexerField : public IndexerBox {
 protected:
  // Two files that the index knows.
  void SetUp() override {
    IndexerBox::SetUp();
    WriteFile(Docs("a.txt"), "kingfisher");
    WriteFile(Docs("neighbour.txt"), "heron");
    StartIndexer();
    ASSERT_TRUE(BecomesEqual());
  }

  static void SetDate(const std::string& path, time_t seconds) {
    const timespec times[] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }
  // The file has these words and not those of before.
  void ExpectSaved(const std::string& word) const {
    EXPECT_TRUE(BecomesEqual());
    EXPECT_THAT(Find({word}), ElementsAre(Docs("a.txt")));
    EXPECT_THAT(Find({"kingfisher"}), IsEmpty());
  }
  // Whole, as a program that was given the file name.
  static void Append(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
  }
};

// It tries whether it may make files here, keeps the old one as a backup, writes a new one under the old name, and
// deletes the backup.
TEST_F(IndexerField, AnEditorThatKeepsABackupWhileItSaves) {
  WriteFile(Docs("4913"), "");
  fs::remove(Docs("4913"));
  fs::rename(Docs("a.txt"), Docs("a.txt~"));
  WriteFile(Docs("a.txt"), "dipper");
  fs::permissions(Docs("a.txt"), fs::perms::owner_read | fs::perms::owner_write);
  fs::remove(Docs("a.txt~"));

  ExpectSaved("dipper");
}

// A lock file, a temporary file beside the old one, and a rename over it.
TEST_F(IndexerField, AnOfficeThatWritesATemporaryFileAndRenamesItOverTheOldOne) {
  WriteFile(Docs(".~lock.a.txt#"), "somebody");
  WriteFile(Docs("lu2077.tmp"), "dipper");
  const int fd = open(Docs("lu2077.tmp").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(fsync(fd), 0);
  close(fd);
  fs::rename(Docs("lu2077.tmp"), Docs("a.txt"));
  fs::remove(Docs(".~lock.a.txt#"));

  ExpectSaved("dipper");
}

// A hidden temporary file in pieces, the dates of the source, and a rename over the old one.
TEST_F(IndexerField, ACopierThatGivesTheFileTheDatesOfItsSource) {
  const std::string hidden = Docs(".a.txt.Xq3f0T");
  Append(hidden, "dip");
  Append(hidden, "per");
  ASSERT_EQ(chmod(hidden.c_str(), 0600), 0);
  SetDate(hidden, 1'000'000'000);
  fs::rename(hidden, Docs("a.txt"));

  ExpectSaved("dipper");
}

// The name of the temporary file has nothing to do with the old one's.
TEST_F(IndexerField, AStreamEditorThatEditsInPlace) {
  ASSERT_EQ(RunProcess({"sed", "-i", "s/kingfisher/dipper/", Docs("a.txt")}).exit_status, 0);

  ExpectSaved("dipper");
}

TEST_F(IndexerField, OldFilesThatAreMovedInAreIndexed) {
  const std::string outside = OnFirst("outside");
  MakeFolder(outside);
  WriteFile(outside + "/old.txt", "dipper");
  SetDate(outside + "/old.txt", 86'400);

  fs::rename(outside, Docs("inside"));

  EXPECT_TRUE(BecomesEqual());
  EXPECT_THAT(Find({"dipper"}), ElementsAre(Docs("inside/old.txt")));
}

TEST_F(IndexerField, OldFilesThatWereMovedInWhileNobodyLookedAreIndexed) {
  StopIndexer();
  KillMonitor();
  const std::string outside = OnFirst("outside");
  MakeFolder(outside);
  WriteFile(outside + "/old.txt", "dipper");
  SetDate(outside + "/old.txt", 86'400);
  fs::rename(outside, Docs("inside"));

  StartMonitor();
  StartIndexer();

  EXPECT_TRUE(BecomesEqual());
  EXPECT_THAT(Find({"dipper"}), ElementsAre(Docs("inside/old.txt")));
}

TEST_F(IndexerField, ContentOfTheSameSizeAndDateIsReadAfterEventsGotLost) {
  struct stat before {};
  ASSERT_EQ(stat(Docs("a.txt").c_str(), &before), 0);
  StopIndexer();
  KillMonitor();
  WriteFile(Docs("a.txt"), "bee-eaters");
  const timespec times[] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, Docs("a.txt").c_str(), times, 0), 0);

  StartMonitor();
  StartIndexer();

  ExpectSaved("bee-eaters");
}

TEST_F(IndexerField, ContentThatIsReplacedWithinATickOfTheClockIsRead) {
  for (int round = 0; round < 50; ++round) {
    const std::string name = "tick" + std::to_string(round) + ".txt";
    WriteFile(Docs(name), "0000");
    for (int rewrite = 1; rewrite < 10; ++rewrite) {
      WriteFile(Docs(name), std::to_string(1000 + rewrite));
    }
  }

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerField, ASlowCopyEndsWithAllItsWords) {
  for (int piece = 0; piece < 20; ++piece) {
    Append(Docs("copy.txt"), "piece" + std::to_string(piece) + " ");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (piece == 10) {
      Json::Value share;
      share["share_name"] = "docs";
      Command("worker_create", share);  // has the whole share walked through
    }
  }

  EXPECT_TRUE(BecomesEqual());
  EXPECT_THAT(Find({"piece19"}), ElementsAre(Docs("copy.txt")));
}

TEST_F(IndexerField, ACopyThatIsBrokenOffIsIndexedAsFarAsItCame) {
  const int fd = open(Docs("copy.txt").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  for (int piece = 0; piece < 5; ++piece) {
    ASSERT_EQ(write(fd, "dunlin ", 7), 7);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  close(fd);

  EXPECT_TRUE(BecomesEqual());
  EXPECT_THAT(Find({"dunlin"}), ElementsAre(Docs("copy.txt")));
}

}  // namespace
}  // namespace orbisk::test
