// What the indexing daemon makes of a volume that is full, and of one that goes and comes back.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "orbisk/fileindex/communication.h"
#include "orbisk/fileindex/elastic_control.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class IndexerVolume : public IndexerBox {
 protected:
  static std::string StateOf(const std::string& share) { return StatusOf(share)["state"].asString(); }

  void Write(const std::string& name, const std::string& text) const {
    MakeFolder(fs::path(Docs(name)).parent_path());
    WriteFile(Docs(name), text);
  }

  void StartWithFiles() {
    Write("a.txt", "kingfisher");
    Write("deep/b.txt", "bittern");
    StartIndexer();
    ASSERT_TRUE(BecomesEqual());
  }
};

// How often the status is stored while it lives.
class StatusWrites {
 public:
  StatusWrites() : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    EXPECT_GE(inotify_add_watch(fd_, fs::path(kStatusFile).parent_path().c_str(), IN_MOVED_TO), 0);
  }
  ~StatusWrites() { close(fd_); }
  StatusWrites(const StatusWrites&) = delete;
  StatusWrites& operator=(const StatusWrites&) = delete;

  int Count() const {
    alignas(inotify_event) char buffer[65536];
    int count = 0;
    for (ssize_t got = read(fd_, buffer, sizeof(buffer)); got > 0; got = read(fd_, buffer, sizeof(buffer))) {
      for (ssize_t at = 0; at < got;) {
        inotify_event event{};
        memcpy(&event, buffer + at, sizeof(event));
        count += event.len > 0 && fs::path(kStatusFile).filename() == buffer + at + sizeof(event) ? 1 : 0;
        at += static_cast<ssize_t>(sizeof(event) + event.len);
      }
    }
    return count;
  }

 private:
  int fd_;
};

// The index lies on a small volume, beside the share.
class IndexerFullVolume : public IndexerVolume {
 protected:
  void MountVolume() override { MountEmptyFileSystem(Volume(), size_t{24} << 20); }

  // Takes what room there is, but for so much that files can still be written to.
  void Fill() const {
    std::ofstream ballast(OnFirst("ballast"), std::ios::binary);
    const std::string block(4096, 'x');
    while (ballast.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
    }
  }

  // Files that there is no room for when the daemon meets them.
  void WriteTooMuch() {
    indexer().Kill(SIGSTOP);
    Write("large.txt", Words(1));
    Write("larger.txt", Words(2));
    EXPECT_TRUE(Eventually([] {
      return fs::exists(QueueOf("docs")) && ReadFile(QueueOf("docs")).find("larger.txt") != std::string::npos;
    }));
    Fill();
    indexer().Kill(SIGCONT);
  }

  static std::string Words(int seed) {
    std::string text;
    for (int i = 0; i < 20'000; ++i) {
      text += "w" + std::to_string(seed) + "x" + std::to_string(i) + " ";
    }
    return text;
  }
};

TEST_F(IndexerFullVolume, AShareWithoutRoomWaitsAndGoesOnWhenThereIsSome) {
  StartWithFiles();
  AddShare(OnSecond("music"));
  fileindex::elastic::ShareIndexCreate("music");
  ASSERT_EQ(Fileindexctl({"monitor", "register", QueueOf("music"), OnSecond("music")}).exit_status, 0);
  WriteFolders({Entry("/docs", "all"), Entry("/music", "songs")});

  WriteTooMuch();

  EXPECT_TRUE(Eventually([] { return StateOf("docs") == "no_space"; }));
  WriteFile(OnSecond("music/c.txt"), "heron");
  EXPECT_TRUE(Eventually([] { return Find({"heron"}).size() == 1; }));
  EXPECT_EQ(InIndex()[Docs("a.txt")].text, "kingfisher");

  fs::remove(OnFirst("ballast"));

  EXPECT_TRUE(BecomesEqual(std::chrono::minutes(2)));
  EXPECT_TRUE(Eventually([] { return StateOf("docs") == "idle"; }));
}

TEST_F(IndexerFullVolume, AFullVolumeIsToldOnceAndLeftAlone) {
  SkipWithoutIdentities();
  if (IsSkipped()) {
    return;
  }
  StartWithFiles();
  WriteTooMuch();
  // Which it says of a volume that it has not tried again.
  ASSERT_TRUE(Eventually([] { return StatusOf()["problem"] == "there is no room on the volume"; })) << StatusOf();
  StatusWrites writes;

  usleep(5'000'000);

  EXPECT_LE(writes.Count(), 1) << "by the one try in ten that comes all the same";
  EXPECT_EQ(StateOf("docs"), "no_space");
  EXPECT_EQ(StopIndexer(), 0);
  EXPECT_EQ(CountRecords("no_room"), 1);
}

// While it lives the box has a program that tells administrators: this one, which counts how often it is called.
class NotifyDouble {
 public:
  NotifyDouble() {
    const std::string program = dir_ / "usr/nimo/bin/nimonxmnotify";
    fs::create_directories(fs::path(program).parent_path());
    WriteFile(program, "#!/bin/sh\necho \"$@\" >>" + (dir_ / "calls") + "\n");
    fs::permissions(program, fs::perms::owner_all);
    const std::string layers = "lowerdir=" + (dir_ / "usr") + ":/usr";
    mounted_ = mount("overlay", "/usr", "overlay", MS_RDONLY, layers.c_str()) == 0;
  }
  ~NotifyDouble() {
    if (mounted_) {
      umount2("/usr", MNT_DETACH);
    }
  }
  NotifyDouble(const NotifyDouble&) = delete;
  NotifyDouble& operator=(const NotifyDouble&) = delete;

  bool mounted() const { return mounted_; }
  int Calls() const {
    std::ifstream calls(dir_ / "calls");
    int count = 0;
    for (std::string line; std::getline(calls, line);) {
      count += line.find("error:index_no_space") != std::string::npos ? 1 : 0;
    }
    return count;
  }

 private:
  const TempDir dir_;
  bool mounted_ = false;
};

TEST_F(IndexerFullVolume, AdministratorsAreToldOnceUntilThereWasRoomAgain) {
  constexpr size_t kForEvents = size_t{32} << 10;
  const NotifyDouble notify;
  if (!notify.mounted()) {
    GTEST_SKIP() << "no file system can be laid over another one";
  }
  StartWithFiles();
  for (int time = 1; time <= 2; ++time) {
    // What comes by a rename needs no room itself.
    const std::string large = OnFirst("large" + std::to_string(time));
    WriteFile(large, Words(time));
    Fill();
    fs::resize_file(OnFirst("ballast"), fs::file_size(OnFirst("ballast")) - kForEvents);
    fs::rename(large, Docs("large" + std::to_string(time) + ".txt"));
    ASSERT_TRUE(Eventually([] { return StateOf("docs") == "no_space"; })) << Command("status") << IndexerLog();
    EXPECT_TRUE(Eventually([&] { return notify.Calls() == time; }));
    for (int more = 0; more < 3; ++more) {
      Command("notify_setting_changed");  // has it try again
      usleep(500'000);
    }
    EXPECT_EQ(notify.Calls(), time);

    fs::remove(OnFirst("ballast"));
    ASSERT_TRUE(BecomesEqual(std::chrono::minutes(2)));
    ASSERT_TRUE(Eventually([] { return StateOf("docs") == "idle"; }));
  }
  EXPECT_EQ(StopIndexer(), 0);
  EXPECT_EQ(CountRecords("no_room"), 2);
}

TEST_F(IndexerVolume, NothingIsForgottenWhileAVolumeIsGone) {
  StartWithFiles();
  const IndexedTree before = InIndex();
  const std::string elsewhere = OnSecond("elsewhere");
  MakeFolder(elsewhere);
  ASSERT_EQ(mount(Volume().c_str(), elsewhere.c_str(), nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(umount2(Volume().c_str(), MNT_DETACH), 0);
  Command("notify_setting_changed");
  EXPECT_TRUE(Eventually([] { return StateOf("docs") == "offline"; }));
  EXPECT_FALSE(fs::exists(OnFirst("@fileindex")));

  WriteFile(elsewhere + "/docs/a.txt", "dipper");
  ASSERT_EQ(mount(elsewhere.c_str(), Volume().c_str(), nullptr, MS_BIND, nullptr), 0);

  EXPECT_TRUE(Eventually([] { return StateOf("docs") == "idle"; }));
  EXPECT_TRUE(BecomesEqual());
  EXPECT_EQ(InIndex().size(), before.size());
  Write("new.txt", "curlew");
  EXPECT_TRUE(BecomesEqual());
  umount2(elsewhere.c_str(), MNT_DETACH);
}

// A folder of the share's name lies below the volume, as somebody makes one who comes before the mount.
class IndexerMissingVolume : public IndexerVolume {
 protected:
  void MountVolume() override {
    MakeFolder(Docs());
    WriteFile(Docs("below.txt"), "plover");
    IndexerVolume::MountVolume();
    MakeFolder(elsewhere_);
    ASSERT_EQ(mount(Volume().c_str(), elsewhere_.c_str(), nullptr, MS_BIND, nullptr), 0);
  }
  void TearDown() override {
    umount2(elsewhere_.c_str(), MNT_DETACH);
    IndexerVolume::TearDown();
  }

  void Unmount() const { ASSERT_EQ(umount2(Volume().c_str(), MNT_DETACH), 0); }
  void MountAgain() const {
    ASSERT_EQ(mount(elsewhere_.c_str(), Volume().c_str(), nullptr, MS_BIND, nullptr), 0);
    Command("notify_setting_changed");
  }
  void WaitUntilOffline() const {
    Command("notify_setting_changed");
    ASSERT_TRUE(Eventually([] { return StateOf("docs") == "offline"; })) << Command("status");
  }
  ino_t Database() const {
    struct stat info {};
    return stat((elsewhere_ + "/@fileindex/docs/db/index.sqlite").c_str(), &info) == 0 ? info.st_ino : 0;
  }

  const TempDir place_;
  const std::string elsewhere_ = place_ / "elsewhere";
};

TEST_F(IndexerMissingVolume, AFolderBelowAnUnmountedVolumeIsNotTakenForTheShare) {
  StartWithFiles();
  const IndexedTree before = InIndex();

  Unmount();
  WaitUntilOffline();
  usleep(1'500'000);  // a retry or two

  EXPECT_EQ(InIndex(), before);
  MountAgain();
  EXPECT_TRUE(Eventually([] { return StateOf("docs") == "idle"; }));
  EXPECT_EQ(InIndex(), before);
}

TEST_F(IndexerMissingVolume, ADaemonThatStartsBeforeTheMountMakesNoIndexBelowIt) {
  StartWithFiles();
  const IndexedTree before = InIndex();
  const ino_t database = Database();
  ASSERT_NE(database, 0U);
  EXPECT_EQ(StopIndexer(), 0);
  KillSearchDaemon();
  Unmount();

  StartSearchDaemon();
  StartIndexer();
  WaitUntilOffline();
  usleep(1'500'000);

  EXPECT_FALSE(fs::exists(OnFirst("@fileindex/docs/db")));
  MountAgain();
  EXPECT_TRUE(Eventually([] { return StateOf("docs") == "idle"; }));
  EXPECT_EQ(InIndex(), before);
  EXPECT_EQ(Database(), database);
  EXPECT_EQ(StopIndexer(), 0);
  EXPECT_EQ(CountRecords("index_rebuilt"), 0);
}

TEST_F(IndexerMissingVolume, AVolumeThatGoesInTheMiddleOfAScanLosesNoDocument) {
  StartWithFiles();
  KillMonitor();
  for (int i = 0; i < 4'000; ++i) {
    Write("many/" + std::to_string(i) + ".txt", "word" + std::to_string(i));
  }
  fileindex::SendCommandToDaemon("worker_create", About("docs"));
  ASSERT_TRUE(Eventually([] { return StatusOf()["changed"].asUInt() > 100; }));

  Unmount();
  WaitUntilOffline();

  const IndexedTree while_gone = InIndex();
  EXPECT_LT(while_gone.size(), 4'000U);
  EXPECT_EQ(while_gone.count(Docs("below.txt")), 0U);
  EXPECT_EQ(while_gone.count(Docs("a.txt")), 1U);
  usleep(1'500'000);
  EXPECT_EQ(InIndex().size(), while_gone.size());
  MountAgain();
  EXPECT_TRUE(BecomesEqual(std::chrono::minutes(2)));
}

}  // namespace
}  // namespace orbisk::test
