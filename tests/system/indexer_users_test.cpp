// Accounts, homes, recycle bins, and shares that move or are forgotten, with the indexing daemon running: the index
// follows.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "nimo/home.h"
#include "orbisk/comm.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/index_mgr.h"
#include "tests/support/json_list.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using namespace fileindex;  // NOLINT(google-build-using-namespace): what the test is about

constexpr std::chrono::seconds kLimit{30};
constexpr int kNoSuchIndex = 1204;

bool IsAtOrBelow(const std::string& path, const std::vector<std::string>& folders) {
  return std::any_of(folders.begin(), folders.end(),
                     [&path](const std::string& folder) { return (path + "/").rfind(folder + "/", 0) == 0; });
}

class IndexerUsers : public IndexerBox {
 protected:
  void SetUp() override {
    SkipWithoutIdentities();
    if (!IsSkipped()) {
      IndexerBox::SetUp();
    }
  }
  void TearDown() override {
    if (!IsSkipped()) {
      IndexerBox::TearDown();
    }
  }

  static void Write(const std::string& path, const std::string& text) {
    MakeFolder(fs::path(path).parent_path());
    WriteFile(path, text);
  }

  // A share with two files, which is made known by the operations alone.
  void AddMusic() {
    AddShare(OnFirst("music"));
    Write(OnFirst("music/a.txt"), "kingfisher");
    Write(OnFirst("music/deep/b.txt"), "bittern");
    StartIndexer();
    FolderAdd(ListOf({Entry("/music", "songs")}), false);
    ASSERT_TRUE(BecomesEqual(kLimit, "music"));
  }

  // What is on disk of a share on the first volume and at or below one of `folders`.
  IndexedTree OnDiskAt(const std::string& share, const std::vector<std::string>& folders) const {
    IndexedTree tree;
    for (const auto& [path, what] : OnDisk(share)) {
      if (IsAtOrBelow(path, folders)) {
        tree[path] = what;
      }
    }
    return tree;
  }
  // What is on disk of a share on the first volume and neither at nor below one of `folders`.
  IndexedTree OnDiskBut(const std::string& share, const std::vector<std::string>& folders) const {
    IndexedTree tree = OnDisk(share);
    for (const auto& [path, what] : OnDiskAt(share, folders)) {
      tree.erase(path);
    }
    return tree;
  }
  // As a document that was made while the path was none of a recycle bin.
  static void Plant(const std::string& share, const std::string& path) {
    Write(path, "dipper");
    elastic::IndexUpsert(share, path, true);
    elastic::IndexCommit(share);
  }

  static int CodeOfAQuestion(const std::string& share) {
    Json::Value request;
    request["command"] = "index_stat";
    request["data"]["id"] = elastic::GetFileIndexID(share);
    try {
      SendRequest(request);
      return 0;
    } catch (const Error& error) {
      return error.code();
    }
  }
  static bool HasWorker(const std::string& share) {
    const Json::Value status = Command("status");
    EXPECT_TRUE(status["success"].asBool());
    for (const Json::Value& one : status["data"]["shares"]) {
      if (one["share"].asString() == share) {
        return true;
      }
    }
    return false;
  }
};

TEST_F(IndexerUsers, AUserWhoIsRenamedIsFoundUnderTheNewPathAlone) {
  AddShare(OnFirst("homes"));
  Write(OnFirst("homes/ann/a.txt"), "kingfisher");
  Write(OnFirst("homes/ann/deep/b.txt"), "bittern");
  Write(OnFirst("homes/anna/c.txt"), "heron");
  const auto indexed = [this] {
    return OnDiskAt("homes", {OnFirst("homes/ann"), OnFirst("homes/anna"), OnFirst("homes/bob")});
  };
  StartIndexer();
  FolderAdd(ListOf({Entry("/homes/ann", "Ann"), Entry("/homes/anna", "Anna")}), false);
  ASSERT_TRUE(BecomesEqualTo(indexed, kLimit, "homes"));

  fs::rename(OnFirst("homes/ann"), OnFirst("homes/bob"));
  UserRename("ann", "bob");

  EXPECT_TRUE(BecomesEqualTo(indexed, kLimit, "homes"));
  EXPECT_EQ(InIndex("homes").count(OnFirst("homes/bob/deep/b.txt")), 1U);
  Write(OnFirst("homes/bob/a.txt"), "dipper");
  EXPECT_TRUE(BecomesEqualTo(indexed, kLimit, "homes"));
}

TEST_F(IndexerUsers, BinsOfHomesAreFoundNoMoreWhenHomesAreSwitched) {
  AddShare(OnFirst("homes"));
  Write(OnFirst("homes/root/a.txt"), "kingfisher");
  Write(OnFirst("homes/stranger/b.txt"), "bittern");
  StartIndexer();
  FolderAdd(ListOf({Entry("/homes", "Homes")}), false);
  ASSERT_TRUE(BecomesEqual(kLimit, "homes"));
  const IndexedTree without_bins = OnDisk("homes");
  const std::string known = OnFirst("homes/root/#recycle");
  const std::string unknown = OnFirst("homes/stranger/#recycle");
  KillMonitor();  // which would tell of the bins itself
  ASSERT_TRUE(Eventually([] { return StatusOf("homes")["state"] == "idle" && StatusOf("homes")["backlog"] == 0; }));
  Plant("homes", known + "/gone.txt");
  Plant("homes", unknown + "/gone.txt");

  HomeEnable(AUTH_LOCAL);
  EXPECT_TRUE(Eventually([&] { return InIndex("homes").count(known + "/gone.txt") == 0; }, kLimit));
  EXPECT_EQ(InIndex("homes").count(unknown + "/gone.txt"), 1U);

  HomeDisable(AUTH_LOCAL);
  EXPECT_TRUE(BecomesEqualTo([&] { return without_bins; }, kLimit, "homes"));
}

TEST_F(IndexerUsers, AMigratedShareGoesOnAtItsNewPlace) {
  AddMusic();
  SharePause("music");
  fs::copy(OnFirst("music"), OnSecond("music"), fs::copy_options::recursive);
  ASSERT_EQ(Fileindexctl({"share", "unregister", "music", "--force"}).exit_status, 0);
  AddShare(OnSecond("music"));
  const auto moved = [this] {
    IndexedTree tree;
    for (const auto& [path, what] : OnDisk("music")) {
      tree[OnSecond("music") + path.substr(OnFirst("music").size())] = what;
    }
    return tree;
  };

  ShareMigrate("music", OnFirst("music"), OnSecond("music"));
  ShareResume("music");

  EXPECT_TRUE(BecomesEqualTo(moved, kLimit, "music"));
  EXPECT_TRUE(fs::exists(OnSecond("@fileindex/music/db/index.sqlite")));
  EXPECT_FALSE(fs::exists(OnFirst("@fileindex/music/db")));
  for (const std::string& file : {OnFirst("music/a.txt"), OnSecond("music/a.txt")}) {
    WriteFile(file, "dipper");
  }
  EXPECT_TRUE(BecomesEqualTo(moved, kLimit, "music"));
}

TEST_F(IndexerUsers, RecycledFilesAreNotFound) {
  AddMusic();
  const std::string bin = OnFirst("music/#recycle");
  Write(bin + "/gone.txt", "dipper");
  ASSERT_TRUE(BecomesEqual(kLimit, "music"));

  ASSERT_EQ(Fileindexctl({"share", "register", "music", OnFirst("music"), "--recycle"}).exit_status, 0);
  ShareCheckRecycle("music");

  EXPECT_TRUE(BecomesEqualTo([&] { return OnDiskBut("music", {bin}); }, kLimit, "music"));

  ASSERT_EQ(Fileindexctl({"share", "register", "music", OnFirst("music")}).exit_status, 0);
  ShareCheckRecycle("music");

  EXPECT_TRUE(BecomesEqual(kLimit, "music"));
}

TEST_F(IndexerUsers, APausedShareThatIsForgottenLeavesNothing) {
  AddMusic();
  SharePause("music");
  ASSERT_EQ(Fileindexctl({"share", "unregister", "music", "--force"}).exit_status, 0);

  ShareClearPaused("music", OnFirst("music"));

  EXPECT_EQ(CodeOfAQuestion("music"), kNoSuchIndex);
  EXPECT_TRUE(Eventually([] { return !HasWorker("music"); }));
  EXPECT_FALSE(fs::exists(OnFirst("@fileindex/music/db")));
  EXPECT_FALSE(fs::exists(OnFirst("@fileindex/music/queue")));
  // Another share's work goes through the daemon after whatever it still had to do for this one.
  WriteFile(Docs("mark.txt"), "dunlin");
  EXPECT_TRUE(BecomesEqual());
  EXPECT_EQ(CodeOfAQuestion("music"), kNoSuchIndex);
}

TEST_F(IndexerUsers, AVolumeThatIsForgottenTakesItsSharesAlong) {
  AddMusic();
  AddIndexedShare(OnSecond("photo"));
  WriteFolders({Entry("/docs", "all"), Entry("/music", "songs"), Entry("/photo", "pictures")});
  ASSERT_EQ(Fileindexctl({"monitor", "register", QueueOf("photo"), OnSecond("photo")}).exit_status, 0);
  VolumePause(Volume());

  VolumeClearPaused(Volume());

  for (const char* const share : {"docs", "music"}) {
    EXPECT_TRUE(Eventually([share] { return !HasWorker(share); })) << share;
    EXPECT_EQ(CodeOfAQuestion(share), kNoSuchIndex) << share;
  }
  // The share on the other volume goes on, behind whatever was still to be done for these.
  Write(OnSecond("photo/a.txt"), "whinchat");
  EXPECT_TRUE(Eventually([] { return Find({"whinchat"}).size() == 1; }, kLimit));
  for (const char* const share : {"docs", "music"}) {
    EXPECT_EQ(CodeOfAQuestion(share), kNoSuchIndex) << share;
  }
}

}  // namespace
}  // namespace orbisk::test
