// What users of file monitors suffer from: overflow, folders that fill before they are watched, used-up watches, names.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

#include "tests/system/index_model.h"
#include "tests/system/monitor_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class MonitorFieldTest : public MonitorTest {
 protected:
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

// Makes a folder below `path` that is too deep for the kernel to take its path at once, and adds its names to `path`.
// Returns its descriptor, which the caller closes.
int MakeDeepFolder(std::string& path) {
  const std::string name(250, 'n');
  int folder = open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  for (int depth = 0; depth < 30; ++depth) {
    EXPECT_EQ(mkdirat(folder, name.c_str(), 0755), 0);
    const int below = openat(folder, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    close(folder);
    folder = below;
    path += "/" + name;
  }
  return folder;
}

TEST_P(MonitorFieldTest, PathsLongerThanTheKernelTakesAtOnceAreWhole) {
  Start();
  std::string path = box_.share();
  const int folder = MakeDeepFolder(path);
  box_.Settle();
  close(openat(folder, "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  close(folder);

  EXPECT_TRUE(Holds(box_.LinesSoFar(), {kCreateLine, false, path + "/f", ""}));
}

TEST_P(MonitorFieldTest, RestartInADeepTreeFindsItsFolders) {
  std::string path = box_.share();
  const int folder = MakeDeepFolder(path);
  Start();
  close(openat(folder, "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  close(folder);

  EXPECT_TRUE(Holds(box_.LinesSoFar(), {kCreateLine, false, path + "/f", ""}));
}

INSTANTIATE_TEST_SUITE_P(Backends, MonitorFieldTest, testing::Values("fanotify", "inotify"),
                         [](const auto& test_info) { return std::string(test_info.param); });

int ChainCount() {
  const char* scale = getenv("ORBISK_STORM_SCALE");
  return scale != nullptr ? static_cast<int>(1000 * atof(scale)) : 1000;
}

enum class Pause { kNever, kUntilSeen };

// Makes chains of folders with a file at the end of each. With pauses every other one is made at once, the rest as far
// as half way until somebody has seen its first folder, because what follows then must be told of by further lines.
class ChainMaker {
 public:
  ChainMaker(std::string share, int chains, Pause pause) : share_(std::move(share)), chains_(chains), pause_(pause) {}

  std::string Top(int chain) const { return share_ + "/r" + std::to_string(chain); }
  std::string File(int chain) const {
    std::string path = Top(chain);
    for (int depth = 1; depth < kDepth; ++depth) {
      path += "/d";
    }
    return path + "/f";
  }
  // Up to a few times what a watch takes: so it happens that a folder comes just when the one above gets its watch.
  static void Dawdle(std::chrono::microseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
    }
  }
  void Run() {
    for (int chain = 0; chain < chains_; ++chain) {
      std::string path = Top(chain);
      for (int depth = 0; depth < kDepth; ++depth, path += "/d") {
        EXPECT_EQ(mkdir(path.c_str(), 0755), 0);
        const bool pauses = pause_ == Pause::kUntilSeen && chain % 2 == 1;
        if (pauses && depth < kDepth / 2) {
          Dawdle(std::chrono::microseconds(chain * depth % 199));
        } else if (pauses && depth == kDepth / 2) {
          EXPECT_TRUE(Eventually([&] { return seen_ > chain; })) << chain;
        }
      }
      close(open(File(chain).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    }
    done_ = true;
  }
  void Saw(const Documents& documents) {
    while (seen_ < chains_ && documents.count(Top(seen_)) != 0) {
      ++seen_;
    }
  }
  bool done() const { return done_; }

 private:
  static constexpr int kDepth = 50;
  std::string share_;
  int chains_;
  Pause pause_;
  std::atomic<int> seen_{0};
  std::atomic<bool> done_{false};
};

// Hands the index what is new in a queue file, without the lock for which a consumer may sleep.
class Follower {
 public:
  Follower(std::string queue, std::string copy) : queue_(std::move(queue)), copy_(std::move(copy)) {}

  void Feed(IndexModel& index) {
    std::ifstream file(queue_, std::ios::binary);
    file.seekg(offset_);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    text.resize(text.rfind('\n') + 1);  // the rest of the last line is still to come
    if (!text.empty()) {
      offset_ += static_cast<std::streamoff>(text.size());
      WriteFile(copy_, text);
      index.ConsumeLines(copy_);
    }
  }

 private:
  std::string queue_;
  std::string copy_;
  std::streamoff offset_ = 0;
};

TEST(MonitorNewFoldersTest, IndexThatReadsTheLinesAsTheyComeMissesNothingWithInotify) {
  MonitorBox box;
  box.Register();
  box.Start({"--backend", "inotify", "--gather-ms", "1"});
  IndexModel index(box.share(), {"@eaDir"});
  Follower follower(box.queue(), box.root() + "/copy");
  ChainMaker maker(box.share(), ChainCount(), Pause::kUntilSeen);

  std::thread making([&] { maker.Run(); });
  while (!maker.done()) {
    follower.Feed(index);
    maker.Saw(index.documents());
  }
  making.join();
  ASSERT_EQ(box.Stop().exit_status, 0);
  follower.Feed(index);

  const std::vector<std::string> differences = Differences(index.documents(), ReadDocuments(box.share(), {"@eaDir"}));
  EXPECT_EQ(index.crashes(), 1);
  EXPECT_TRUE(differences.empty()) << testing::PrintToString(differences);
}

TEST(MonitorNewFoldersTest, EachFileHasALineOfItsOwnWithFanotify) {
  MonitorBox box;
  box.Register();
  box.Start({"--backend", "fanotify"});
  ChainMaker maker(box.share(), ChainCount(), Pause::kNever);

  maker.Run();

  std::set<std::string> created;
  for (const QueueLine& line : box.LinesSoFar()) {
    if (line.event == kCreateLine) {
      created.insert(line.path);
    }
  }
  for (int chain = 0; chain < ChainCount(); ++chain) {
    ASSERT_EQ(created.count(maker.File(chain)), 1U) << chain;
  }
}

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
