// The monitor with one watch for each folder: limits of watches, folders it may not read, choice of the interface,
// rest.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <thread>

#include "tests/support/private_mounts.h"
#include "tests/system/index_model.h"
#include "tests/system/monitor_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

// Runs the rest of the command in a user namespace with few watches, as a container may have.
std::vector<std::string> WithFewWatches(int most) {
  return {"unshare", "--user", "--map-root-user",
          "sh",      "-c",     "echo " + std::to_string(most) + " >/proc/sys/user/max_inotify_watches && exec \"$@\"",
          "sh"};
}

const std::vector<std::string> kAsNobody = {"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"};

std::string Program() {
  return BuiltProgram("nimotifyd");
}

// Also not if the build lies where others may not go.
bool CanRun(std::vector<std::string> launcher) {
  launcher.insert(launcher.end(), {Program(), "--version"});
  return RunProcess(launcher).exit_status == 0;
}

class MonitorInotifyTest : public testing::Test {
 protected:
  std::string In(const std::string& name) const { return box_.share() + "/" + name; }

  void MakeFolders(int count) const {
    for (int i = 0; i < count; ++i) {
      fs::create_directories(In("d" + std::to_string(i) + "/e"));
    }
  }

  // Starts with inotify and takes the lines of the start away.
  void Start(std::vector<std::string> arguments = {}) {
    box_.Register();
    arguments.insert(arguments.end(), {"--backend", "inotify"});
    box_.Start(arguments);
    Eventually([&] { return CountOf(box_.Lines(), kCrashedLine) > 0; });
    fs::remove(box_.queue());
  }

  // The watches that the kernel holds for the monitor.
  size_t WatchesHeld() {
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(box_.monitor().pid()) + "/fdinfo")) {
      std::ifstream file(entry.path());
      for (std::string line; std::getline(file, line);) {
        count += line.compare(0, 8, "inotify ") == 0 ? 1 : 0;
      }
    }
    return count;
  }

  Json::Value Status() const {
    const std::string text = box_.Ask("status");
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
    return value;
  }

  std::set<std::string> Polled() const {
    std::set<std::string> paths;
    const Json::Value status = Status();
    for (const Json::Value& path : status["polled"]) {
      paths.insert(path.asString());
    }
    return paths;
  }

  std::string BackendOf(const std::string& path) const {
    const Json::Value status = Status();
    for (const Json::Value& folder : status["folders"]) {
      if (folder["path"].asString() == path) {
        return folder["backend"].asString();
      }
    }
    return "none";
  }

  // Whether some line tells to look at `file`: its own, or a create of a folder above it.
  bool Covered(const std::string& file) const {
    for (const QueueLine& line : box_.Lines()) {
      const bool above = line.is_dir && line.event == kCreateLine && file.compare(0, line.path.size(), line.path) == 0;
      if (above || (line.event == kModifyLine && line.path == file)) {
        return true;
      }
    }
    return false;
  }

  MonitorBox box_;
};

// ---- our own limit

class MonitorOwnLimitTest : public MonitorInotifyTest {
 protected:
  static constexpr size_t kLimit = 30;
  void SetUp() override {
    MakeFolders(30);
    Start({"--watch-limit", std::to_string(kLimit), "--poll-seconds", "1"});
  }
};

TEST_F(MonitorOwnLimitTest, NoMoreWatchesAreHeldThanAllowed) {
  EXPECT_LE(WatchesHeld(), kLimit);
  EXPECT_GE(WatchesHeld(), kLimit - 10);  // guards may share a watch with a folder
}

TEST_F(MonitorOwnLimitTest, EachPolledFolderIsInTheStatusAndOnceInTheLog) {
  const std::set<std::string> polled = Polled();
  std::this_thread::sleep_for(milliseconds(2200));  // two looks, which must not repeat the records
  const Json::Value status = Status();

  const std::string errors = box_.Stop().errors;
  EXPECT_GE(polled.size(), 10U);
  EXPECT_EQ(status["polled_count"].asUInt64(), polled.size());
  for (const std::string& path : polled) {
    const std::string record = "event=watch_limit_reached folder=" + path + " ";
    const size_t first = errors.find(record);
    EXPECT_NE(first, std::string::npos) << path;
    EXPECT_EQ(errors.find(record, first + 1), std::string::npos) << path;
  }
}

TEST_F(MonitorOwnLimitTest, ChangeBelowAPolledFolderArrives) {
  const std::set<std::string> polled = Polled();
  ASSERT_FALSE(polled.empty());
  const std::string file = *polled.begin() + "/f";
  WriteFile(file, "x");

  EXPECT_TRUE(Eventually([&] { return Covered(file); }));
}

TEST_F(MonitorOwnLimitTest, NothingIsReportedWhileNothingChanges) {
  ASSERT_FALSE(Polled().empty());

  std::this_thread::sleep_for(milliseconds(3500));  // at least two looks

  EXPECT_TRUE(box_.Lines().empty());
}

TEST_F(MonitorOwnLimitTest, FreedWatchesGoToPolledFolders) {
  const size_t before = Polled().size();

  for (int i = 0; i < 30; ++i) {
    if (Polled().count(In("d" + std::to_string(i))) == 0) {
      fs::remove_all(In("d" + std::to_string(i)));
      break;
    }
  }

  EXPECT_TRUE(Eventually([&] { return Polled().size() < before; }));
  EXPECT_LE(WatchesHeld(), kLimit);
}

TEST(MonitorPolledCountTest, ThousandsOfPolledFoldersFillNeitherLogNorStatus) {
  MonitorBox box;
  box.Register();
  for (int i = 0; i < 1500; ++i) {
    fs::create_directory(box.share() + "/d" + std::to_string(i));
  }
  box.Start({"--backend", "inotify", "--watch-limit", "10"});

  const std::string status = box.Ask("status");
  const std::string errors = box.Stop().errors;

  size_t records = 0;
  for (size_t at = errors.find("watch_limit_reached"); at != std::string::npos;
       at = errors.find("watch_limit_reached", at + 1)) {
    ++records;
  }
  EXPECT_EQ(records, 100U);
  EXPECT_NE(errors.find("others=\"not recorded\""), std::string::npos);
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  ASSERT_TRUE(reader->parse(status.data(), status.data() + status.size(), &value, nullptr));
  EXPECT_EQ(value["polled"].size(), 1000U);
  EXPECT_GT(value["polled_count"].asUInt64(), 1400U);
}

// ---- the kernel's limit

class MonitorKernelLimitTest : public MonitorInotifyTest {
 protected:
  static constexpr int kKernelLimit = 50;
  static constexpr size_t kHeldAtMost = 45;
  void SetUp() override {
    if (!CanRun(WithFewWatches(kKernelLimit))) {
      GTEST_SKIP() << "user namespaces are not to be had";
    }
    MakeFolders(40);
    box_.StartThrough(WithFewWatches(kKernelLimit));
  }
  // The monitor believes that it may hold far more.
  void StartAgainstTheLimit() { Start({"--watch-limit", "100000", "--poll-seconds", "1"}); }
};

TEST_F(MonitorKernelLimitTest, NamespacesLimitCountsWithItsReserve) {
  Start({"--watch-reserve", "20"});

  EXPECT_LE(WatchesHeld(), 40U);
  EXPECT_GE(WatchesHeld(), 30U);
  EXPECT_EQ(box_.Stop().errors.find("event=watch_limit_lowered"), std::string::npos);
}

TEST_F(MonitorKernelLimitTest, RefusedWatchLeavesAReserveToOthers) {
  StartAgainstTheLimit();

  EXPECT_LE(WatchesHeld(), kHeldAtMost);
  EXPECT_GE(WatchesHeld(), kHeldAtMost - 2);
  EXPECT_NE(box_.Stop().errors.find("event=watch_limit_lowered watches=50 limit=45"), std::string::npos);
}

TEST_F(MonitorKernelLimitTest, ReserveStaysWhenWatchesAreFreedAndFoldersArePolled) {
  StartAgainstTheLimit();
  const size_t polled = Polled().size();

  for (int i = 0; i < 40; ++i) {
    if (Polled().count(In("d" + std::to_string(i))) == 0) {
      fs::remove_all(In("d" + std::to_string(i)));
      break;
    }
  }
  ASSERT_TRUE(Eventually([&] { return Polled().size() < polled; }));

  EXPECT_LE(WatchesHeld(), kHeldAtMost);
  const std::string errors = box_.Stop().errors;
  EXPECT_EQ(errors.find("event=watch_limit_lowered"), errors.rfind("event=watch_limit_lowered"));
}

TEST_F(MonitorKernelLimitTest, ReloadTriesForMoreWatchesAndLeavesAReserveAgain) {
  StartAgainstTheLimit();

  for (int i = 0; i < 35; ++i) {
    fs::remove_all(In("d" + std::to_string(i)));
  }
  box_.Register(box_.root() + "/vol/other.queue", {box_.outside()});
  ASSERT_EQ(box_.Ask("reload"), "ok");
  EXPECT_TRUE(Polled().empty());
  MakeFolders(40);
  ASSERT_TRUE(Eventually([&] { return !Polled().empty(); }));

  EXPECT_TRUE(Eventually([&] { return WatchesHeld() <= kHeldAtMost; }));
  const std::string errors = box_.Stop().errors;
  EXPECT_NE(errors.find("event=watch_limit_lowered"), errors.rfind("event=watch_limit_lowered"));
}

TEST_F(MonitorKernelLimitTest, NothingIsReportedWhileNothingChanges) {
  StartAgainstTheLimit();
  ASSERT_FALSE(Polled().empty());

  std::this_thread::sleep_for(milliseconds(3500));  // at least two looks

  EXPECT_TRUE(box_.Lines().empty());
}

TEST_F(MonitorKernelLimitTest, ChangesInEveryFolderArrive) {
  StartAgainstTheLimit();

  for (int i = 0; i < 40; ++i) {
    WriteFile(In("d" + std::to_string(i) + "/e/f"), "x");
  }

  for (int i = 0; i < 40; ++i) {
    const std::string file = In("d" + std::to_string(i) + "/e/f");
    EXPECT_TRUE(Eventually([&] { return Covered(file); })) << file;
  }
}

TEST_F(MonitorKernelLimitTest, FoldersMadeUntilTheKernelRefusesAreAllCovered) {
  fs::remove_all(box_.share());
  fs::create_directory(box_.share());
  StartAgainstTheLimit();
  IndexModel index(box_.share(), {"@eaDir"});

  for (int i = 0; i < 40; ++i) {
    const std::string folder = In("n" + std::to_string(i) + "/m");
    fs::create_directories(folder);
    WriteFile(folder + "/f", std::to_string(i));
    index.ConsumeLines(box_.queue());
  }

  EXPECT_TRUE(Eventually([&] {
    index.ConsumeLines(box_.queue());
    const Documents disk = ReadDocuments(box_.share(), {"@eaDir"});
    Documents known = index.documents();
    known[box_.share()] = disk.at(box_.share());
    return Differences(known, disk).empty();
  }));
  EXPECT_LE(WatchesHeld(), kHeldAtMost);
}

TEST_F(MonitorKernelLimitTest, ChangeNotYetHandledWhenItsWatchIsGivenBackArrives) {
  fs::remove_all(box_.share());
  fs::create_directories(In("v/a/b/c"));
  WriteFile(In("gone"), "");
  StartAgainstTheLimit();

  // The folders use the watches up. What follows the move waits for its other half, meanwhile the deepest folders lose
  // their watches.
  box_.monitor().Kill(SIGSTOP);
  for (int i = 0; i < 60; ++i) {
    fs::create_directory(In("n" + std::to_string(i)));
  }
  fs::rename(In("gone"), box_.outside() + "/gone");
  WriteFile(In("v/a/b/c/f"), "x");
  box_.monitor().Kill(SIGCONT);

  EXPECT_TRUE(Eventually([&] { return Covered(In("v/a/b/c/f")); }));
  EXPECT_EQ(Polled().count(In("v/a/b/c")) + Polled().count(In("v/a/b")) + Polled().count(In("v/a")), 1U);
  EXPECT_LE(WatchesHeld(), kHeldAtMost);
}

// ---- folders that may not be read

class MonitorUnreadableTest : public MonitorInotifyTest {
 protected:
  void SetUp() override {
    if (!CanRun(kAsNobody)) {
      GTEST_SKIP() << "cannot run as another user";
    }
    box_.StartThrough(kAsNobody);
    fs::create_directories(fs::path(box_.queue()).parent_path());
    fs::permissions(fs::path(box_.root()).parent_path(), fs::perms::all);
    for (const auto& folder : {box_.root(), box_.root() + "/vol", box_.share(), box_.root() + "/vol/@fileindex",
                               fs::path(box_.queue()).parent_path().string()}) {
      ASSERT_EQ(chown(folder.c_str(), 65534, 65534), 0);
    }
  }
};

TEST_F(MonitorUnreadableTest, AutoBecomesInotifyWithoutPrivilege) {
  box_.Register();
  box_.Start({"--backend", "auto"});
  ASSERT_TRUE(Eventually([&] { return !box_.Lines().empty(); }));
  WriteFile(In("f"), "x");

  EXPECT_TRUE(Eventually([&] { return Holds(box_.Lines(), {kModifyLine, false, In("f"), ""}); }));
  EXPECT_EQ(BackendOf(box_.share()), "inotify");
  const std::string errors = box_.Stop().errors;
  EXPECT_NE(errors.find("event=fanotify_refused reason="), std::string::npos);
  EXPECT_NE(errors.find("backend=inotify"), std::string::npos);
}

TEST_F(MonitorUnreadableTest, FanotifyWithoutPrivilegeDoesNotStart) {
  box_.Register();
  std::vector<std::string> command = kAsNobody;
  command.insert(command.end(), {Program(), "--backend", "fanotify", "--registrations", box_.root() + "/registrations",
                                 "--socket", box_.root() + "/socket"});

  EXPECT_EQ(RunProcess(command).exit_status, 1);
}

TEST_F(MonitorUnreadableTest, RegisteredFolderThatMayNotBeReadIsNotWatchedAndSaidNotToBe) {
  const std::string secret = box_.root() + "/vol/secret";
  fs::create_directory(secret);
  fs::permissions(secret, fs::perms::none);
  box_.Register(box_.root() + "/vol/secret.queue", {secret});
  Start();

  EXPECT_EQ(BackendOf(secret), "none");
  EXPECT_EQ(BackendOf(box_.share()), "inotify");
  const std::string errors = box_.Stop().errors;
  EXPECT_NE(errors.find("event=folder_not_watched folder=" + secret + "\n"), std::string::npos) << errors;
  EXPECT_NE(errors.find("event=watch_refused path=" + secret + " reason=\"Permission denied\""), std::string::npos);
}

TEST_F(MonitorUnreadableTest, FolderBelowThatMayNotBeReadIsRecordedOnce) {
  fs::create_directory(In("secret"));
  fs::permissions(In("secret"), fs::perms::none);
  Start();
  fs::create_directory(In("other"));  // has refused folders tried again
  box_.Settle();

  const std::string errors = box_.Stop().errors;
  const std::string record = "event=folder_not_watched folder=" + In("secret") + " reason=\"Permission denied\"";
  EXPECT_NE(errors.find(record), std::string::npos) << errors;
  EXPECT_EQ(errors.find(record), errors.rfind(record));
}

TEST_F(MonitorUnreadableTest, FolderThatMayBeReadLaterIsWatchedThen) {
  fs::create_directory(In("secret"));
  fs::permissions(In("secret"), fs::perms::none);
  Start();
  box_.Settle();

  fs::permissions(In("secret"), fs::perms::owner_all | fs::perms::others_all);
  ASSERT_TRUE(Eventually([&] { return Holds(box_.Lines(), {kCreateLine, true, In("secret"), ""}); }));
  WriteFile(In("secret/f"), "x");

  EXPECT_TRUE(Eventually([&] { return Holds(box_.Lines(), {kModifyLine, false, In("secret/f"), ""}); }));
}

TEST_F(MonitorUnreadableTest, RegisteredFolderThatMayNotBeReadAtAReloadIsPolledUntilItMay) {
  Start({"--poll-seconds", "1"});
  ASSERT_EQ(chown(box_.share().c_str(), 0, 0), 0);
  fs::permissions(box_.share(), fs::perms::none);

  box_.Register(box_.root() + "/vol/other.queue", {box_.share()});
  ASSERT_EQ(box_.Ask("reload"), "ok");
  ASSERT_EQ(Polled(), std::set<std::string>{box_.share()});
  fs::permissions(box_.share(), fs::perms::owner_all | fs::perms::others_all);
  ASSERT_TRUE(Eventually([&] { return Polled().empty(); }));
  fs::remove(box_.queue());
  WriteFile(In("f"), "x");

  EXPECT_TRUE(Eventually([&] { return Holds(box_.Lines(), {kModifyLine, false, In("f"), ""}); }));
}

// ---- the choice for each file system

TEST_F(MonitorInotifyTest, FileSystemThatFanotifyCannotMarkIsWatchedWithInotify) {
  const std::string plain = box_.root() + "/plain";
  fs::create_directory(plain);
  ASSERT_EQ(mount("none", plain.c_str(), "ramfs", MS_NOSUID | MS_NODEV, "mode=0755"), 0);
  const std::string queue = box_.root() + "/vol/plain.queue";
  box_.Register();
  box_.Register(queue, {plain});
  box_.Start({"--backend", "auto"});
  if (BackendOf(box_.share()) != "fanotify") {
    GTEST_SKIP() << "fanotify is not permitted here";
  }
  ASSERT_EQ(BackendOf(plain), "inotify");
  WriteFile(plain + "/f", "x");
  WriteFile(In("g"), "x");

  EXPECT_TRUE(Eventually([&] { return Holds(MonitorBox::Lines(queue), {kModifyLine, false, plain + "/f", ""}); }));
  EXPECT_TRUE(Eventually([&] { return Holds(box_.Lines(), {kModifyLine, false, In("g"), ""}); }));
}

// ---- rest

TEST_F(MonitorInotifyTest, NoWakeUpsAndNoLinesWhileNothingHappens) {
  MakeFolders(50);
  Start({"--poll-seconds", "1"});
  box_.Forget();
  const auto wake_ups = [&] {
    std::ifstream file("/proc/" + std::to_string(box_.monitor().pid()) + "/status");
    for (std::string line; std::getline(file, line);) {
      if (line.compare(0, 23, "voluntary_ctxt_switches") == 0) {
        return std::stol(line.substr(24));
      }
    }
    return -1L;
  };
  long before = wake_ups();
  ASSERT_GT(before, 0);
  ASSERT_TRUE(Eventually([&] {  // what the start left behind is over
    std::this_thread::sleep_for(milliseconds(200));
    return std::exchange(before, wake_ups()) == before;
  }));

  std::this_thread::sleep_for(std::chrono::seconds(2));

  EXPECT_EQ(wake_ups(), before);
  EXPECT_TRUE(box_.Lines().empty());
}

// ---- reload

TEST_F(MonitorInotifyTest, FolderIsToBeLookedThroughAfterItsWatchesWereSetAnew) {
  Start();
  ASSERT_TRUE(box_.Lines().empty());

  // A registration of somebody else: this queue's own has not changed, but its folder's watches have.
  box_.Register(box_.root() + "/vol/other.queue", {box_.outside()});
  ASSERT_EQ(box_.Ask("reload"), "ok");

  EXPECT_TRUE(Holds(box_.Lines(), {kCreateLine, true, box_.share(), ""}));
}

TEST_F(MonitorInotifyTest, FoldersBelowAreWatchedAfterWatchesWereSetAnew) {
  MakeFolders(5);
  Start();
  box_.Register(box_.root() + "/vol/other.queue", {box_.outside()});
  ASSERT_EQ(box_.Ask("reload"), "ok");
  fs::remove(box_.queue());

  WriteFile(In("d3/e/f"), "x");

  EXPECT_TRUE(Eventually([&] { return Holds(box_.Lines(), {kModifyLine, false, In("d3/e/f"), ""}); }));
}

TEST_F(MonitorInotifyTest, ReloadsUnderLoadLoseNothing) {
  MakeFolders(20);
  box_.Register();
  box_.Start({"--backend", "inotify"});
  IndexModel index(box_.share(), {"@eaDir"});
  Eventually([&] { return !box_.Lines().empty(); });
  index.ConsumeLines(box_.queue());
  std::atomic<bool> more{true};
  std::thread load([&] {
    for (int i = 0; more; ++i) {
      const std::string folder = In("d" + std::to_string(i % 20) + "/n" + std::to_string(i % 97));
      mkdir(folder.c_str(), 0755);
      const int file = open((folder + "/f").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      const std::string text = std::to_string(i);
      EXPECT_EQ(write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
      close(file);
      if (i % 5 == 0) {
        unlink((folder + "/f").c_str());
      }
      if (i % 3 == 0) {  // fails over a folder with a file in it
        rename(folder.c_str(), In("d" + std::to_string((i + 7) % 20) + "/m" + std::to_string(i % 89)).c_str());
      }
      std::this_thread::sleep_for(std::chrono::microseconds(300));  // an overflow would make good for what is lost
    }
  });

  for (int round = 0; round < 20; ++round) {
    const std::string other = box_.root() + "/vol/other.queue";
    round % 2 == 0 ? box_.Register(other, {box_.outside()}) : box_.Unregister(other);
    EXPECT_EQ(box_.Ask("reload"), "ok");
    index.ConsumeLines(box_.queue());
    std::this_thread::sleep_for(milliseconds(20));
  }
  more = false;
  load.join();
  ASSERT_EQ(box_.Stop().exit_status, 0);
  index.ConsumeLines(box_.queue());

  const std::vector<std::string> differences = Differences(index.documents(), ReadDocuments(box_.share(), {"@eaDir"}));
  EXPECT_EQ(index.crashes(), 1);
  EXPECT_TRUE(differences.empty()) << testing::PrintToString(differences);
}

}  // namespace
}  // namespace orbisk::test
