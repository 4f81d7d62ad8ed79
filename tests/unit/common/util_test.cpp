// File-system helpers: predicates, permissions, copies and ownership.
#include "orbisk/util.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "nimo/filesystem.h"
#include "orbisk/error.h"
#include "orbisk/sdk/sdk_mutex.h"
#include "tests/support/fake_filesystem.h"
#include "tests/support/fake_user.h"
#include "tests/support/record_capture.h"
#include "tests/support/record_tail.h"
#include "tests/support/temp_dir.h"

namespace orbisk {
namespace {

namespace fs = std::filesystem;
using test::FakeFileSystem;
using test::FakePlatform;
using test::FakeUsers;
using test::RecordCapture;
using test::RecordTail;
using test::SeamCall;
using test::TempDir;

class UtilTest : public testing::Test {
 protected:
  UtilTest() { errno = 0; }

  FakePlatform platform_;
  RecordCapture capture_;
  TempDir dir_;
};

using IsFileExistTest = UtilTest;
using IsDirExistTest = UtilTest;
using IsDirentDirTest = UtilTest;
using PathTest = UtilTest;
using PlatformTest = UtilTest;
using ChownOrbiskTest = UtilTest;

TEST_F(IsFileExistTest, HoldsForARegularFileOnly) {
  test::WriteFile(dir_ / "file", "");
  fs::create_directory(dir_ / "folder");
  ASSERT_EQ(0, mkfifo((dir_ / "fifo").c_str(), 0600));
  EXPECT_TRUE(IsFileExist(dir_ / "file"));
  EXPECT_FALSE(IsFileExist(dir_ / "folder"));
  EXPECT_FALSE(IsFileExist(dir_ / "fifo"));
  EXPECT_FALSE(IsFileExist(dir_ / "missing"));
  EXPECT_FALSE(IsFileExist(""));
}

TEST_F(IsFileExistTest, CallsALinkToAFileMissing) {
  test::WriteFile(dir_ / "file", "");
  fs::create_symlink(dir_ / "file", dir_ / "link");
  EXPECT_FALSE(IsFileExist(dir_ / "link"));
}

TEST_F(IsDirExistTest, HoldsForADirectoryWhetherOrNotLinksAreFollowed) {
  test::WriteFile(dir_ / "file", "");
  for (const bool follow : {false, true}) {
    EXPECT_TRUE(IsDirExist(dir_.path(), follow));
    EXPECT_FALSE(IsDirExist(dir_ / "file", follow));
    EXPECT_FALSE(IsDirExist(dir_ / "missing", follow));
    EXPECT_FALSE(IsDirExist("", follow));
  }
}

TEST_F(IsDirExistTest, FollowsALinkOnlyWhenAsked) {
  fs::create_directory(dir_ / "folder");
  fs::create_symlink(dir_ / "folder", dir_ / "link");
  EXPECT_FALSE(IsDirExist(dir_ / "link", false));
  EXPECT_TRUE(IsDirExist(dir_ / "link", true));
}

TEST_F(IsDirExistTest, OfALinkToAFileOrToNothingIsFalse) {
  test::WriteFile(dir_ / "file", "");
  fs::create_symlink(dir_ / "file", dir_ / "to_file");
  fs::create_symlink(dir_ / "missing", dir_ / "to_nothing");
  EXPECT_FALSE(IsDirExist(dir_ / "to_file", true));
  EXPECT_FALSE(IsDirExist(dir_ / "to_nothing", true));
}

// Puts the working directory back.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const std::string& path) : previous_(fs::current_path()) { fs::current_path(path); }
  ~WorkingDirectory() { fs::current_path(previous_); }
  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;

 private:
  fs::path previous_;
};

TEST_F(IsDirExistTest, LooksUpARelativeTargetFromTheWorkingDirectory) {
  fs::create_directories(dir_ / "beside_link/target");
  fs::create_directories(dir_ / "elsewhere/other");
  fs::create_symlink("target", dir_ / "beside_link/link");
  fs::create_symlink("other", dir_ / "beside_link/wrong_way");
  const WorkingDirectory here(dir_ / "elsewhere");
  EXPECT_FALSE(IsDirExist(dir_ / "beside_link/link", true));      // the system itself would find this one
  EXPECT_TRUE(IsDirExist(dir_ / "beside_link/wrong_way", true));  // and not this one
}

TEST_F(IsDirExistTest, FollowsAChainThatIsLongerThanTheSystemWould) {
  std::string target = dir_.path();
  for (int i = 0; i < 3000; ++i) {
    const std::string link = dir_ / std::to_string(i);
    fs::create_symlink(target, link);
    target = link;
  }
  EXPECT_TRUE(IsDirExist(target, true));
}

TEST_F(IsDirExistTest, NeverAnswersForALinkToItself) {
  const std::string link = dir_ / "self";
  fs::create_symlink(link, link);
  const pid_t child = fork();
  if (child == 0) {
    _exit(IsDirExist(link, true) ? 1 : 0);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  int status = 0;
  EXPECT_EQ(0, waitpid(child, &status, WNOHANG)) << "answered with " << WEXITSTATUS(status);
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
}

dirent Entry(unsigned char type) {
  dirent entry{};
  entry.d_type = type;
  return entry;
}

TEST_F(IsDirentDirTest, TrustsAKnownType) {
  test::WriteFile(dir_ / "file", "");
  EXPECT_TRUE(IsDirentDir(Entry(DT_DIR), dir_ / "file"));
  EXPECT_FALSE(IsDirentDir(Entry(DT_REG), dir_.path()));
  EXPECT_FALSE(IsDirentDir(Entry(DT_LNK), dir_.path()));
}

TEST_F(IsDirentDirTest, AnUnknownTypeIsNeverADirectoryEvenWhereOneIs) {
  EXPECT_FALSE(IsDirentDir(Entry(DT_UNKNOWN), dir_.path()));
  EXPECT_FALSE(IsDirentDir(Entry(DT_UNKNOWN), dir_ / "missing"));
}

TEST_F(PathTest, RealPathResolvesLinksAndDots) {
  fs::create_directory(dir_ / "folder");
  fs::create_symlink("folder", dir_ / "link");
  const std::string real = fs::canonical(dir_.path());
  EXPECT_EQ(real + "/folder", RealPath(dir_ / "link/../link/."));
}

TEST_F(PathTest, RealPathOfWhatCannotBeResolvedIsEmpty) {
  fs::create_symlink("self", dir_ / "self");
  EXPECT_EQ("", RealPath(dir_ / "missing"));
  EXPECT_EQ("", RealPath(dir_ / "self"));
  EXPECT_EQ("", RealPath(""));
}

TEST_F(PathTest, UnlinkRemovesAFileOrALinkItself) {
  test::WriteFile(dir_ / "file", "x");
  fs::create_symlink(dir_ / "file", dir_ / "link");
  EXPECT_TRUE(Unlink(dir_ / "link"));
  EXPECT_TRUE(fs::exists(dir_ / "file"));
  EXPECT_TRUE(Unlink(dir_ / "file"));
  EXPECT_FALSE(fs::exists(dir_ / "file"));
}

TEST_F(PathTest, UnlinkOfAMissingFileIsSuccess) {
  EXPECT_TRUE(Unlink(dir_ / "missing"));
  EXPECT_TRUE(Unlink(dir_ / "missing/file"));
}

TEST_F(PathTest, UnlinkFailsForADirectoryAndBelowAFile) {
  test::WriteFile(dir_ / "file", "x");
  EXPECT_FALSE(Unlink(dir_.path()));
  EXPECT_FALSE(Unlink(dir_ / "file/below"));
  EXPECT_TRUE(capture_.records().empty());
}

TEST_F(PlatformTest, CheckACLPermIsSatisfiedByAnyCommonBit) {
  FakeFileSystem().SetPermissions("/p", NIMO_ACL_READ);
  EXPECT_TRUE(CheckACLPerm("/p", NIMO_ACL_READ | NIMO_ACL_WRITE | NIMO_ACL_EXECUTE));
  EXPECT_FALSE(CheckACLPerm("/p", NIMO_ACL_WRITE | NIMO_ACL_EXECUTE));
  EXPECT_FALSE(CheckACLPerm("/p", 0));
}

TEST_F(PlatformTest, CheckACLPermIsFalseWhenThePlatformFailsWhateverItStored) {
  FakeFileSystem().get_permissions.Next([](const char*, int* permissions) {
    *permissions = -1;
    return -1;
  });
  EXPECT_FALSE(CheckACLPerm("/p", NIMO_ACL_READ));
  EXPECT_TRUE(capture_.records().empty());
}

TEST_F(PlatformTest, CheckACLPermPassesThePathAsItIs) {
  FakeFileSystem().SetPermissions("/a b/\xff", 0x40);
  EXPECT_TRUE(CheckACLPerm("/a b/\xff", 0x40));
  EXPECT_EQ("/a b/\xff", platform_.calls().at(0).arguments.at(0));
}

TEST_F(PlatformTest, IsMountPointTakesEveryPositiveAnswerForYes) {
  for (const auto& [answer, expected] : {std::pair{1, true}, {2, true}, {0, false}, {-1, false}}) {
    FakeFileSystem().is_mount_point.Next([answer = answer](const char*) { return answer; });
    EXPECT_EQ(expected, IsMountPoint("/volume1")) << answer;
  }
}

TEST_F(PlatformTest, CPFileSetsTheFirstFlagAlone) {
  test::WriteFile(dir_ / "a", "content");
  EXPECT_TRUE(CPFile(dir_ / "a", dir_ / "b"));
  EXPECT_EQ("content", test::ReadFile(dir_ / "a"));
  EXPECT_EQ("content", test::ReadFile(dir_ / "b"));
  EXPECT_EQ((std::vector<std::string>{dir_ / "a", dir_ / "b", "1 0 0 0 0 0 0 0", "null"}),
            platform_.calls().at(0).arguments);
}

TEST_F(PlatformTest, MVFileSetsTheFirstTwoFlags) {
  test::WriteFile(dir_ / "a", "content");
  EXPECT_TRUE(MVFile(dir_ / "a", dir_ / "b"));
  EXPECT_FALSE(fs::exists(dir_ / "a"));
  EXPECT_EQ("content", test::ReadFile(dir_ / "b"));
  EXPECT_EQ((std::vector<std::string>{dir_ / "a", dir_ / "b", "1 1 0 0 0 0 0 0", "null"}),
            platform_.calls().at(0).arguments);
}

TEST_F(PlatformTest, MVFileImplPassesOptionsAndProgressOn) {
  NIMO_COPY_OPTIONS options{};
  options.nReserved[5] = 9;
  FakeFileSystem().copy.Next([](auto...) { return 0; });
  EXPECT_TRUE(MVFileImpl("/a", "/b", options, [](const char*, unsigned long long) { return 0; }));
  EXPECT_EQ((std::vector<std::string>{"/a", "/b", "0 0 0 0 0 0 0 9", "pointer"}), platform_.calls().at(0).arguments);
}

TEST_F(PlatformTest, CopyAndMoveSucceedOnlyWithAnAnswerOfZero) {
  for (const int answer : {-1, 1, 2}) {
    FakeFileSystem().copy.Next([answer](auto...) { return answer; }).Next([answer](auto...) { return answer; });
    EXPECT_FALSE(CPFile("/a", "/b"));
    EXPECT_FALSE(MVFile("/a", "/b"));
  }
  EXPECT_TRUE(capture_.records().empty());
}

TEST_F(PlatformTest, FilesAreAskedForWithoutTheServicesLock) {
  CheckACLPerm(dir_.path(), NIMO_ACL_READ);
  IsMountPoint(dir_.path());
  MVFile(dir_ / "missing", dir_ / "b");
  ASSERT_EQ(3U, platform_.calls().size());
  for (const SeamCall& call : platform_.calls()) {
    EXPECT_FALSE(call.sdk_mutex_held) << call.function;
  }
}

TEST_F(ChownOrbiskTest, GivesThePathToThePackagesAccount) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root may give files away";
  }
  FakeUsers().Add("Orbisk", 21001, 21002);
  test::WriteFile(dir_ / "file", "");
  EXPECT_TRUE(ChownOrbisk(dir_ / "file"));
  struct stat status;
  ASSERT_EQ(0, stat((dir_ / "file").c_str(), &status));
  EXPECT_EQ(uid_t{21001}, status.st_uid);
  EXPECT_EQ(gid_t{21002}, status.st_gid);
}

TEST_F(ChownOrbiskTest, AsksForTheAccountUnderTheServicesLockAndFreesItsRecord) {
  FakeUsers().Add("Orbisk", geteuid(), getegid());
  EXPECT_TRUE(ChownOrbisk(dir_.path()));
  const std::vector<SeamCall> calls = platform_.calls();
  ASSERT_EQ(2U, calls.size());
  EXPECT_EQ("NIMOUserGet", calls[0].function);
  EXPECT_EQ("Orbisk", calls[0].arguments.at(0));
  EXPECT_TRUE(calls[0].sdk_mutex_held);
  EXPECT_EQ("NIMOUserFree", calls[1].function);
  EXPECT_TRUE(calls[1].sdk_mutex_held);
  EXPECT_EQ(0, FakeUsers().outstanding());
  EXPECT_TRUE(sdk::SDKMutex().TryLock());
  sdk::SDKMutex().Unlock();
}

TEST_F(ChownOrbiskTest, IsFalseWithoutARecordWhenTheSystemRefuses) {
  FakeUsers().Add("Orbisk", geteuid(), getegid());
  EXPECT_FALSE(ChownOrbisk(dir_ / "missing"));
  EXPECT_TRUE(capture_.records().empty());
}

TEST_F(ChownOrbiskTest, ThrowsErrorWithoutAReasonWhenTheAccountIsMissingAndLeavesTheLock) {
  try {
    ChownOrbisk(dir_.path());
    FAIL() << "nothing thrown";
  } catch (const Error& error) {
    EXPECT_EQ(801, error.code());
    EXPECT_STREQ("", error.what());
  }
  ASSERT_EQ(1U, capture_.records().size());
  EXPECT_EQ("Failed [0 > NIMOUserGet(kPackageAccount, &user) || !user], reason: ",
            RecordTail(capture_.records()[0], "util.cpp", "ChownOrbisk"));
  EXPECT_TRUE(sdk::SDKMutex().TryLock());
  sdk::SDKMutex().Unlock();
}

TEST_F(ChownOrbiskTest, ThrowsWhenTheLookUpSucceedsWithoutARecord) {
  FakeUsers().get.Next([](const char*, NIMOUSER**) { return 0; });
  EXPECT_THROW(ChownOrbisk(dir_.path()), Error);
}

TEST_F(ChownOrbiskTest, ThrowsWhenTheLookUpFailsOnDemand) {
  FakeUsers().Add("Orbisk", geteuid(), getegid());
  FakeUsers().get.FailAt(2);
  EXPECT_TRUE(ChownOrbisk(dir_.path()));
  EXPECT_THROW(ChownOrbisk(dir_.path()), Error);
  EXPECT_TRUE(ChownOrbisk(dir_.path()));
}

}  // namespace
}  // namespace orbisk
