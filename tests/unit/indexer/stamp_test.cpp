// What a stamp tells apart.
#include "services/indexer/stamp.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <string>

#include "tests/support/temp_dir.h"
#include "tests/unit/indexer/tick.h"

namespace fileindexd {
namespace {

namespace fs = std::filesystem;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;

class StampTest : public testing::Test {
 protected:
  StampTest() { WriteFile(path_, "words"); }

  Stamp Now(bool need_meta = true) const { return Look(path_, need_meta).stamp; }
  void KeepDates(const std::string& path, const struct stat& info) const {
    const timespec times[] = {info.st_atim, info.st_mtim};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
  }

  TempDir dir_;
  std::string path_ = dir_ / "a.txt";
};

TEST_F(StampTest, AnUntouchedFileHasTheSameOne) {
  EXPECT_TRUE(Now().Same(Now()));
}

TEST_F(StampTest, NewPermissionsAreNoNewContent) {
  const Stamp before = Now();
  AwaitTick();
  fs::permissions(path_, fs::perms::owner_read);

  EXPECT_TRUE(before.SameContent(Now()));
  EXPECT_FALSE(before.SamePermissions(Now()));
  EXPECT_FALSE(before.Same(Now()));
}

TEST_F(StampTest, ANewOwnerOrNameIsSeenLikeNewPermissions) {
  Stamp before = Now();
  fs::create_hard_link(path_, dir_ / "b.txt");
  EXPECT_FALSE(before.SamePermissions(Now()));

  if (geteuid() == 0) {
    before = Now();
    ASSERT_EQ(chown(path_.c_str(), 1234, static_cast<gid_t>(-1)), 0);
    EXPECT_FALSE(before.SamePermissions(Now()));
    before = Now();
    ASSERT_EQ(chown(path_.c_str(), static_cast<uid_t>(-1), 1234), 0);
    EXPECT_FALSE(before.SamePermissions(Now()));
  }
}

TEST_F(StampTest, ADateThatWasSetBackShowsThoughNoAttributeThatPeopleSeeIsNew) {
  struct stat info {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  const Stamp before = Now();
  AwaitTick();
  WriteFile(path_, "WORDS");
  KeepDates(path_, info);

  EXPECT_TRUE(before.SameContent(Now()));
  EXPECT_TRUE(before.SamePermissions(Now()));
  EXPECT_FALSE(before.Same(Now()));
}

TEST_F(StampTest, AFailedOneMatchesNothingAndGivesTheOtherBack) {
  const Stamp now = Now();

  EXPECT_FALSE(now.Failed().SameContent(now));
  EXPECT_EQ(now.Failed().Failed(), now);
  const Stamp young = *StampFromText(ToText(now.Failed(), true));
  EXPECT_FALSE(young.Failed().SameContent(now));
}

TEST_F(StampTest, ContentOfTheSameSizeIsNewContent) {
  const Stamp before = Now();
  AwaitTick();
  WriteFile(path_, "WORDS");

  EXPECT_FALSE(before.SameContent(Now()));
  EXPECT_EQ(before.identity, Now().identity);
}

TEST_F(StampTest, AnotherFileOfTheSameSizeAndDateIsNewContent) {
  struct stat info {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  const Stamp before = Now();
  WriteFile(dir_ / "b.txt", "WORDS");
  KeepDates(dir_ / "b.txt", info);

  fs::rename(dir_ / "b.txt", path_);

  EXPECT_FALSE(before.SameContent(Now()));
  EXPECT_NE(before.identity, Now().identity);
}

TEST_F(StampTest, HowAFileIsReadIsPartOfItsContent) {
  EXPECT_FALSE(Now(true).SameContent(Now(false)));
  const Stamp before = Now();
  fs::rename(path_, dir_ / "a.html");
  EXPECT_FALSE(before.SameContent(Look(dir_ / "a.html", true).stamp));
}

TEST_F(StampTest, AFolderIsTheSameWhateverComesIntoIt) {
  const Stamp before = Look(dir_.path(), false).stamp;
  AwaitTick();
  WriteFile(dir_ / "b.txt", "");

  EXPECT_TRUE(before.SameContent(Look(dir_.path(), false).stamp));
}

TEST_F(StampTest, ComesBackFromItsText) {
  EXPECT_EQ(StampFromText(ToText(Now(), false)), Now());
}

TEST_F(StampTest, AYoungOneMatchesNoContent) {
  const Stamp young = *StampFromText(ToText(Now(), true));

  EXPECT_FALSE(young.SameContent(Now()));
  EXPECT_FALSE(young.SameContent(young));
  EXPECT_EQ(young.identity, Now().identity);
}

TEST_F(StampTest, OtherTextIsNone) {
  const std::string good = ToText(Now(), false);
  EXPECT_FALSE(StampFromText(""));
  EXPECT_FALSE(StampFromText(good + "0"));
  EXPECT_FALSE(StampFromText("g" + good.substr(1)));
}

TEST_F(StampTest, AFileIsYoungForTwoTicksOfTheClockAfterAnyChange) {
  using std::chrono::nanoseconds;
  timespec tick{};
  ASSERT_EQ(clock_getres(CLOCK_REALTIME_COARSE, &tick), 0);
  struct stat info {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  const std::chrono::system_clock::time_point changed(std::chrono::seconds(info.st_ctim.tv_sec) +
                                                      nanoseconds(info.st_ctim.tv_nsec));
  const nanoseconds two_ticks(2 * tick.tv_nsec);

  EXPECT_TRUE(Look(path_, true, changed - nanoseconds(1)).young) << "changed while it was looked at";
  EXPECT_TRUE(Look(path_, true, changed).young);
  EXPECT_TRUE(Look(path_, true, changed + two_ticks - nanoseconds(1)).young);
  EXPECT_FALSE(Look(path_, true, changed + two_ticks).young);
}

TEST_F(StampTest, LinksAndPipesCountAsNothing) {
  fs::create_symlink("a.txt", dir_ / "link");
  ASSERT_EQ(mkfifo((dir_ / "pipe").c_str(), 0600), 0);

  EXPECT_EQ(Look(path_, true).kind, Kind::kFile);
  EXPECT_EQ(Look(dir_.path(), true).kind, Kind::kFolder);
  EXPECT_EQ(Look(dir_ / "link", true).kind, Kind::kNothing);
  EXPECT_EQ(Look(dir_ / "pipe", true).kind, Kind::kNothing);
  EXPECT_EQ(Look(dir_ / "missing", true).kind, Kind::kNothing);
}

}  // namespace
}  // namespace fileindexd
