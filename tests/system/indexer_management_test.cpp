// The management operations with the indexing daemon running: the index follows.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

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

// The share "music" is made known by the operations alone.
class IndexerManagement : public IndexerBox {
 protected:
  void SetUp() override {
    SkipWithoutIdentities();
    if (IsSkipped()) {
      return;
    }
    IndexerBox::SetUp();
    AddShare(OnFirst("music"));
    WriteFile(OnFirst("music/a.txt"), "kingfisher");
    MakeFolder(OnFirst("music/deep"));
    WriteFile(OnFirst("music/deep/b.txt"), "bittern");
    StartIndexer();
    FolderAdd(ListOf({Entry("/music", "songs")}), false);
  }
  void TearDown() override {
    if (!IsSkipped()) {
      IndexerBox::TearDown();
    }
  }

  // To the index of "music"; 0 if it is answered.
  static int CodeOfAQuestion() {
    Json::Value request;
    request["command"] = "index_stat";
    request["data"]["id"] = elastic::GetFileIndexID("music");
    try {
      SendRequest(request);
      return 0;
    } catch (const Error& error) {
      return error.code();
    }
  }
};

TEST_F(IndexerManagement, AnAddedFolderIsIndexedAndWatched) {
  ASSERT_TRUE(BecomesEqual(kLimit, "music"));

  WriteFile(OnFirst("music/deep/b.txt"), "dipper");
  fs::rename(OnFirst("music/a.txt"), OnFirst("music/deep/a.txt"));

  EXPECT_TRUE(BecomesEqual(kLimit, "music"));
}

TEST_F(IndexerManagement, ADeletedFolderTakesItsIndexAndWorkerAlong) {
  ASSERT_TRUE(BecomesEqual(kLimit, "music"));

  FolderDelete("music");

  EXPECT_TRUE(Eventually([] { return Command("status")["success"].asBool() && StatusOf("music").isNull(); }));
  EXPECT_EQ(CodeOfAQuestion(), 1204);
  // Another share's work goes through the daemon after whatever it still had to do for this one.
  WriteFile(Docs("mark.txt"), "dunlin");
  EXPECT_TRUE(BecomesEqual());
  EXPECT_EQ(CodeOfAQuestion(), 1204);
}

TEST_F(IndexerManagement, KindsThatAreSwitchedOffAndOnFollow) {
  ASSERT_TRUE(BecomesEqual(kLimit, "music"));
  Json::Value entry = Entry("/music", "songs");
  entry["document"] = false;

  FolderSet(ListOf({entry}), false);
  EXPECT_TRUE(Eventually([this] {
    IndexedTree index = InIndex("music");
    return index.size() == OnDisk("music").size() && index[OnFirst("music/a.txt")].text.empty();
  }));

  FolderSet(ListOf({Entry("/music", "songs")}), false);
  EXPECT_TRUE(BecomesEqual(kLimit, "music"));
}

TEST_F(IndexerManagement, APausedShareCatchesUpWhenItIsResumed) {
  ASSERT_TRUE(BecomesEqual(kLimit, "music"));

  SharePause("music");
  WriteFile(OnFirst("music/a.txt"), "dipper");
  fs::remove_all(OnFirst("music/deep"));
  ShareResume("music");

  EXPECT_TRUE(BecomesEqual(kLimit, "music"));
}

TEST_F(IndexerManagement, ARebuiltShareIsIndexedAnew) {
  ASSERT_TRUE(BecomesEqual(kLimit, "music"));

  // Only a new index is without it: no comparison looks at what it has a current document of.
  Json::Value request;
  request["command"] = "document_set_by_id";
  request["data"]["id"] = elastic::GetFileIndexID("music");
  request["data"]["doc_id"] = OnFirst("music/a.txt");
  request["data"]["data"]["NIMOMDTextContent"] = "stray";
  SendRequest(request);
  elastic::IndexCommit("music");
  ASSERT_EQ(InIndex("music")[OnFirst("music/a.txt")].text, "stray");

  ShareRebuild("music");

  EXPECT_TRUE(BecomesEqual(kLimit, "music"));
}

TEST_F(IndexerManagement, ARenamedShareIsFoundUnderItsNewName) {
  ASSERT_TRUE(BecomesEqual(kLimit, "music"));
  SharePause("music");
  ASSERT_EQ(Fileindexctl({"share", "unregister", "music", "--force"}).exit_status, 0);
  fs::rename(OnFirst("music"), OnFirst("songs"));
  AddShare(OnFirst("songs"));

  ShareRename("music", "songs");
  ShareResume("songs");

  EXPECT_TRUE(BecomesEqual(kLimit, "songs"));
  WriteFile(OnFirst("songs/a.txt"), "dipper");
  EXPECT_TRUE(BecomesEqual(kLimit, "songs"));
}

TEST_F(IndexerManagement, AVolumeThatIsPausedAndResumedCatchesUp) {
  ASSERT_TRUE(BecomesEqual(kLimit, "music"));

  VolumePause(Volume());
  WriteFile(OnFirst("music/a.txt"), "dipper");
  usleep(500'000);
  EXPECT_EQ(InIndex("music")[OnFirst("music/a.txt")].text, "kingfisher");
  VolumeResume(Volume());

  EXPECT_TRUE(BecomesEqual(kLimit, "music"));
}

}  // namespace
}  // namespace orbisk::test
