// Which lines follow from which change, through either kernel interface.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <thread>

#include "tests/system/monitor_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class MonitorEventsTest : public MonitorTest {
 protected:
  std::string Out(const std::string& name) const { return box_.outside() + "/" + name; }
  QueueLine File(int event, const std::string& name, const std::string& old_name = "") const {
    return {event, false, In(name), old_name.empty() ? "" : In(old_name)};
  }
  QueueLine Folder(int event, const std::string& name, const std::string& old_name = "") const {
    return {event, true, In(name), old_name.empty() ? "" : In(old_name)};
  }
};

TEST_P(MonitorEventsTest, NewFileIsACreateAndAModify) {
  Start();

  WriteFile(In("f"), "x");

  EXPECT_EQ(box_.LinesSoFar(), (std::vector<QueueLine>{File(kCreateLine, "f"), File(kModifyLine, "f")}));
}

TEST_P(MonitorEventsTest, RenamesThatTheKernelMergesLeaveEachNameRight) {
  WriteFile(In("b"), "first");
  WriteFile(In("c"), "second");
  Start();
  kill(box_.monitor().pid(), SIGSTOP);

  // The fifth rename is merged into the first one, so the lines alone would lose a file.
  fs::rename(In("c"), In("a"));
  fs::rename(In("a"), In("c"));
  fs::rename(In("b"), In("a"));
  fs::rename(In("a"), In("b"));
  fs::rename(In("c"), In("a"));
  kill(box_.monitor().pid(), SIGCONT);

  std::set<std::string> there = {In("b"), In("c")};
  for (const QueueLine& line : box_.LinesSoFar()) {
    if (line.event == kDeleteLine || line.event == kRenameLine) {
      there.erase(line.event == kDeleteLine ? line.path : line.path_old);
    }
    if (line.event == kCreateLine || line.event == kRenameLine) {
      there.insert(line.path);
    }
  }
  EXPECT_EQ(there, (std::set<std::string>{In("a"), In("b")}));
}

TEST_P(MonitorEventsTest, DeletedFileIsADelete) {
  WriteFile(In("f"), "x");
  Start();

  fs::remove(In("f"));

  const std::vector<QueueLine> lines = box_.LinesSoFar();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), File(kDeleteLine, "f"));
}

TEST_P(MonitorEventsTest, ChangedPermissionsAreAnAttributeEvent) {
  WriteFile(In("f"), "x");
  Start();

  chmod(In("f").c_str(), 0600);

  EXPECT_EQ(box_.LinesSoFar(), (std::vector<QueueLine>{File(kAttribLine, "f")}));
}

TEST_P(MonitorEventsTest, ChangedPermissionsOfAFolderAreOneAttributeEvent) {
  fs::create_directory(In("d"));
  Start();

  chmod(In("d").c_str(), 0700);

  EXPECT_EQ(box_.LinesSoFar(), (std::vector<QueueLine>{Folder(kAttribLine, "d")}));
}

TEST_P(MonitorEventsTest, ChangedPermissionsOfTheRegisteredFolderAreReported) {
  Start();

  chmod(box_.share().c_str(), 0700);

  EXPECT_EQ(box_.LinesSoFar(), (std::vector<QueueLine>{{kAttribLine, true, box_.share(), ""}}));
}

TEST_P(MonitorEventsTest, FoldersAreCreatedAndDeletedAsFolders) {
  Start();

  fs::create_directory(In("d"));
  box_.Settle();
  fs::remove(In("d"));

  const std::vector<QueueLine> lines = box_.LinesSoFar();
  EXPECT_TRUE(Holds(lines, Folder(kCreateLine, "d")));
  EXPECT_EQ(lines.back(), Folder(kDeleteLine, "d"));
}

TEST_P(MonitorEventsTest, RenameWithinIsOneLineWithBothPaths) {
  WriteFile(In("a"), "x");
  fs::create_directory(In("d"));
  Start();

  fs::rename(In("a"), In("d/b"));

  EXPECT_EQ(box_.LinesSoFar(), (std::vector<QueueLine>{File(kRenameLine, "d/b", "a")}));
}

TEST_P(MonitorEventsTest, RenameOverAnExistingFileIsJustTheRename) {
  WriteFile(In("a"), "new");
  WriteFile(In("b"), "old");
  Start();

  fs::rename(In("a"), In("b"));

  EXPECT_EQ(box_.LinesSoFar(), (std::vector<QueueLine>{File(kRenameLine, "b", "a")}));
}

TEST_P(MonitorEventsTest, RenamedFolderIsOneLineAndItsContentIsFollowed) {
  fs::create_directories(In("d/e"));
  WriteFile(In("d/e/f"), "x");
  Start();

  fs::rename(In("d"), In("n"));
  box_.Settle();
  WriteFile(In("n/e/f"), "y");

  EXPECT_EQ(box_.LinesSoFar(), (std::vector<QueueLine>{Folder(kRenameLine, "n", "d"), File(kModifyLine, "n/e/f")}));
}

TEST_P(MonitorEventsTest, MoveInIsACreate) {
  WriteFile(Out("f"), "x");
  fs::create_directories(Out("d/e"));
  Start();

  fs::rename(Out("f"), In("f"));
  fs::rename(Out("d"), In("d"));
  box_.Settle();
  WriteFile(In("d/e/f"), "x");

  const std::vector<QueueLine> lines = box_.LinesSoFar();
  EXPECT_EQ(lines, (std::vector<QueueLine>{File(kCreateLine, "f"), Folder(kCreateLine, "d"), File(kCreateLine, "d/e/f"),
                                           File(kModifyLine, "d/e/f")}));
}

TEST_P(MonitorEventsTest, MoveOutIsADeleteAndNothingIsReportedFromOutside) {
  WriteFile(In("f"), "x");
  fs::create_directories(In("d/e"));
  Start();

  fs::rename(In("f"), Out("f"));
  fs::rename(In("d"), Out("d"));
  box_.Settle();
  WriteFile(Out("d/e/g"), "x");

  EXPECT_EQ(box_.LinesSoFar(), (std::vector<QueueLine>{File(kDeleteLine, "f"), Folder(kDeleteLine, "d")}));
}

TEST_P(MonitorEventsTest, FolderThatComesBackUnderAnotherNameIsFollowed) {
  fs::create_directories(In("d/e"));
  Start();

  fs::rename(In("d"), Out("d"));
  box_.Settle();
  WriteFile(Out("d/e/unseen"), "x");
  fs::rename(Out("d"), In("back"));
  box_.Settle();
  WriteFile(In("back/e/seen"), "x");

  const std::vector<QueueLine> lines = box_.LinesSoFar();
  EXPECT_EQ(lines, (std::vector<QueueLine>{Folder(kDeleteLine, "d"), Folder(kCreateLine, "back"),
                                           File(kCreateLine, "back/e/seen"), File(kModifyLine, "back/e/seen")}));
}

TEST_P(MonitorEventsTest, ExchangedFilesAreBothRight) {
  WriteFile(In("a"), "1");
  WriteFile(In("b"), "2");
  Start();

  ASSERT_EQ(renameat2(AT_FDCWD, In("a").c_str(), AT_FDCWD, In("b").c_str(), RENAME_EXCHANGE), 0);

  // A rename alone, read by itself, would leave the second file's document under neither name.
  const std::vector<QueueLine> lines = box_.LinesSoFar();
  EXPECT_EQ(lines.front(), File(kRenameLine, "b", "a"));
  EXPECT_TRUE(Holds(lines, File(kCreateLine, "a")));
}

TEST_P(MonitorEventsTest, HardLinkIsACreate) {
  WriteFile(In("a"), "1");
  Start();

  fs::create_hard_link(In("a"), In("b"));

  EXPECT_TRUE(Holds(box_.LinesSoFar(), File(kCreateLine, "b")));
}

TEST_P(MonitorEventsTest, LinksAreReportedAndNotFollowed) {
  fs::create_directory(Out("d"));
  Start();

  fs::create_directory_symlink(Out("d"), In("link"));
  box_.Settle();
  WriteFile(Out("d/f"), "x");

  EXPECT_EQ(box_.LinesSoFar(), (std::vector<QueueLine>{File(kCreateLine, "link")}));
}

TEST_P(MonitorEventsTest, IgnoredNamesAreSkippedAtAnyDepth) {
  fs::create_directories(In("d/@eaDir/deep"));
  Start();

  WriteFile(In("d/@eaDir/deep/f"), "x");
  fs::create_directory(In("@eaDir"));
  WriteFile(In("@eaDir/f"), "x");
  WriteFile(In("seen"), "");

  const std::vector<QueueLine> lines = box_.LinesSoFar();
  for (const QueueLine& line : lines) {
    EXPECT_EQ(line.path, In("seen"));
  }
  EXPECT_FALSE(lines.empty());
}

TEST_P(MonitorEventsTest, RenameFromAndToAnIgnoredNameIsACreateAndADelete) {
  fs::create_directory(In("@eaDir"));
  WriteFile(In("@eaDir/f"), "x");
  Start();

  fs::rename(In("@eaDir/f"), In("f"));
  box_.Settle();
  fs::rename(In("f"), In("@eaDir/f"));

  EXPECT_EQ(box_.LinesSoFar(), (std::vector<QueueLine>{File(kCreateLine, "f"), File(kDeleteLine, "f")}));
}

TEST_P(MonitorEventsTest, FolderRenamedFromAnIgnoredNameIsACreateAndIsFollowed) {
  fs::create_directories(In("@eaDir/e"));
  Start();

  fs::rename(In("@eaDir"), In("d"));
  box_.Settle();
  WriteFile(In("d/e/f"), "x");

  const std::vector<QueueLine> lines = box_.LinesSoFar();
  EXPECT_EQ(lines.front(), Folder(kCreateLine, "d"));
  EXPECT_TRUE(Holds(lines, File(kModifyLine, "d/e/f")));
}

TEST_P(MonitorEventsTest, IndexAreaIsNeverReported) {
  fs::create_directories(In("@fileindex/share/db"));
  Start();

  WriteFile(In("@fileindex/share/db/segment"), "x");

  EXPECT_TRUE(box_.LinesSoFar().empty());
}

TEST_P(MonitorEventsTest, QueueFilesInsideAWatchedFolderAreNeverReported) {
  const std::string queue = In("queue");
  box_.Unregister(box_.queue());
  box_.Register(queue, {box_.share()});
  box_.Start({"--backend", GetParam()});

  WriteFile(In("f"), "x");
  ASSERT_TRUE(Eventually([&] { return Holds(MonitorBox::Lines(queue), File(kModifyLine, "f")); }));
  fs::rename(queue, queue + ".tmp");
  WriteFile(In("g"), "x");
  ASSERT_TRUE(Eventually([&] { return Holds(MonitorBox::Lines(queue), File(kModifyLine, "g")); }));

  EXPECT_EQ(MonitorBox::Lines(queue), (std::vector<QueueLine>{File(kCreateLine, "g"), File(kModifyLine, "g")}));
}

TEST_P(MonitorEventsTest, OnlyRegisteredBitsAreWritten) {
  box_.Register(box_.queue(), {box_.share()}, kDeleteLine | kCreateLine);
  WriteFile(In("b"), "x");
  Start();

  WriteFile(In("a"), "x");
  chmod(In("a").c_str(), 0600);
  fs::rename(In("b"), In("c"));

  // Without the rename bit a rename can only be told as a delete and a create.
  EXPECT_EQ(box_.LinesSoFar(),
            (std::vector<QueueLine>{File(kCreateLine, "a"), File(kDeleteLine, "b"), File(kCreateLine, "c")}));
}

TEST_P(MonitorEventsTest, InnermostRegisteredFolderOfAQueueDecides) {
  fs::create_directories(In("in/@eaDir"));
  fs::create_directories(In("@eaDir"));
  const std::string queue = box_.root() + "/vol/nested.queue";
  const auto entry = [](const std::string& path, int mask, const std::string& ignore) {
    return R"({"path":")" + path + R"(","mask":)" + std::to_string(mask) + R"(,"ignore":[)" + ignore + "]}";
  };
  WriteFile(box_.root() + "/registrations/nested.json",
            R"({"app":"a","queue":")" + queue + R"(","config":[)" +
                entry(box_.share(), kCreateLine | kModifyLine, R"("@eaDir")") + "," +
                entry(In("in"), kCreateLine | kDeleteLine, "") + "]}");
  Start();

  for (const std::string folder : {"", "@eaDir/", "in/", "in/@eaDir/"}) {
    WriteFile(In(folder + "f"), "x");
    box_.Settle();
    fs::remove(In(folder + "f"));
    box_.Settle();
  }

  // The queue's files are written in one go, so what is in the one that Settle looks at is in this one soon.
  const std::vector<QueueLine> expected = {File(kCreateLine, "f"),           File(kModifyLine, "f"),
                                           File(kCreateLine, "in/f"),        File(kDeleteLine, "in/f"),
                                           File(kCreateLine, "in/@eaDir/f"), File(kDeleteLine, "in/@eaDir/f")};
  std::vector<QueueLine> lines;
  EXPECT_TRUE(Eventually([&] {
    lines = MonitorBox::Lines(queue);
    std::erase_if(lines, [](const QueueLine& line) { return line.path.find("/.settled") != std::string::npos; });
    return lines.size() >= expected.size();
  }));
  EXPECT_EQ(lines, expected);
}

TEST_P(MonitorEventsTest, MoveBetweenFoldersOfOneQueueIsARenameAndBetweenQueuesIsNot) {
  fs::create_directories(In("a"));
  fs::create_directories(In("b"));
  fs::create_directories(In("c"));
  box_.Register(box_.queue(), {In("a"), In("b"), box_.share() + "/s"});
  const std::string other = box_.root() + "/vol/other.queue";
  box_.Register(other, {In("c")});
  WriteFile(In("a/1"), "x");
  WriteFile(In("a/2"), "x");
  box_.Start({"--backend", GetParam()});

  fs::rename(In("a/1"), In("b/1"));
  fs::rename(In("a/2"), In("c/2"));

  ASSERT_TRUE(Eventually([&] { return Holds(MonitorBox::Lines(other), File(kCreateLine, "c/2")); }));
  EXPECT_TRUE(Eventually([&] { return Holds(box_.Lines(), File(kRenameLine, "b/1", "a/1")); }));
  EXPECT_TRUE(Eventually([&] { return Holds(box_.Lines(), File(kDeleteLine, "a/2")); }));
}

TEST_P(MonitorEventsTest, OpenFileIsReportedEveryPeriodAndAtItsClose) {
  Start({"--content-report-ms", "200"});
  const auto begin = std::chrono::steady_clock::now();
  const int fd = open(In("log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const auto lines = [&] { return CountOf(box_.Lines(), kModifyLine); };

  ASSERT_TRUE(Eventually([&] { return write(fd, "x", 1) == 1 && lines() >= 3; }));
  const auto periods = (std::chrono::steady_clock::now() - begin) / std::chrono::milliseconds(200);
  EXPECT_LE(lines(), periods + 1);
  box_.Settle();
  const long before = lines();
  ASSERT_EQ(write(fd, "x", 1), 1);
  close(fd);

  EXPECT_TRUE(Eventually([&] { return lines() > before; }));
}

TEST_P(MonitorEventsTest, OpenFileThatNobodyWritesToIsQuiet) {
  Start({"--content-report-ms", "50"});
  const int fd = open(In("log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_EQ(write(fd, "x", 1), 1);
  ASSERT_TRUE(Eventually([&] { return CountOf(box_.Lines(), kModifyLine) == 1; }));

  std::this_thread::sleep_for(std::chrono::milliseconds(300));

  EXPECT_EQ(CountOf(box_.Lines(), kModifyLine), 1);
  close(fd);
}

TEST_P(MonitorEventsTest, ContentWrittenThroughAMappingIsReportedAtTheClose) {
  WriteFile(In("map"), std::string(4096, 'a'));
  Start();

  const int fd = open(In("map").c_str(), O_RDWR | O_CLOEXEC);
  auto* memory = static_cast<char*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  ASSERT_NE(memory, MAP_FAILED);
  memory[0] = 'b';
  munmap(memory, 4096);
  close(fd);

  EXPECT_TRUE(Holds(box_.LinesSoFar(), File(kModifyLine, "map")));
}

TEST_P(MonitorEventsTest, FolderInPlaceOfADeletedFileIsCreatedInTwoSteps) {
  WriteFile(In("x"), "");
  Start();

  fs::remove(In("x"));
  box_.Settle();
  fs::create_directory(In("x"));

  // A delete that is still pending would swallow the folder's re-index; the create of a file takes it back first.
  const std::vector<QueueLine> lines = box_.LinesSoFar();
  ASSERT_GE(lines.size(), 2U);
  EXPECT_EQ(lines[lines.size() - 2], File(kCreateLine, "x"));
  EXPECT_EQ(lines.back(), Folder(kCreateLine, "x"));
}

TEST_P(MonitorEventsTest, SavePatternsLeaveTheTargetUpToDate) {
  WriteFile(In("doc"), "old");
  Start();

  WriteFile(In("doc.swp"), "new");  // an editor: aside, then over the old one
  fs::rename(In("doc.swp"), In("doc"));
  fs::rename(In("doc"), In("doc~"));  // another one: the old one aside, then a new one
  WriteFile(In("doc"), "newer");

  const std::vector<QueueLine> lines = box_.LinesSoFar();
  EXPECT_TRUE(Holds(lines, File(kRenameLine, "doc", "doc.swp")));
  EXPECT_TRUE(Holds(lines, File(kRenameLine, "doc~", "doc")));
  EXPECT_EQ(lines.back(), File(kModifyLine, "doc"));
}

INSTANTIATE_TEST_SUITE_P(Backends, MonitorEventsTest, testing::Values("fanotify", "inotify"),
                         [](const auto& test_info) { return std::string(test_info.param); });

}  // namespace
}  // namespace orbisk::test
