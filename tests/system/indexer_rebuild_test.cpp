// An index that the indexing daemon makes anew: when, and what comes with it.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "orbisk/fileindex/index_mgr.h"
#include "tests/support/private_mounts.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class IndexerRebuild : public IndexerBox {
 protected:
  void StartWithFiles() {
    WriteFile(Docs("a.txt"), "kingfisher");
    MakeFolder(Docs("deep"));
    WriteFile(Docs("deep/b.txt"), "bittern");
    StartIndexer();
    ASSERT_TRUE(BecomesEqual());
    ASSERT_TRUE(BecomesIdle());
  }
  static bool BecomesIdle() {
    return Eventually([] { return StatusOf()["state"].asString() == "idle" && StatusOf()["backlog"] == 0; });
  }
  // The only one.
  static std::string Registration() {
    std::string text;
    for (const auto& file : fs::directory_iterator(kRegistrations)) {
      text += ReadFile(file.path());
    }
    return text;
  }
};

TEST_F(IndexerRebuild, OneWhoseDatabaseIsGoneFromItsFolderIsMadeAnew) {
  StartWithFiles();
  KillSearchDaemon();
  const std::string database = OnFirst("@fileindex/docs/db/index.sqlite");
  for (const char* const end : {"", "-wal", "-shm"}) {
    fs::remove(database + end);
  }
  ASSERT_TRUE(fs::exists(fs::path(database).parent_path()));

  StartSearchDaemon();
  WriteFile(Docs("a.txt"), "dipper");

  EXPECT_TRUE(BecomesEqual());
  EXPECT_EQ(StopIndexer(), 0);
  EXPECT_EQ(CountRecords("index_rebuilt"), 1);
}

TEST_F(IndexerRebuild, NothingIsRebuiltHoweverOftenTheDaemonsStart) {
  StartWithFiles();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(StopIndexer(), 0);
    KillSearchDaemon();
    StartSearchDaemon();
    StartIndexer();
    ASSERT_TRUE(BecomesIdle());
    WriteFile(Docs("a.txt"), "dipper" + std::to_string(i));
    EXPECT_TRUE(BecomesEqual());
  }

  EXPECT_EQ(StopIndexer(), 0);
  EXPECT_EQ(CountRecords("index_rebuilt") + CountRecords("index_outdated"), 0);
}

TEST_F(IndexerRebuild, TheRegistrationThatComesWithItIsWhatTheLibraryMakes) {
  SkipWithoutIdentities();
  if (IsSkipped()) {
    return;
  }
  WriteFolders({Entry("/docs/deep", "deep"), Entry("/docs", "all")});
  StartWithFiles();
  ASSERT_EQ(Fileindexctl({"monitor", "unregister", QueueOf("docs")}).exit_status, 0);  // the box's own
  fileindex::ShareRebuild("docs");
  const std::string wanted = Registration();
  ASSERT_NE(wanted.find("deep"), std::string::npos);
  ASSERT_TRUE(BecomesEqual());
  ASSERT_TRUE(BecomesIdle());

  fileindex::ShareAutoClean("docs");
  ASSERT_EQ(Registration(), "");
  ASSERT_EQ(Fileindexctl({"share", "unregister", "docs", "--force"}).exit_status, 0);
  ASSERT_TRUE(Eventually([] { return StatusOf()["problem"].asString() == "error 800: docs"; }));
  AddShare(Docs());

  EXPECT_TRUE(BecomesEqual());
  EXPECT_EQ(Registration(), wanted);
  EXPECT_EQ(StopIndexer(), 0);
  EXPECT_EQ(CountRecords("index_rebuilt"), 1);
}

// The share is of the kind that is mounted at its folder while it is unlocked.
class IndexerLocked : public IndexerRebuild {
 protected:
  void SetUp() override {
    IndexerRebuild::SetUp();
    MountBind(elsewhere_.path(), Docs());
    ASSERT_EQ(Fileindexctl({"share", "unregister", "docs", "--force"}).exit_status, 0);
    AddShare(Docs(), {"--encryption"});
    StartWithFiles();
    KillMonitor();  // it would tell of the mounts, too
  }
  void TearDown() override {
    umount2(Docs().c_str(), MNT_DETACH);
    IndexerRebuild::TearDown();
  }
  static bool BecomesOffline() {
    return Eventually([] { return StatusOf()["state"].asString() == "offline"; });
  }

  const TempDir elsewhere_;
};

TEST_F(IndexerLocked, AShareThatIsUnlockedIsComparedAsAWholeThoughNobodyToldOfChanges) {
  const IndexedTree before = InIndex();

  ASSERT_EQ(umount2(Docs().c_str(), MNT_DETACH), 0);
  Command("notify_setting_changed");
  EXPECT_TRUE(BecomesOffline());
  EXPECT_EQ(InIndex(), before);
  WriteFile(elsewhere_ / "a.txt", "dipper");
  WriteFile(elsewhere_ / "new.txt", "curlew");
  MountBind(elsewhere_.path(), Docs());

  EXPECT_TRUE(BecomesEqual());
  EXPECT_EQ(InIndex().size(), before.size() + 1);
}

}  // namespace
}  // namespace orbisk::test
