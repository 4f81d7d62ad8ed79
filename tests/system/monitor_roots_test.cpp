// Registered folders that come and go, and mounts over, below and instead of them.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>

#include "tests/support/private_mounts.h"
#include "tests/system/monitor_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

constexpr size_t kSmall = size_t{4} << 20;

class MonitorRootsTest : public MonitorTest {
 protected:
  bool Crashed() const { return Holds(box_.Lines(), {kCrashedLine, true, box_.share(), ""}); }
  bool Reported(int event, bool is_dir, const std::string& path) const {
    return Holds(box_.Lines(), {event, is_dir, path, ""});
  }

  std::string QueueOfFile() const { return box_.root() + "/vol/song.queue"; }
  void RegisterFile(const std::string& file) { box_.Register(QueueOfFile(), {file}); }

  void ExpectToHearOf(const std::string& file) const {
    const auto next_line_is = [&](int event) {
      const bool came = Eventually([&] { return Holds(MonitorBox::Lines(QueueOfFile()), {event, false, file, ""}); });
      box_.Ask("reload");  // answered when all that happened so far is in the queue
      fs::remove(QueueOfFile());
      return came;
    };
    WriteFile(file, "x");
    EXPECT_TRUE(next_line_is(kCreateLine)) << "created";
    std::ofstream(file, std::ios::app) << "y";
    EXPECT_TRUE(next_line_is(kCreateLine)) << "written";
    fs::permissions(file, fs::perms::owner_read);
    EXPECT_TRUE(next_line_is(kCreateLine)) << "another mode";
    fs::rename(file, box_.outside() + "/elsewhere");
    EXPECT_TRUE(next_line_is(kDeleteLine)) << "renamed";
    fs::rename(box_.outside() + "/elsewhere", file);
    EXPECT_TRUE(next_line_is(kCreateLine)) << "renamed back";
  }
};

TEST_P(MonitorRootsTest, RemovedFolderCrashesTheQueueAndIsFollowedWhenItComesBack) {
  Start();

  fs::remove_all(box_.share());
  ASSERT_TRUE(Eventually([&] { return Crashed(); }));
  fs::create_directory(box_.share());
  ASSERT_TRUE(Eventually([&] { return Reported(kCreateLine, true, box_.share()); }));
  WriteFile(In("f"), "x");

  EXPECT_TRUE(Eventually([&] { return Reported(kModifyLine, false, In("f")); }));
}

TEST_P(MonitorRootsTest, MovedFolderCrashesTheQueueAndIsLeftAlone) {
  Start();

  fs::rename(box_.share(), box_.root() + "/vol/elsewhere");
  ASSERT_TRUE(Eventually([&] { return Crashed(); }));
  const size_t before = box_.Lines().size();
  WriteFile(box_.root() + "/vol/elsewhere/f", "x");
  fs::create_directory(box_.share());
  WriteFile(In("g"), "x");

  ASSERT_TRUE(Eventually([&] { return box_.Lines().size() > before; }));
  for (const QueueLine& line : box_.Lines()) {
    EXPECT_EQ(line.path.find("elsewhere"), std::string::npos);
  }
}

TEST_P(MonitorRootsTest, MovedAncestorCrashesTheQueue) {
  Start();
  const std::string queue = box_.root() + "/moved/@fileindex/share/queue";

  fs::rename(box_.root() + "/vol", box_.root() + "/moved");
  fs::create_directories(box_.root() + "/vol/@fileindex/share");

  EXPECT_TRUE(Eventually([&] {
    return Crashed() || Holds(MonitorBox::Lines(queue), {kCrashedLine, true, box_.share(), ""});
  }));
}

TEST_P(MonitorRootsTest, FolderRegisteredBeforeItExistsIsWatchedOnceItDoes) {
  const std::string later = box_.root() + "/vol/later/deep";
  const std::string queue = box_.root() + "/vol/later.queue";
  box_.Register(queue, {later});
  Start();

  fs::create_directories(later);
  ASSERT_TRUE(Eventually([&] { return Holds(MonitorBox::Lines(queue), {kCreateLine, true, later, ""}); }));
  WriteFile(later + "/f", "x");

  EXPECT_TRUE(Eventually([&] { return Holds(MonitorBox::Lines(queue), {kModifyLine, false, later + "/f", ""}); }));
}

TEST_P(MonitorRootsTest, FileAtARegisteredPathIsReportedThoughItsFolderIsNotRegistered) {
  const std::string file = box_.outside() + "/song";
  RegisterFile(file);
  Start();

  ExpectToHearOf(file);
}

TEST_P(MonitorRootsTest, FileAtARegisteredPathIsReportedThoughNothingElseOfItsFileSystemIsRegistered) {
  const std::string file = box_.outside() + "/song";
  box_.Unregister(box_.queue());
  RegisterFile(file);
  box_.Start({"--backend", GetParam()});
  fs::remove(QueueOfFile());

  ExpectToHearOf(file);
}

TEST_P(MonitorRootsTest, MountOverAWatchedFolderCrashesTheQueueAndTheNewOneIsWatched) {
  Start();

  MountEmptyFileSystem(box_.share(), kSmall);
  ASSERT_TRUE(Eventually([&] { return Crashed(); }));
  WriteFile(In("f"), "x");
  ASSERT_TRUE(Eventually([&] { return Reported(kModifyLine, false, In("f")); }));

  ASSERT_EQ(umount(box_.share().c_str()), 0);
  ASSERT_TRUE(Eventually([&] { return CountOf(box_.Lines(), kCrashedLine) == 2; }));
  WriteFile(In("g"), "x");

  EXPECT_TRUE(Eventually([&] { return Reported(kModifyLine, false, In("g")); }));
}

TEST_P(MonitorRootsTest, MountBelowAWatchedFolderIsWatched) {
  fs::create_directory(In("m"));
  WriteFile(In("m/hidden"), "x");
  Start();

  MountEmptyFileSystem(In("m"), kSmall);
  ASSERT_TRUE(Eventually([&] { return Reported(kCreateLine, true, In("m")); }));
  WriteFile(In("m/f"), "x");
  ASSERT_TRUE(Eventually([&] { return Reported(kModifyLine, false, In("m/f")); }));
  const long before = CountOf(box_.Lines(), kCreateLine);

  ASSERT_EQ(umount(In("m").c_str()), 0);

  // What was hidden is there again: the mount point is looked through once more.
  EXPECT_TRUE(Eventually([&] { return CountOf(box_.Lines(), kCreateLine) > before; }));
  EXPECT_FALSE(Crashed());
}

TEST_P(MonitorRootsTest, MountBelowThatIsThereAtTheStartIsWatched) {
  fs::create_directory(In("m"));
  MountEmptyFileSystem(In("m"), kSmall);
  Start();

  WriteFile(In("m/f"), "x");

  EXPECT_TRUE(Eventually([&] { return Reported(kModifyLine, false, In("m/f")); }));
}

TEST_P(MonitorRootsTest, WatchedFileSystemCanBeUnmounted) {
  const std::string volume = box_.root() + "/volume";
  fs::create_directory(volume);
  MountEmptyFileSystem(volume, kSmall);
  fs::create_directory(volume + "/s");
  const std::string queue = box_.root() + "/vol/volume.queue";
  box_.Register(queue, {volume + "/s"});
  Start();
  WriteFile(volume + "/s/f", "x");
  ASSERT_TRUE(Eventually([&] { return Holds(MonitorBox::Lines(queue), {kModifyLine, false, volume + "/s/f", ""}); }));

  EXPECT_TRUE(Eventually([&] { return umount(volume.c_str()) == 0; }));

  EXPECT_TRUE(Eventually([&] { return Holds(MonitorBox::Lines(queue), {kCrashedLine, true, volume + "/s", ""}); }));
}

TEST_P(MonitorRootsTest, QueueOfAnUnmountedVolumeIsNotMadeBelowTheMountPoint) {
  const std::string volume = box_.root() + "/volume";
  fs::create_directory(volume);
  MountEmptyFileSystem(volume, kSmall);
  fs::create_directory(volume + "/s");
  box_.Register(volume + "/@fileindex/s/queue", {volume + "/s"});
  Start();
  ASSERT_TRUE(Eventually([&] { return fs::exists(volume + "/@fileindex/s/queue"); }));

  ASSERT_TRUE(Eventually([&] { return umount(volume.c_str()) == 0; }));
  box_.Settle();

  EXPECT_TRUE(fs::is_empty(volume));
}

TEST_P(MonitorRootsTest, SameFileSystemMountedTwiceIsReportedUnderBothPaths) {
  fs::create_directory(In("real"));
  fs::create_directory(In("alias"));
  MountBind(In("real"), In("alias"));
  Start();

  WriteFile(In("real/f"), "x");

  EXPECT_TRUE(Eventually([&] { return Reported(kModifyLine, false, In("real/f")); }));
  EXPECT_TRUE(Eventually([&] { return Reported(kModifyLine, false, In("alias/f")); }));
}

TEST_P(MonitorRootsTest, RegisteredPathMayLeadThroughALink) {
  fs::create_directory_symlink(box_.share(), box_.root() + "/vol/link");
  const std::string queue = box_.root() + "/vol/link.queue";
  box_.Register(queue, {box_.root() + "/vol/link"});
  Start();

  WriteFile(In("f"), "x");

  EXPECT_TRUE(Eventually([&] {
    return Holds(MonitorBox::Lines(queue), {kModifyLine, false, box_.root() + "/vol/link/f", ""});
  }));
}

INSTANTIATE_TEST_SUITE_P(Backends, MonitorRootsTest, testing::Values("fanotify", "inotify"),
                         [](const auto& test_info) { return std::string(test_info.param); });

}  // namespace
}  // namespace orbisk::test
