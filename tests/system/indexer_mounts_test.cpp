// Shares that mounts lock, unlock, and make read-only, and what changes before the monitor looks at a share.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/index_mgr.h"
#include "tests/support/temp_dir.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

constexpr std::chrono::seconds kLimit{30};

class IndexerMounts : public IndexerBox {
 protected:
  static std::string StateOf(const std::string& share) { return StatusOf(share)["state"].asString(); }

  // "vault" on the first volume, whose content is what is mounted there.
  void AddVault() {
    AddShare(OnFirst("vault"), {"--encryption"});
    content_ = OnSecond("content");
    MakeFolder(content_);
    WriteFile(content_ + "/a.txt", "kingfisher");
    Mount();
    fileindex::elastic::ShareIndexCreate("vault");
    ASSERT_EQ(Fileindexctl({"monitor", "register", QueueOf("vault"), OnFirst("vault")}).exit_status, 0);
    WriteFolders({Entry("/docs", "all"), Entry("/vault", "secret")});
    StartIndexer();
    ASSERT_TRUE(BecomesEqual(kLimit, "vault"));
    KillMonitor();  // which would write to the queue after a mount
  }
  void TearDown() override {
    umount2(OnFirst("vault").c_str(), MNT_DETACH);
    IndexerBox::TearDown();
  }

  void Mount() const { ASSERT_EQ(mount(content_.c_str(), OnFirst("vault").c_str(), nullptr, MS_BIND, nullptr), 0); }
  void SetWritable(bool writable) const {
    unsigned long flags = MS_REMOUNT | MS_BIND;
    flags |= writable ? 0UL : static_cast<unsigned long>(MS_RDONLY);
    ASSERT_EQ(mount(nullptr, OnFirst("vault").c_str(), nullptr, flags, nullptr), 0);
  }

  std::string content_;
};

TEST_F(IndexerMounts, AShareThatAMountUnlocksIsLookedAtByItself) {
  AddVault();
  const IndexedTree before = InIndex("vault");
  ASSERT_EQ(umount2(OnFirst("vault").c_str(), MNT_DETACH), 0);
  Command("notify_setting_changed");
  ASSERT_TRUE(Eventually([] { return StateOf("vault") == "offline"; }));
  EXPECT_EQ(InIndex("vault"), before);

  WriteFile(content_ + "/a.txt", "dipper");
  WriteFile(content_ + "/b.txt", "wagtail");
  Mount();

  EXPECT_TRUE(Eventually([] { return StateOf("vault") == "idle"; }));
  StartMonitor();
  EXPECT_TRUE(BecomesEqual(kLimit, "vault"));
}

TEST_F(IndexerMounts, AShareThatBecomesWritableIsLookedAtByItself) {
  AddVault();
  SetWritable(false);
  WriteFile(content_ + "/b.txt", "wagtail");
  Command("notify_setting_changed");
  ASSERT_TRUE(Eventually([] { return StateOf("vault") == "offline"; }));

  SetWritable(true);

  EXPECT_TRUE(Eventually([] { return StateOf("vault") == "idle"; }));
  StartMonitor();
  EXPECT_TRUE(BecomesEqual(kLimit, "vault"));
}

// As a volume is resumed: its workers first, then the monitor.
TEST_F(IndexerMounts, WhatChangesBeforeTheMonitorLooksIsIndexed) {
  WriteFile(Docs("a.txt"), "kingfisher");
  StartIndexer();
  ASSERT_TRUE(BecomesEqual());
  ASSERT_EQ(Fileindexctl({"monitor", "unregister", QueueOf("docs")}).exit_status, 0);

  ASSERT_TRUE(Command("worker_create", About("docs"))["success"].asBool());
  ASSERT_TRUE(Eventually([] { return StatusOf()["passes"].asInt() > 1 && StateOf("docs") == "idle"; }));
  WriteFile(Docs("a.txt"), "dipper");
  ASSERT_EQ(Fileindexctl({"monitor", "register", QueueOf("docs"), Docs()}).exit_status, 0);

  EXPECT_TRUE(BecomesEqual());
}

}  // namespace
}  // namespace orbisk::test
