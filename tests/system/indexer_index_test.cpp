// What the indexing daemon does about an index that is gone, damaged, or not the one that it should be.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "orbisk/comm.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/lock_file.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
namespace elastic = fileindex::elastic;

constexpr char kFoldersLock[] = "/tmp/orbisk_cfg_folder.lock";
constexpr char kConfigurationBusy[] = "the index has to be made anew; the configuration is being changed";

class IndexerIndex : public IndexerBox {
 protected:
  void StartWithFiles() {
    WriteFile(Docs("a.txt"), "kingfisher");
    MakeFolder(Docs("deep"));
    WriteFile(Docs("deep/b.txt"), "bittern");
    StartIndexer();
    ASSERT_TRUE(BecomesEqual());
    ASSERT_TRUE(Eventually(IsIdle));
  }

  // The daemon has tried to make it.
  static bool HasProblem(const std::string& problem) { return StatusOf()["problem"].asString().rfind(problem, 0) == 0; }
  // With what has changed in it meanwhile.
  void ExpectRebuiltOnce() {
    EXPECT_TRUE(BecomesEqual());
    EXPECT_EQ(StopIndexer(), 0);
    EXPECT_EQ(CountRecords("index_rebuilt"), 1);
  }

  std::string Database() const { return OnFirst("@fileindex/docs/db/index.sqlite"); }

  static Json::Value Ask(const std::string& command, Json::Value data = Json::Value(Json::objectValue)) {
    Json::Value request;
    request["command"] = command;
    data["id"] = elastic::GetFileIndexID("docs");
    request["data"] = std::move(data);
    Json::Value answer;
    SendRequest(answer, request);
    return answer["data"];
  }
  // Nothing while there is no index.
  static Json::Value Schema() {
    Json::Value data;
    data["schema"] = true;
    try {
      return Ask("index_stat", data);
    } catch (const Error&) {
      return Json::Value();
    }
  }
  static bool IsThere() {
    try {
      Ask("index_stat");
      return true;
    } catch (const Error&) {
      return false;
    }
  }

  // As the library makes it, but for the schema.
  void MakeIndex(const Json::Value& mappings, const Json::Value& settings) const {
    elastic::ShareIndexDelete("docs");
    Json::Value data;
    data["path"] = fs::path(Database()).parent_path().string();
    data["mappings"] = mappings;
    data["settings"] = settings;
    Ask("index_create", data);
  }
};

TEST_F(IndexerIndex, ADamagedOneIsMadeAnew) {
  StartWithFiles();
  KillSearchDaemon();
  fs::remove(Database() + "-wal");
  fs::remove(Database() + "-shm");
  std::fstream(Database(), std::ios::in | std::ios::out | std::ios::binary) << std::string(size_t{1} << 16, 'x');

  StartSearchDaemon();
  WriteFile(Docs("a.txt"), "dipper");

  ExpectRebuiltOnce();
}

TEST_F(IndexerIndex, OneWhoseFilesAreGoneIsMadeAnew) {
  StartWithFiles();
  KillSearchDaemon();
  fs::remove_all(fs::path(Database()).parent_path());

  StartSearchDaemon();
  WriteFile(Docs("a.txt"), "dipper");

  ExpectRebuiltOnce();
}

TEST_F(IndexerIndex, OneOfAnOlderSchemaIsMadeAnewOnce) {
  WriteFile(Docs("a.txt"), "kingfisher");
  Json::Value mappings = elastic::GetFileIndexMappings();
  mappings["properties"].removeMember("NIMOMDExtension");
  MakeIndex(mappings, elastic::GetFileIndexSettings());
  ASSERT_NE(Schema()["mappings"], elastic::GetFileIndexMappings());

  StartIndexer();

  EXPECT_TRUE(Eventually([] { return Schema()["mappings"] == elastic::GetFileIndexMappings(); }));
  ExpectRebuiltOnce();
}

TEST_F(IndexerIndex, OneOfOtherSettingsIsMadeAnew) {
  WriteFile(Docs("a.txt"), "kingfisher");
  Json::Value settings;
  settings["languages"].append("german");
  MakeIndex(elastic::GetFileIndexMappings(), settings);

  StartIndexer();

  EXPECT_TRUE(Eventually([] { return Schema()["settings"] == elastic::GetFileIndexSettings(); }));
  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerIndex, OneOfThePresentSchemaIsKept) {
  StartWithFiles();
  EXPECT_EQ(StopIndexer(), 0);
  EXPECT_EQ(CountRecords("index_rebuilt"), 0);
  StartIndexer();
  ASSERT_TRUE(Eventually(IsIdle));

  WriteFile(Docs("a.txt"), "dipper");

  EXPECT_TRUE(BecomesEqual());
  EXPECT_EQ(StopIndexer(), 0);
  EXPECT_EQ(CountRecords("index_rebuilt"), 0);
}

TEST_F(IndexerIndex, OneThatIsBeingTakenOutOfTheConfigurationStaysGone) {
  StartWithFiles();
  std::optional<LockFile> lock(std::in_place, kFoldersLock, true);
  elastic::ShareIndexDelete("docs");
  WriteFile(Docs("a.txt"), "dipper");

  ASSERT_TRUE(Eventually([] { return HasProblem(kConfigurationBusy); })) << StatusOf();
  EXPECT_FALSE(IsThere());
  WriteFolders({});
  lock.reset();

  EXPECT_TRUE(Eventually([] { return StatusOf().isNull() && Command("status")["success"].asBool(); })) << StatusOf();
  EXPECT_FALSE(IsThere());
}

TEST_F(IndexerIndex, OneThatWasDeletedByMistakeComesBackWhenTheConfigurationIsFree) {
  StartWithFiles();
  std::optional<LockFile> lock(std::in_place, kFoldersLock, true);
  elastic::ShareIndexDelete("docs");
  WriteFile(Docs("a.txt"), "dipper");
  ASSERT_TRUE(Eventually([] { return HasProblem(kConfigurationBusy); })) << StatusOf();
  EXPECT_FALSE(IsThere());

  lock.reset();

  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerIndex, OneThatWasCleanedAwayComesBackWithItsRegistrationWhenTheShareHasBeenAway) {
  SkipWithoutIdentities();
  if (IsSkipped()) {
    return;
  }
  StartWithFiles();
  ASSERT_EQ(Fileindexctl({"monitor", "unregister", QueueOf("docs")}).exit_status, 0);  // the box's own
  fileindex::ShareAutoClean("docs");
  Command("notify_setting_changed");

  ASSERT_TRUE(Eventually([] { return HasProblem("the index was cleaned away;"); })) << StatusOf();
  EXPECT_FALSE(IsThere());
  EXPECT_EQ(StatusOf()["state"].asString(), "offline");
  ASSERT_EQ(Fileindexctl({"share", "unregister", "docs", "--force"}).exit_status, 0);
  ASSERT_TRUE(Eventually([] { return StatusOf()["problem"].asString() == "error 800: docs"; }));
  AddShare(Docs());

  EXPECT_TRUE(BecomesEqual());
  WriteFile(Docs("a.txt"), "dipper");
  EXPECT_TRUE(BecomesEqual());
}

}  // namespace
}  // namespace orbisk::test
