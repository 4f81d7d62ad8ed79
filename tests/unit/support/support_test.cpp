// The test support itself: what a test stands on must not be able to hide a failure.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "nimo/content_extract.h"
#include "nimo/error.h"
#include "nimo/filesystem.h"
#include "nimo/user.h"
#include "orbisk/lock_mutex.h"
#include "orbisk/sdk/sdk_mutex.h"
#include "tests/support/fake_content_extract.h"
#include "tests/support/fake_filesystem.h"
#include "tests/support/fake_time.h"
#include "tests/support/fake_user.h"
#include "tests/support/private_mounts.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(FakePlatform, RecordsEveryCallInOrderWithItsArguments) {
  const FakePlatform platform;
  NIMOUSER* user = nullptr;
  NIMOUserGet("nobody here", &user);
  NIMOFSDirIsMntPoint("/volume1");
  NIMOUserFree(user);
  const std::vector<SeamCall> calls = FakePlatform::calls();
  ASSERT_EQ(3U, calls.size());
  EXPECT_EQ("NIMOUserGet", calls[0].function);
  EXPECT_EQ((std::vector<std::string>{"nobody here", "pointer"}), calls[0].arguments);
  EXPECT_EQ("NIMOFSDirIsMntPoint", calls[1].function);
  EXPECT_EQ(std::vector<std::string>{"null"}, calls[2].arguments);
  EXPECT_EQ(1U, FakeFileSystem().is_mount_point.calls().size());
}

TEST(FakePlatform, TellsWhetherTheServicesLockWasHeld) {
  const FakePlatform platform;
  NIMOFSDirIsMntPoint("/");
  {
    const LockMutex lock(sdk::SDKMutex());
    NIMOFSDirIsMntPoint("/");
  }
  NIMOFSDirIsMntPoint("/");
  const std::vector<SeamCall> calls = FakePlatform::calls();
  EXPECT_FALSE(calls.at(0).sdk_mutex_held);
  EXPECT_TRUE(calls.at(1).sdk_mutex_held);
  EXPECT_FALSE(calls.at(2).sdk_mutex_held);
}

TEST(FakePlatform, FailsAtTheCallThatIsAskedForAndOnlyThere) {
  const FakePlatform platform;
  FakeFileSystem().is_mount_point.FailAt(2, EIO);
  FakeFileSystem().is_mount_point.FailAt(4, EACCES);
  EXPECT_EQ(0, NIMOFSDirIsMntPoint("/proc/self"));
  EXPECT_EQ(-1, NIMOFSDirIsMntPoint("/proc/self"));
  EXPECT_EQ(EIO, NLIBCErrGet());
  EXPECT_EQ(0, NIMOFSDirIsMntPoint("/proc/self"));
  EXPECT_EQ(-1, NIMOFSDirIsMntPoint("/proc/self"));
  EXPECT_EQ(EACCES, NLIBCErrGet());
  EXPECT_EQ(0, NIMOFSDirIsMntPoint("/proc/self"));
}

TEST(FakePlatform, AnOperationWithoutAResultFailsOnlyInItsOwnWay) {
  const FakePlatform platform;
  FakeContentExtract().parse.FailAt(1);
  FakeUsers().Add("somebody", 1, 2);
  FakeUsers().free.FailAlways();
  Json::Value document;
  NIMOUSER* user = nullptr;
  NIMOUserGet("somebody", &user);

  EXPECT_THROW(NIMO_CONTENT_EXTRACT_ParseFile("/v/a", Json::Value(), document), std::runtime_error);
  NIMO_CONTENT_EXTRACT_ParseFile("/v/a", Json::Value(), document);
  NIMOUserFree(user);

  EXPECT_EQ("a", document["NIMOMDFSName"].asString());
  EXPECT_EQ(0, FakeUsers().outstanding());
}

TEST(FakePlatform, AnswersAsScriptedCallByCallThenAlwaysThenAsUsual) {
  FakePlatform platform;
  auto& function = FakeFileSystem().is_mount_point;
  function.Next([](const char*) { return 5; }).Next([](const char*) { return 6; });
  function.Always([](const char*) { return 7; });
  EXPECT_EQ(5, NIMOFSDirIsMntPoint("/proc/self"));
  EXPECT_EQ(6, NIMOFSDirIsMntPoint("/proc/self"));
  EXPECT_EQ(7, NIMOFSDirIsMntPoint("/proc/self"));
  EXPECT_EQ(7, NIMOFSDirIsMntPoint("/proc/self"));
  EXPECT_EQ(0, function.Usual("/proc/self"));
}

TEST(FakePlatform, ForgetsEverythingWithTheTest) {
  {
    const FakePlatform platform;
    FakeUsers().Add("somebody", 1, 2);
    FakeUsers().get.FailAlways();
    FakeFileSystem().is_mount_point.Always([](const char*) { return 7; });
    FakeFileSystem().AddMountPoint("/proc/self");
    NIMOFSDirIsMntPoint("/");
  }
  const FakePlatform platform;
  EXPECT_TRUE(FakePlatform::calls().empty());
  EXPECT_EQ(0, NIMOFSDirIsMntPoint("/proc/self"));
  NIMOUSER* user = nullptr;
  EXPECT_EQ(-1, NIMOUserGet("somebody", &user));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
}

TEST(FakeUsers, CountsRecordsThatAreNotFreed) {
  const FakePlatform platform;
  FakeUsers().Add("somebody", 1, 2);
  NIMOUSER* user = nullptr;
  ASSERT_EQ(0, NIMOUserGet("somebody", &user));
  EXPECT_EQ(1, FakeUsers().outstanding());
  NIMOUserFree(user);
  EXPECT_EQ(0, FakeUsers().outstanding());
}

TEST(FakeTime, RecordsWaitsTakesNoTimeAndMovesTheClock) {
  const auto begin = std::chrono::steady_clock::now();
  FakeTime fake(5000);
  sleep(3600);
  usleep(1500000);
  usleep(500000);
  EXPECT_GT(seconds(60), std::chrono::steady_clock::now() - begin);
  ASSERT_EQ(3U, fake.waits().size());
  EXPECT_EQ("sleep", fake.waits()[0].function);
  EXPECT_EQ(3600000000U, fake.waits()[0].microseconds);
  EXPECT_EQ("usleep", fake.waits()[1].function);
  EXPECT_EQ(time_t{5000 + 3602}, time(nullptr));
  fake.Advance(8);
  EXPECT_EQ(time_t{5000 + 3610}, time(nullptr));
}

TEST(FakeTime, ScriptsChance) {
  FakeTime fake;
  EXPECT_EQ(0, rand());
  fake.ScriptRand({3, 1, 4});
  EXPECT_EQ(3, rand());
  EXPECT_EQ(1, rand());
  EXPECT_EQ(4, rand());
  EXPECT_EQ(4, rand());
  EXPECT_EQ(4U, fake.rand_calls());
}

TEST(FakeTime, RunsTheActionOfAWaitWhichMayThrowToEndAnEndlessOne) {
  FakeTime fake;
  fake.OnWait([](size_t nth) {
    if (nth == 1000) {
      throw std::runtime_error("enough");
    }
  });
  EXPECT_THROW(
      while (true) { sleep(1); }, std::runtime_error);
  EXPECT_EQ(1000U, fake.waits().size());
}

TEST(FakeTime, IsTheRealThingOtherwise) {
  { const FakeTime fake(5); }
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  EXPECT_LE(now.tv_sec, time(nullptr));
  const auto begin = std::chrono::steady_clock::now();
  usleep(20000);
  EXPECT_LE(milliseconds(20), std::chrono::steady_clock::now() - begin);
}

TEST(Subprocess, CapturesOutputErrorsAndExitStatus) {
  const ProcessResult result = RunProcess({"sh", "-c", "echo out; echo err >&2; exit 3"});
  EXPECT_EQ("out\n", result.output);
  EXPECT_EQ("err\n", result.errors);
  EXPECT_EQ(3, result.exit_status);
  EXPECT_EQ(0, result.signal);
  EXPECT_FALSE(result.timed_out);
}

TEST(Subprocess, TakesMoreThanAPipeHolds) {
  EXPECT_EQ(size_t{3000000}, RunProcess({"sh", "-c", "head -c 3000000 /dev/zero"}).output.size());
}

TEST(Subprocess, KillsWhatExceedsItsLimit) {
  const ProcessResult result = RunProcess({"sleep", "600"}, milliseconds(50));
  EXPECT_TRUE(result.timed_out);
  EXPECT_EQ(SIGKILL, result.signal);
}

TEST(Subprocess, IsGoneWithItsObject) {
  pid_t pid = 0;
  {
    const Subprocess process({"sleep", "600"});
    pid = process.pid();
    EXPECT_EQ(0, kill(pid, 0));
  }
  EXPECT_EQ(-1, kill(pid, 0));
  EXPECT_EQ(ESRCH, errno);
}

TEST(Subprocess, TalksByLines) {
  Subprocess process({"cat"});
  process.Write("one\ntwo\n");
  EXPECT_EQ("one", process.ReadLine(seconds(60)));
  EXPECT_EQ("two", process.ReadLine(seconds(60)));
  EXPECT_THROW(process.ReadLine(milliseconds(10)), std::runtime_error);
  EXPECT_EQ(0, process.Wait(seconds(60)).exit_status);
}

TEST(Subprocess, OfAProgramThatIsMissingExitsWith127) {
  EXPECT_EQ(127, RunProcess({"/no/such/program"}).exit_status);
}

TEST(TempDir, IsGoneWithAllThatIsInIt) {
  std::string path;
  {
    const TempDir dir;
    path = dir.path();
    fs::create_directories(dir / "a/b");
    WriteFile(dir / "a/b/c", "x");
  }
  EXPECT_FALSE(fs::exists(path));
}

// In processes of their own: what they mount and set stays.
TEST(TempDirDeathTest, IsGoneWithAFileSystemThatWasMountedAtIt) {
  const auto leaves_nothing = [] {
    std::string path;
    try {
      EnterPrivateMounts({});
      const TempDir dir;
      path = dir.path();
      MountEmptyFileSystem(path, size_t{1} << 20);
      MountEmptyFileSystem(path, size_t{1} << 20);
      WriteFile(dir / "file", "x");
    } catch (const NotAllowed&) {
      return path.empty();  // the machine does not allow it
    }
    return !fs::exists(path);
  };
  EXPECT_EXIT(_exit(leaves_nothing() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(TempDirDeathTest, ThatIsGoneAlreadyLeavesTheMountsOfOthers) {
  const auto leaves_others = [] {
    try {
      EnterPrivateMounts({});
      const TempDir other;
      MountEmptyFileSystem(other.path(), size_t{1} << 20);
      WriteFile(other / "file", "x");
      {
        const TempDir gone;
        fs::remove(gone.path());
      }
      return fs::exists(other / "file");
    } catch (const NotAllowed&) {
      return true;  // the machine does not allow it
    }
  };
  EXPECT_EXIT(_exit(leaves_others() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(TempDirDeathTest, IsMadeWhereTheUsualPlaceIsCoveredToo) {
  const auto makes_one = [] {
    setenv("TMPDIR", "/tmp/there/is/no/such/folder", 1);
    const TempDir dir;
    return fs::is_empty(dir.path());
  };
  EXPECT_EXIT(_exit(makes_one() ? 0 : 1), testing::ExitedWithCode(0), "");
}

// The last test of the program: what it covers stays covered.
TEST(ZPrivateMounts, MakeFixedPathsEmptyAndPrivate) {
  const bool existed = fs::exists("/var/packages/Orbisk/etc");
  try {
    EnterPrivateMounts({"/var/packages/Orbisk/etc", "/var/run", "/tmp"});
  } catch (const NotAllowed& error) {
    GTEST_SKIP() << error.what();
  }
  for (const char* path : {"/var/packages/Orbisk/etc", "/var/run", "/tmp"}) {
    EXPECT_TRUE(fs::is_empty(path)) << path;
    WriteFile(std::string(path) + "/orbisk-private", "x");
  }
  // A process that did not come along sees none of it.
  const std::string outside = "/proc/" + std::to_string(getppid()) + "/root";
  std::error_code hidden;
  for (const char* path : {"/run/orbisk-private", "/tmp/orbisk-private"}) {
    EXPECT_FALSE(fs::exists(outside + path, hidden)) << path;
  }
  EXPECT_EQ(existed, fs::exists(outside + "/var/packages/Orbisk/etc", hidden));
  // A process that is started from here does.
  EXPECT_EQ(0, RunProcess({"test", "-e", "/var/packages/Orbisk/etc/orbisk-private"}).exit_status);
}

}  // namespace
}  // namespace orbisk::test
