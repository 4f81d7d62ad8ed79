// Symbolic links on the way to registered folders and to queue files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "tests/support/private_mounts.h"
#include "tests/system/monitor_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class MonitorLinksTest : public testing::TestWithParam<const char*> {
 protected:
  MonitorLinksTest() {
    fs::create_directory(first());
    fs::create_directory(second());
    box_.Register();
  }
  std::string first() const { return box_.root() + "/vol/first"; }
  std::string second() const { return box_.root() + "/vol/second"; }
  std::string queue() const { return box_.root() + "/vol/link.queue"; }
  void Start() {
    box_.Start({"--backend", GetParam()});
    box_.Settle();
    fs::remove(queue());
  }
  bool WrittenSoon(const QueueLine& line) const {
    return Eventually([&] { return Holds(MonitorBox::Lines(queue()), line); });
  }
  // The link leads to the second folder from one instant to the next, as an administrator does it.
  void Retarget(const std::string& link) const {
    fs::create_directory_symlink(second(), link + ".new");
    fs::rename(link + ".new", link);
  }
  // What must come of it: the reader looks through the new content, and changes there are seen from then on.
  void ExpectTheSecondFolderIsWatched(const std::string& path) {
    ASSERT_TRUE(WrittenSoon({kCrashedLine, true, path, ""}));
    WriteFile(second() + "/seen", "x");
    EXPECT_TRUE(WrittenSoon({kModifyLine, false, path + "/seen", ""}));
    WriteFile(first() + "/unseen", "x");
    box_.Settle();
    EXPECT_FALSE(Holds(MonitorBox::Lines(queue()), {kModifyLine, false, path + "/unseen", ""}));
  }

  MonitorBox box_;
};

class MonitorRetargetTest : public MonitorLinksTest {};

TEST_P(MonitorLinksTest, QueueBehindALinkInAWatchedFolderDoesNotReportItself) {
  const std::string link = box_.root() + "/vol/behind";
  fs::create_directory_symlink(box_.share(), link);
  const std::string linked = link + "/queue";
  box_.Register(linked, {box_.share()});
  Start();
  const std::string file = box_.share() + "/f";

  WriteFile(file, "x");
  ASSERT_TRUE(Eventually([&] { return Holds(MonitorBox::Lines(linked), {kModifyLine, false, file, ""}); }));
  box_.Settle();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // time for lines about the lines

  for (const QueueLine& line : MonitorBox::Lines(linked)) {
    EXPECT_EQ(line.path.find("queue"), std::string::npos) << line;
  }
}

TEST_P(MonitorRetargetTest, LinkThatIsARegisteredFolderAndIsRetargetedIsFollowed) {
  const std::string link = box_.root() + "/vol/link";
  fs::create_directory_symlink(first(), link);
  box_.Register(queue(), {link});
  Start();

  Retarget(link);

  ExpectTheSecondFolderIsWatched(link);
}

TEST_P(MonitorRetargetTest, LinkInTheMiddleOfARegisteredPathThatIsRetargetedIsFollowed) {
  const std::string link = box_.root() + "/vol/link";
  fs::create_directory_symlink(first(), link);
  fs::create_directory(first() + "/in");
  fs::create_directory(second() + "/in");
  box_.Register(queue(), {link + "/in"});
  Start();

  Retarget(link);

  ASSERT_TRUE(WrittenSoon({kCrashedLine, true, link + "/in", ""}));
  WriteFile(second() + "/in/seen", "x");
  EXPECT_TRUE(WrittenSoon({kModifyLine, false, link + "/in/seen", ""}));
}

TEST_P(MonitorRetargetTest, LinkThatIsRemovedAndMadeAnewIsFollowed) {
  const std::string apart = box_.root() + "/apart";
  fs::create_directory(apart);
  MountEmptyFileSystem(apart, 1 << 20);
  for (const std::string& link : {box_.root() + "/vol/link", apart + "/link"}) {
    fs::create_directory_symlink(first(), link);
    box_.Register(queue(), {link});
    Start();

    fs::remove(link);
    ASSERT_TRUE(WrittenSoon({kCrashedLine, true, link, ""}));
    fs::create_directory_symlink(second(), link);
    ASSERT_TRUE(WrittenSoon({kCreateLine, true, link, ""}));
    WriteFile(second() + "/seen", "x");

    EXPECT_TRUE(WrittenSoon({kModifyLine, false, link + "/seen", ""}));
    box_.Stop();
    fs::remove(link);
  }
}

TEST_P(MonitorRetargetTest, LinkInAFileSystemWithoutAWatchedFolderThatIsRetargetedIsFollowed) {
  const std::string apart = box_.root() + "/apart";
  fs::create_directory(apart);
  MountEmptyFileSystem(apart, 1 << 20);
  const std::string link = apart + "/link";
  fs::create_directory_symlink(first(), link);
  box_.Register(queue(), {link});
  Start();

  Retarget(link);

  ExpectTheSecondFolderIsWatched(link);
}

TEST_P(MonitorRetargetTest, LinkThatARegisteredLinkLeadsToAndThatIsRetargetedIsFollowed) {
  const std::string apart = box_.root() + "/apart";
  fs::create_directory(apart);
  MountEmptyFileSystem(apart, 1 << 20);
  for (const std::string& middle : {box_.root() + "/vol/middle", apart + "/middle"}) {
    const std::string link = box_.root() + "/vol/link";
    fs::create_directory_symlink(first(), middle);
    fs::create_directory_symlink(middle, link);
    box_.Register(queue(), {link});
    Start();

    Retarget(middle);

    ExpectTheSecondFolderIsWatched(link);
    box_.Stop();
    fs::remove(link);
    fs::remove(second() + "/seen");
  }
}

TEST_P(MonitorRetargetTest, FolderThatTakesThePlaceOfAFileIsWatched) {
  const std::string apart = box_.root() + "/apart";
  fs::create_directory(apart);
  MountEmptyFileSystem(apart, 1 << 20);
  const std::string folder = apart + "/folder";
  WriteFile(folder, "a file still");
  box_.Register(queue(), {folder});
  Start();

  fs::remove(folder);
  fs::create_directory(folder);

  ASSERT_TRUE(WrittenSoon({kCreateLine, true, folder, ""}));
  WriteFile(folder + "/seen", "x");
  EXPECT_TRUE(WrittenSoon({kModifyLine, false, folder + "/seen", ""}));
}

INSTANTIATE_TEST_SUITE_P(Backends, MonitorLinksTest, testing::Values("fanotify", "inotify"),
                         [](const auto& test_info) { return std::string(test_info.param); });

INSTANTIATE_TEST_SUITE_P(Backends, MonitorRetargetTest, testing::Values("fanotify", "inotify"),
                         [](const auto& test_info) { return std::string(test_info.param); });

}  // namespace
}  // namespace orbisk::test
