// Random file operations by several processes; afterwards the index that follows from the queue equals the disk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <thread>

#include "tests/system/index_model.h"
#include "tests/system/monitor_support.h"

namespace orbisk::test {
namespace {

// Makes random changes below a folder, and moves things in and out of it. Few names, so that changes meet.
class Troublemaker {
 public:
  Troublemaker(std::string share, std::string outside, unsigned seed, int names, int depth)
      : share_(std::move(share)),
        outside_(std::move(outside)),
        random_(seed),
        names_(names),
        depth_(depth),
        seed_(seed) {}

  void Act() {
    const std::string path = AnyPath();
    if (Below(400) == 0) {  // or the tree would grow without end
      std::error_code ignored;
      std::filesystem::remove_all(share_ + "/" + Name(), ignored);
    }
    switch (Below(24)) {
      case 0:
      case 1:
      case 2:
      case 3:
      case 4:
        Write(path, O_CREAT | O_TRUNC);
        break;
      case 5:
      case 6:
        Write(path, O_APPEND);
        break;
      case 7:
        ChangeMode(path, Below(2) == 0 ? 0644 : 0755);
        break;
      case 8:
      case 9:
        unlink(path.c_str());
        break;
      case 10:
      case 11:
      case 12:
      case 13:
        rename(path.c_str(), AnyPath().c_str());
        break;
      case 14:
      case 15:
      case 16:
        mkdir(path.c_str(), 0755);
        break;
      case 17:
        rmdir(path.c_str());
        break;
      case 18:
        rename(path.c_str(), Outside().c_str());
        break;
      case 19:
        rename(Outside().c_str(), path.c_str());
        break;
      case 20:
        link(path.c_str(), AnyPath().c_str());
        break;
      case 21:
        renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, AnyPath().c_str(), RENAME_EXCHANGE);
        break;
      case 22:
        SaveByRename(path);
        break;
      default:
        RenameBackAndForth(path);
    }
  }

 private:
  int Below(int bound) { return std::uniform_int_distribution<int>(0, bound - 1)(random_); }
  std::string Name() {
    static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    return std::string(1, kLetters[Below(names_)]);
  }
  std::string AnyPath() {
    std::string path = share_;
    for (int depth = 1 + Below(depth_); depth > 0; --depth) {
      path += "/" + (Below(40) == 0 ? std::string("@eaDir") : Name());
    }
    return path;
  }
  std::string Outside() { return outside_ + "/" + Name(); }
  void Write(const std::string& path, int flags) {
    const int fd = open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | (flags & ~O_TRUNC), 0644);
    struct stat info {};
    // A change through one name of a file is told of that name alone, and the other's document keeps the old content.
    if (fd >= 0 && fstat(fd, &info) == 0 && info.st_nlink == 1) {
      [[maybe_unused]] const int cut = (flags & O_TRUNC) != 0 ? ftruncate(fd, 0) : 0;
      const std::string text = std::to_string(seed_) + "." + std::to_string(++count_) + " ";
      [[maybe_unused]] const ssize_t written = write(fd, text.data(), text.size());
    }
    if (fd >= 0) {
      close(fd);
    }
  }
  void ChangeMode(const std::string& path, mode_t mode) {
    struct stat info {};
    if (lstat(path.c_str(), &info) == 0 && (S_ISDIR(info.st_mode) || info.st_nlink == 1)) {
      chmod(path.c_str(), mode);
    }
  }
  void SaveByRename(const std::string& path) {
    const std::string temporary = path + "~";
    Write(temporary, O_CREAT | O_TRUNC);
    rename(temporary.c_str(), path.c_str());
  }
  void RenameBackAndForth(const std::string& path) {
    const std::string other = AnyPath();
    for (int i = Below(5); i >= 0; --i) {
      rename(path.c_str(), other.c_str());
      rename(other.c_str(), path.c_str());
    }
    if (Below(2) == 0) {
      rename(path.c_str(), other.c_str());
    }
  }

  std::string share_;
  std::string outside_;
  std::mt19937 random_;
  int names_;
  int depth_;
  unsigned seed_;
  int count_ = 0;
};

// How the queue is read: when all is over, or again and again meanwhile; folded, or line by line.
enum class Reader { kFoldedAtTheEnd, kFolded, kLines };

struct Storm {
  const char* name;
  bool on_disk;
  const char* backend;
  int processes;
  int actions;  // of each process
  int names;
  int depth;
  Reader reader;
  int rounds;
  std::vector<std::string> extra{};  // arguments of the monitor
  // The monitor sleeps most of the time while the kernel's queue is bounded, so that events are lost.
  bool overflowing = false;
};

int Scaled(int count) {
  const char* text = getenv("ORBISK_STORM_SCALE");
  const double scale = text != nullptr ? atof(text) : 1.0;
  return std::max(1, static_cast<int>(count * scale));
}

std::vector<pid_t> StartTroublemakers(const MonitorBox& box, unsigned seed, const Storm& storm) {
  std::vector<pid_t> children;
  for (int i = 0; i < storm.processes; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      Troublemaker maker(box.share(), box.outside(), seed * 100 + static_cast<unsigned>(i), storm.names, storm.depth);
      for (int left = Scaled(storm.actions); left > 0; --left) {
        maker.Act();
      }
      _exit(0);
    }
    children.push_back(child);
  }
  return children;
}

class MonitorStormTest : public testing::TestWithParam<Storm> {};

// What the troublemakers do may not fill the kernel's queue: many of their actions fail, equal events are merged, and
// the machine may be slow. So many files come and go here that it does, each with an event of its own.
void FillKernelQueue(const MonitorBox& box, const Storm& storm) {
  long limit = 0;
  std::ifstream("/proc/sys/fs/" + std::string(storm.backend) + "/max_queued_events") >> limit;
  ASSERT_GT(limit, 0);
  for (long number = 0; number <= limit; ++number) {
    const std::string path = box.share() + "/filling." + std::to_string(number);
    mknod(path.c_str(), S_IFREG | 0644, 0);
    unlink(path.c_str());
  }
}

// Stops the monitor until events have been lost, and lets it catch up. Awake it always lets go of the queue file's
// lock, so the queue is read then.
void Overflow(MonitorBox& box, const Storm& storm) {
  box.monitor().Kill(SIGSTOP);
  FillKernelQueue(box, storm);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  box.monitor().Kill(SIGCONT);
}

void RunRound(const Storm& storm, unsigned seed) {
  MonitorBox box(storm.on_disk);
  box.Register();
  std::vector<std::string> arguments = {"--backend", storm.backend};
  arguments.insert(arguments.end(), storm.extra.begin(), storm.extra.end());
  box.Start(arguments);
  IndexModel index(box.share(), {"@eaDir"});
  const auto consume = [&] {
    storm.reader == Reader::kLines ? index.ConsumeLines(box.queue()) : index.Consume(box.queue());
  };
  consume();  // the crashed line of the start

  std::vector<pid_t> children = StartTroublemakers(box, seed, storm);
  while (!children.empty()) {
    std::erase_if(children, [](pid_t child) { return waitpid(child, nullptr, WNOHANG) == child; });
    if (storm.overflowing) {
      Overflow(box, storm);
    }
    if (storm.reader != Reader::kFoldedAtTheEnd) {
      consume();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  const ProcessResult stopped = box.Stop();
  ASSERT_EQ(stopped.exit_status, 0) << stopped.errors;
  consume();

  const Documents disk = ReadDocuments(box.share(), {"@eaDir"});
  const std::vector<std::string> differences = Differences(index.documents(), disk);
  if (storm.overflowing) {
    EXPECT_GT(index.crashes(), 1) << "no events were lost";
  } else {
    EXPECT_EQ(index.crashes(), 1) << "events were lost";
  }
  EXPECT_TRUE(differences.empty()) << "seed " << seed << ", of " << disk.size() << " documents:\n"
                                   << testing::PrintToString(differences);
  if (!differences.empty() && getenv("ORBISK_STORM_HISTORY") != nullptr) {
    for (const std::string& line : index.history()) {
      std::cout << line << "\n";
    }
  }
}

TEST_P(MonitorStormTest, IndexEqualsDiskAfterRandomOperations) {
  const Storm& storm = GetParam();
  const char* seed = getenv("ORBISK_STORM_SEED");
  const unsigned first = seed != nullptr ? static_cast<unsigned>(atoi(seed)) : 1;
  for (unsigned round = 0; round < static_cast<unsigned>(Scaled(storm.rounds)) && !HasFailure(); ++round) {
    RunRound(storm, first + round);
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, MonitorStormTest,
    testing::Values(
        Storm{"FanotifyLines", false, "fanotify", 4, 25'000, 6, 3, Reader::kLines, 1},
        Storm{"FanotifyLinesManyNames", false, "fanotify", 4, 5'000, 50, 3, Reader::kLines, 1},
        Storm{"FanotifyLinesOneProcess", false, "fanotify", 1, 1'000, 3, 4, Reader::kLines, 30},
        Storm{"FanotifyLinesTinyCache", false, "fanotify", 4, 2'500, 6, 3, Reader::kLines, 2, {"--folder-cache", "16"}},
        Storm{"FanotifyOneProcess", false, "fanotify", 1, 400, 3, 4, Reader::kFoldedAtTheEnd, 60},
        Storm{"FanotifyOneProcessFolded", false, "fanotify", 1, 400, 3, 4, Reader::kFolded, 30},
        Storm{"FanotifyFolded", false, "fanotify", 4, 25'000, 40, 3, Reader::kFolded, 1},
        Storm{"FanotifyFoldedFewNames", false, "fanotify", 4, 1'000, 6, 3, Reader::kFolded, 10},
        Storm{"FanotifyFoldedAtTheEnd", false, "fanotify", 4, 500, 6, 2, Reader::kFoldedAtTheEnd, 10},
        Storm{"FanotifyOnDisk", true, "fanotify", 4, 2'500, 6, 3, Reader::kLines, 2},
        Storm{"FanotifyOverflowLines",
              false,
              "fanotify",
              4,
              25'000,
              40,
              3,
              Reader::kLines,
              1,
              {"--bounded-kernel-queue"},
              true},
        Storm{"FanotifyOverflowFolded",
              false,
              "fanotify",
              4,
              25'000,
              40,
              3,
              Reader::kFolded,
              1,
              {"--bounded-kernel-queue"},
              true},
        Storm{"InotifyOverflowLines", false, "inotify", 4, 25'000, 40, 3, Reader::kLines, 1, {}, true},
        Storm{"InotifyOverflowFolded", false, "inotify", 4, 25'000, 40, 3, Reader::kFolded, 1, {}, true},
        Storm{"InotifyLines", false, "inotify", 4, 2'500, 6, 3, Reader::kLines, 2},
        Storm{"InotifyLinesOneProcess", false, "inotify", 1, 1'000, 3, 4, Reader::kLines, 30},
        Storm{"InotifyOneProcessFolded", false, "inotify", 1, 400, 3, 4, Reader::kFolded, 30}),
    [](const auto& test_info) { return std::string(test_info.param.name); });

}  // namespace
}  // namespace orbisk::test
