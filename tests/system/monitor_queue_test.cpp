// How the monitor gets its lines into queue files that others lock, move aside and fill the disk of.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/private_mounts.h"
#include "tests/system/monitor_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class MonitorQueueFileTest : public testing::Test {
 protected:
  void SetUp() override { box_.Register(); }
  std::string In(const std::string& name) const { return box_.share() + "/" + name; }
  bool Reported(const std::string& name) const { return Holds(box_.Lines(), {kModifyLine, false, In(name), ""}); }

  MonitorBox box_;
};

TEST_F(MonitorQueueFileTest, StartWritesOneCrashedLineWithTheFirstRegisteredFolder) {
  fs::create_directories(In("a"));
  box_.Register(box_.queue(), {box_.outside(), In("a")});

  box_.Start();

  ASSERT_TRUE(Eventually([&] { return !box_.Lines().empty(); }));
  EXPECT_EQ(box_.Lines(), (std::vector<QueueLine>{{kCrashedLine, true, box_.outside(), ""}}));
}

TEST_F(MonitorQueueFileTest, EachStartWritesACrashedLineAlsoAfterTheFormerOnes) {
  const QueueLine crashed{kCrashedLine, true, box_.share(), ""};

  box_.Start();
  box_.Stop();
  box_.Start();
  box_.Stop();

  // Only the monitor that wrote a line knows that it is a crashed one and still the last.
  EXPECT_EQ(box_.Lines(), (std::vector<QueueLine>{crashed, crashed}));
}

TEST_F(MonitorQueueFileTest, NoCrashedLineForAQueueThatDidNotRegisterItsBit) {
  box_.Register(box_.queue(), {box_.share()}, kCreateLine | kDeleteLine);
  box_.Start();

  WriteFile(In("f"), "x");

  EXPECT_EQ(box_.LinesSoFar(), (std::vector<QueueLine>{{kCreateLine, false, In("f"), ""}}));
  EXPECT_EQ(CountOf(box_.Lines(), kCrashedLine), 0);
}

TEST_F(MonitorQueueFileTest, QueueAndItsFolderAreMadeReadableByAll) {
  box_.Start();

  struct stat queue {};
  struct stat folder {};
  ASSERT_EQ(stat(box_.queue().c_str(), &queue), 0);
  ASSERT_EQ(stat(fs::path(box_.queue()).parent_path().c_str(), &folder), 0);
  EXPECT_EQ(queue.st_mode & 0777, 0644U);
  EXPECT_EQ(folder.st_mode & 0777, 0755U);
}

TEST_F(MonitorQueueFileTest, QueueMovedAsideIsFollowedByANewOne) {
  box_.Start();
  WriteFile(In("before"), "x");
  ASSERT_TRUE(Eventually([&] { return Reported("before"); }));

  fs::rename(box_.queue(), box_.queue() + ".tmp");
  WriteFile(In("after"), "x");

  ASSERT_TRUE(Eventually([&] { return Reported("after"); }));
  EXPECT_FALSE(Reported("before"));
}

TEST_F(MonitorQueueFileTest, LockedQueueIsWrittenAfterTheLockIsReleased) {
  box_.Start();
  const int fd = open(box_.queue().c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  const size_t before = box_.Lines().size();

  WriteFile(In("f"), "x");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(box_.Lines().size(), before);
  close(fd);

  EXPECT_TRUE(Eventually([&] { return Reported("f"); }));
}

TEST_F(MonitorQueueFileTest, QueueMovedAsideUnderItsLockGetsNothingMore) {
  box_.Start();
  const int fd = open(box_.queue().c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  WriteFile(In("f"), "x");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));

  fs::rename(box_.queue(), box_.queue() + ".tmp");
  close(fd);

  ASSERT_TRUE(Eventually([&] { return Reported("f"); }));
  EXPECT_FALSE(Holds(MonitorBox::Lines(box_.queue() + ".tmp"), {kModifyLine, false, In("f"), ""}));
}

TEST_F(MonitorQueueFileTest, TornLineOfAnotherWriterDoesNotSwallowOurs) {
  box_.Start();
  {
    std::ofstream queue(box_.queue(), std::ios::app);
    queue << R"({"event":64,"pa)";
  }

  WriteFile(In("f"), "x");

  const std::string whole = R"({"event":2,"is_dir":false,"path":")" + In("f") + "\"}\n";
  EXPECT_TRUE(Eventually([&] { return ReadFile(box_.queue()).find("\n" + whole) != std::string::npos; }));
}

TEST_F(MonitorQueueFileTest, FullDiskLeavesNoTornLineAndIsWrittenLater) {
  const std::string small = box_.root() + "/small";
  fs::create_directory(small);
  MountEmptyFileSystem(small, 16384);
  const std::string queue = small + "/queue";
  box_.Register(queue, {box_.share()});
  WriteFile(small + "/fill", std::string(8192, 'x'));
  box_.Start();

  for (int i = 0; i < 500; ++i) {
    WriteFile(In("f" + std::to_string(i)), "x");
  }
  box_.Settle();
  const std::string text = ReadFile(queue);
  EXPECT_TRUE(text.empty() || text.back() == '\n');
  EXPECT_FALSE(Holds(MonitorBox::Lines(queue), {kModifyLine, false, In("f499"), ""}));
  fs::remove(small + "/fill");
  umask(022);
  MountEmptyFileSystem(small, 1 << 20);  // a larger disk in its place

  EXPECT_TRUE(Eventually([&] { return Holds(MonitorBox::Lines(queue), {kModifyLine, false, In("f499"), ""}); }));
}

TEST_F(MonitorQueueFileTest, LinesPastTheMemoryLimitBecomeOneCrashedLine) {
  box_.Start({"--memory-limit-mib", "1"});
  box_.Forget();
  WriteFile(box_.queue(), "");
  const int fd = open(box_.queue().c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);

  for (int i = 0; i < 20'000; ++i) {
    const int file = open(In("f" + std::to_string(i)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    close(file);
  }
  ASSERT_TRUE(Eventually([&] { return box_.Ask("status").find("\"pending_bytes\":0") != std::string::npos; }));
  close(fd);

  ASSERT_TRUE(Eventually([&] { return !box_.Lines().empty(); }));
  EXPECT_EQ(box_.Lines().front(), (QueueLine{kCrashedLine, true, box_.share(), ""}));
  WriteFile(In("later"), "x");
  EXPECT_TRUE(Eventually([&] { return Reported("later"); }));
  EXPECT_EQ(CountOf(box_.Lines(), kCrashedLine), 1);
}

TEST_F(MonitorQueueFileTest, FirstEventAfterQuietIsWrittenAtOnce) {
  box_.Start({"--gather-ms", "50"});
  std::vector<std::chrono::microseconds> waits;
  for (int i = 0; i < 21; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(160));  // until the gathering after the last one is over
    struct stat before {};
    stat(box_.queue().c_str(), &before);
    const auto begin = std::chrono::steady_clock::now();
    mkdir(In("d" + std::to_string(i)).c_str(), 0755);
    struct stat now = before;
    while (now.st_size == before.st_size && std::chrono::steady_clock::now() - begin < std::chrono::seconds(5)) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
      stat(box_.queue().c_str(), &now);
    }
    waits.push_back(std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin));
  }
  // The middle one, because other programs may keep the machine busy; an event that is gathered takes 50 ms always.
  std::sort(waits.begin(), waits.end());
  EXPECT_LT(waits[waits.size() / 2], std::chrono::milliseconds(25));
}

TEST_F(MonitorQueueFileTest, IdleMonitorDoesNotWakeUp) {
  box_.Start();
  WriteFile(In("f"), "x");
  box_.Settle();
  const auto switches = [&] {
    const std::string status = ReadFile("/proc/" + std::to_string(box_.monitor().pid()) + "/status");
    const size_t at = status.find("\nvoluntary_ctxt_switches:");
    return std::stol(status.substr(at + 25));
  };
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the gathering after the last event runs out
  const long before = switches();

  std::this_thread::sleep_for(std::chrono::seconds(2));

  EXPECT_EQ(switches(), before);
}

TEST_F(MonitorQueueFileTest, StopWritesWhatHappenedBefore) {
  box_.Start();
  for (int i = 0; i < 2000; ++i) {
    WriteFile(In("f" + std::to_string(i)), "x");
  }

  const ProcessResult result = box_.Stop();

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_TRUE(Reported("f1999"));
  EXPECT_EQ(CountOf(box_.Lines(), kCreateLine), 2000);
}

TEST_F(MonitorQueueFileTest, StopReportsFilesStillOpenForWriting) {
  box_.Start();
  const int fd = open(In("log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_EQ(write(fd, "x", 1), 1);

  box_.Stop();

  EXPECT_TRUE(Reported("log"));
  close(fd);
}

TEST_F(MonitorQueueFileTest, EachEventIsWrittenOnceToEachQueue) {
  const std::string second = box_.root() + "/vol/second.queue";
  box_.Register(second, {box_.share()});
  box_.Start();

  WriteFile(In("f"), "x");

  const QueueLine line{kCreateLine, false, In("f"), ""};
  ASSERT_TRUE(Eventually([&] { return Holds(MonitorBox::Lines(second), line) && Holds(box_.Lines(), line); }));
  EXPECT_EQ(CountOf(MonitorBox::Lines(second), kCreateLine), 1);
  EXPECT_EQ(CountOf(box_.Lines(), kCreateLine), 1);
}

}  // namespace
}  // namespace orbisk::test
