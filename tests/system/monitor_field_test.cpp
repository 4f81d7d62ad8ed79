// What users of file monitors suffer from: overflow, folders that fill before they are watched, used-up watches, names.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "tests/system/index_model.h"
#include "tests/system/monitor_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class MonitorFieldTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override { box_.Register(); }
  void Start(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.end(), {"--backend", GetParam()});
    box_.Start(arguments);
    box_.Forget();
  }
  bool fanotify() const { return std::string(GetParam()) == "fanotify"; }
  std::string In(const std::string& name) const { return box_.share() + "/" + name; }

  // More changes than the kernel holds, while the monitor is stopped.
  void Overflow(int round) {
    box_.monitor().Kill(SIGSTOP);
    size_t limit = 16384;
    std::ifstream(fanotify() ? "/proc/sys/fs/fanotify/max_queued_events" : "/proc/sys/fs/inotify/max_queued_events") >>
        limit;
    const std::string folder = In("round" + std::to_string(round));
    mkdir(folder.c_str(), 0755);
    for (size_t i = 0; i < limit + 100; ++i) {
      const std::string path = fanotify() ? folder + "/" + std::to_string(i) : In("f" + std::to_string(i));
      close(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
      unlink(path.c_str());
    }
    box_.monitor().Kill(SIGCONT);
  }
  std::string OverflowsCounted() const {
    const std::string status = box_.Ask("status");
    const size_t at = status.find("\"overflows\":");
    return status.substr(at + 12, status.find_first_of(",}", at + 12) - at - 12);
  }

  MonitorBox box_;
};

TEST_P(MonitorFieldTest, OverflowOfTheKernelsQueueWritesACrashedLineAndIsCounted) {
  Start({"--bounded-kernel-queue"});

  Overflow(0);

  EXPECT_TRUE(Eventually([&] { return Holds(box_.Lines(), {kCrashedLine, true, box_.share(), ""}); }));
  EXPECT_EQ(OverflowsCounted(), "1");
}

TEST_P(MonitorFieldTest, ChangesAfterAnOverflowAreSeenAlsoInFoldersMadeDuringIt) {
  Start({"--bounded-kernel-queue"});

  Overflow(0);
  fs::create_directories(In("made/late"));
  ASSERT_TRUE(Eventually([&] { return CountOf(box_.Lines(), kCrashedLine) > 0; }));
  box_.Settle();
  WriteFile(In("made/late/f"), "x");

  EXPECT_TRUE(Eventually([&] { return Holds(box_.Lines(), {kModifyLine, false, In("made/late/f"), ""}); }));
}

TEST_P(MonitorFieldTest, RepeatedOverflowsLeaveOneCrashedLineAtTheEnd) {
  Start({"--bounded-kernel-queue"});
  fs::remove(box_.queue());

  for (int round = 0; round < 3; ++round) {
    Overflow(round);
  }
  ASSERT_TRUE(Eventually([&] { return CountOf(box_.Lines(), kCrashedLine) > 0; }));
  box_.Settle();

  // Two in a row never: the second adds nothing to the first.
  const std::vector<QueueLine> lines = box_.Lines();
  for (size_t i = 1; i < lines.size(); ++i) {
    EXPECT_FALSE(lines[i].event == kCrashedLine && lines[i - 1].event == kCrashedLine);
  }
}

TEST_P(MonitorFieldTest, FilesMadeInFoldersJustMadeAreNeverMissed) {
  const char* scale = getenv("ORBISK_STORM_SCALE");
  const int rounds = scale != nullptr ? static_cast<int>(1000 * atof(scale)) : 1000;
  constexpr int kDepth = 50;
  Start();
  IndexModel index(box_.share(), {"@eaDir"});
  std::vector<std::string> files;
  for (int round = 0; round < rounds; ++round) {
    std::string file = In("r" + std::to_string(round));
    for (int depth = 1; depth < kDepth; ++depth) {
      file += "/d";
    }
    files.push_back(file + "/f");
  }

  // Read as it is written, so that a line is seen before what it does not tell of is on disk.
  std::atomic<bool> made{false};
  std::thread maker([&] {
    for (const std::string& file : files) {
      for (size_t at = file.find('/', box_.share().size() + 1); at != std::string::npos; at = file.find('/', at + 1)) {
        EXPECT_EQ(mkdir(file.substr(0, at).c_str(), 0755), 0);
      }
      close(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    }
    made = true;
  });
  while (!made) {
    index.ConsumeLines(box_.queue());
  }
  maker.join();
  ASSERT_EQ(box_.Stop().exit_status, 0);
  index.ConsumeLines(box_.queue());

  Documents disk = ReadDocuments(box_.share(), {"@eaDir"});
  disk.erase(box_.share());  // was there before
  const std::vector<std::string> differences = Differences(index.documents(), disk);
  EXPECT_TRUE(differences.empty()) << testing::PrintToString(differences);
  if (fanotify()) {  // with file-system marks each file has a line of its own
    const std::set<std::string> lines(index.history().begin(), index.history().end());
    for (const std::string& file : files) {
      ASSERT_EQ(lines.count("{\"event\":64,\"is_dir\":false,\"path\":\"" + file + "\"}"), 1U) << file;
    }
  }
}

TEST_P(MonitorFieldTest, EveryByteInNamesComesBack) {
  Start();
  std::set<std::string> expected;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/') {
      const std::string path = In("n" + std::string(1, static_cast<char>(byte)) + "e");
      ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
      expected.insert(path);
    }
  }

  std::set<std::string> found;
  for (const QueueLine& line : box_.LinesSoFar()) {
    found.insert(line.path);
  }
  EXPECT_EQ(found, expected);
}

TEST_P(MonitorFieldTest, FoldersWhoseNamesAreNoTextAreFollowed) {
  Start();
  const std::string folder = In("\xff\n\"\\\x01 %s");
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  box_.Settle();

  WriteFile(folder + "/f", "x");
  fs::rename(folder, In("\xc3\x28"));

  const std::vector<QueueLine> lines = box_.LinesSoFar();
  EXPECT_TRUE(Holds(lines, {kModifyLine, false, folder + "/f", ""}));
  EXPECT_TRUE(Holds(lines, {kRenameLine, true, In("\xc3\x28"), folder}));
}

TEST_P(MonitorFieldTest, LongestNamesAndPathsAreWhole) {
  Start();
  std::string folder = box_.share();
  while (folder.size() + 256 < 4095) {
    folder += "/" + std::string(255, 'n');
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0) << folder.size();
  }
  const std::string file = folder + "/" + std::string(4095 - folder.size() - 1, 'f');
  ASSERT_EQ(file.size(), 4095U);
  box_.Settle();
  WriteFile(file, "x");

  EXPECT_TRUE(Holds(box_.LinesSoFar(), {kModifyLine, false, file, ""}));
}

TEST_P(MonitorFieldTest, PathsLongerThanTheKernelTakesAtOnceAreWhole) {
  Start();
  const std::string name(250, 'n');
  std::string path = box_.share();
  int folder = open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  for (int depth = 0; depth < 30; ++depth) {
    ASSERT_EQ(mkdirat(folder, name.c_str(), 0755), 0);
    const int below = openat(folder, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    close(folder);
    folder = below;
    path += "/" + name;
  }
  box_.Settle();
  close(openat(folder, "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  close(folder);

  EXPECT_TRUE(Holds(box_.LinesSoFar(), {kCreateLine, false, path + "/f", ""}));
}

TEST_P(MonitorFieldTest, RestartInADeepTreeFindsItsFolders) {
  const std::string name(250, 'n');
  std::string path = box_.share();
  int folder = open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  for (int depth = 0; depth < 30; ++depth) {
    ASSERT_EQ(mkdirat(folder, name.c_str(), 0755), 0);
    const int below = openat(folder, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    close(folder);
    folder = below;
    path += "/" + name;
  }
  Start();
  close(openat(folder, "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  close(folder);

  EXPECT_TRUE(Holds(box_.LinesSoFar(), {kCreateLine, false, path + "/f", ""}));
}

INSTANTIATE_TEST_SUITE_P(Backends, MonitorFieldTest, testing::Values("fanotify", "inotify"),
                         [](const auto& test_info) { return std::string(test_info.param); });

TEST(MonitorWatchLimitTest, FoldersWithoutAWatchArePolledAndSaidToBe) {
  MonitorBox box;
  box.Register();
  for (int i = 0; i < 40; ++i) {
    fs::create_directories(box.share() + "/d" + std::to_string(i) + "/e");
  }
  box.Start({"--backend", "inotify", "--watch-limit", "20", "--poll-seconds", "1"});
  box.Forget();
  for (int i = 0; i < 40; ++i) {
    WriteFile(box.share() + "/d" + std::to_string(i) + "/e/f", "x");
  }

  // Each file is reported, or a folder above it is to be looked through again.
  const auto covered = [&](const std::vector<QueueLine>& lines, const std::string& file) {
    for (const QueueLine& line : lines) {
      const bool above = line.is_dir && line.event == kCreateLine && file.compare(0, line.path.size(), line.path) == 0;
      if (above || (line.event == kModifyLine && line.path == file)) {
        return true;
      }
    }
    return false;
  };
  for (int i = 0; i < 40; ++i) {
    const std::string file = box.share() + "/d" + std::to_string(i) + "/e/f";
    EXPECT_TRUE(Eventually([&] { return covered(box.Lines(), file); })) << file;
  }
  EXPECT_NE(box.Stop().errors.find("event=watch_limit_reached"), std::string::npos);
}

TEST(MonitorWatchLimitTest, PolledFoldersThatDoNotChangeAreNotReported) {
  MonitorBox box;
  box.Register();
  for (int i = 0; i < 20; ++i) {
    fs::create_directory(box.share() + "/d" + std::to_string(i));
  }
  box.Start({"--backend", "inotify", "--watch-limit", "10", "--poll-seconds", "1"});
  box.Forget();

  std::this_thread::sleep_for(std::chrono::milliseconds(2500));

  EXPECT_TRUE(box.LinesSoFar().empty());
}

}  // namespace
}  // namespace orbisk::test
