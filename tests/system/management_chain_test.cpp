// The management operations on stock Linux: the real library, search daemon and platform; the indexing daemon is a
// double.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/status_mgr.h"
#include "tests/support/indexer_double.h"
#include "tests/support/json_list.h"
#include "tests/support/subprocess.h"
#include "tests/system/search_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using namespace fileindex;  // NOLINT(google-build-using-namespace): what the test is about

std::set<std::string> ConfiguredPaths() {
  Json::Value answer;
  FolderList(answer, 0, 1000, "path", "", "all", "", ListOf({}));
  std::set<std::string> paths;
  for (const Json::Value& folder : answer["folder"]) {
    paths.insert(folder["path"].asString());
  }
  return paths;
}

class ManagementChain : public RoomyBox {
 protected:
  static bool HasIndex(const std::string& share) {
    try {
      std::vector<std::string> paths;
      elastic::IndexGetByPrefixPath(elastic::GetFileIndexID(share), "/", paths);
      return true;
    } catch (const Error&) {
      return false;
    }
  }
  // The registered folders of all queues.
  static std::string Registrations() {
    std::string text;
    std::error_code missing;
    for (const auto& file : fs::directory_iterator(kRegistrations, missing)) {
      text += ReadFile(file.path());
    }
    return text;
  }
  const IndexerDouble indexer_;
};

TEST_F(ManagementChain, AFolderThatIsAddedHasAnIndexARegistrationAndAnEventAndLeavesNothingWhenDeleted) {
  AddShare(OnRoomy("photo"));
  MakeFolder(OnRoomy("photo/2019"));

  FolderAdd(ListOf({Entry("/photo/2019", "Pictures")}), false);

  EXPECT_TRUE(HasIndex("photo"));
  EXPECT_NE(std::string::npos, Registrations().find("\"path\":\"" + OnRoomy("photo/2019") + "\""));
  const std::string queue = OnRoomy("@fileindex/photo/queue");
  EXPECT_EQ(R"({"data":{"audio":true,"document":true,"photo":true,"video":true},"event":131072,"path":")" +
                OnRoomy("photo/2019") + "\",\"path_old\":\"\"}\n",
            ReadFile(queue));
  EXPECT_EQ((std::set<std::string>{"/photo/2019"}), ConfiguredPaths());

  FolderDelete("photo");

  EXPECT_FALSE(HasIndex("photo"));
  EXPECT_EQ("", Registrations());
  EXPECT_FALSE(fs::exists(queue));
  EXPECT_FALSE(fs::exists(OnRoomy("@fileindex/photo/db")));
  EXPECT_EQ(std::set<std::string>{}, ConfiguredPaths());
  EXPECT_EQ(2U, indexer_.commands().size());
}

TEST_F(ManagementChain, AShareIsPausedResumedRebuiltAndMoved) {
  AddShare(OnRoomy("photo"));
  FolderAdd(ListOf({Entry("/photo", "Pictures")}), false);
  WriteFile(OnRoomy("photo/a.txt"), "unmistakable");
  elastic::IndexUpsert("photo", OnRoomy("photo/a.txt"), true);
  elastic::IndexCommit("photo");

  SharePause("photo");
  EXPECT_FALSE(HasIndex("photo"));
  EXPECT_EQ("", Registrations());
  ShareResume("photo");
  EXPECT_TRUE(HasIndex("photo"));
  EXPECT_NE("", Registrations());

  fs::rename(OnRoomy("photo"), OnRoomy("pictures"));
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "photo", "--force"})));
  AddShare(OnRoomy("pictures"));
  ShareRename("photo", "pictures");
  EXPECT_FALSE(HasIndex("photo"));
  EXPECT_EQ((std::set<std::string>{"/pictures"}), ConfiguredPaths());
  std::vector<std::string> paths;
  elastic::IndexGetByPrefixPath("fileindex_pictures", OnRoomy("photo"), paths);
  EXPECT_EQ((std::vector<std::string>{OnRoomy("photo/a.txt")}), paths) << "the indexing daemon moves the documents";

  ShareRebuild("pictures");
  paths.clear();
  elastic::IndexGetByPrefixPath("fileindex_pictures", "", paths);
  EXPECT_TRUE(paths.empty());
}

TEST_F(ManagementChain, AShareThatNeverHadAnIndexTakesEvents) {
  AddShare(OnRoomy("photo"));

  ShareCheckRecycle("photo");

  EXPECT_EQ(R"({"data":null,"event":65536,"path":")" + OnRoomy("photo/#recycle") + "\",\"path_old\":\"\"}\n",
            ReadFile(OnRoomy("@fileindex/photo/queue")));
  EXPECT_EQ(0, StatusMgr().GetShareStatus("photo"));
}

TEST_F(ManagementChain, TermSuggestionsAreBuiltFromTheDocumentsOfTheFolders) {
  AddShare(OnRoomy("photo"));
  FolderAdd(ListOf({Entry("/photo", "Pictures")}), false);
  WriteFile(OnRoomy("photo/a.txt"), "unmistakable unmistakably");
  elastic::IndexUpsert("photo", OnRoomy("photo/a.txt"), true);
  elastic::IndexCommit("photo");

  std::vector<std::string> unavailable;
  elastic::ListUnAvailTermSuggDB(unavailable);
  ASSERT_EQ((std::vector<std::string>{"fileindex_photo"}), unavailable);

  UpdateTermSuggestion();

  EXPECT_FALSE(fs::exists(OnRoomy("@fileindex/photo/db/term.sugg.running")));
  unavailable.clear();
  elastic::ListUnAvailTermSuggDB(unavailable);
  EXPECT_TRUE(unavailable.empty());
}

TEST_F(ManagementChain, TwoProcessesWithAHundredChangesEachLoseNone) {
  constexpr int kChanges = 100;  // of which half are taken back
  AddShare(OnRoomy("photo"));
  std::set<std::string> expected;
  for (const char* const who : {"ann", "bob"}) {
    for (int i = 0; i < kChanges; ++i) {
      const std::string name = std::string("photo/") + who + "-" + std::to_string(i);
      MakeFolder(OnRoomy(name));
      if (i % 2 == 0) {
        expected.insert("/" + name);
      }
    }
  }

  Subprocess ann({ProgramBeside("folder_worker"), "/photo/ann", std::to_string(kChanges)});
  Subprocess bob({ProgramBeside("folder_worker"), "/photo/bob", std::to_string(kChanges)});
  const ProcessResult first = ann.Wait(std::chrono::seconds(240));
  const ProcessResult second = bob.Wait(std::chrono::seconds(240));

  EXPECT_EQ(0, first.exit_status) << first.errors;
  EXPECT_EQ(0, second.exit_status) << second.errors;
  EXPECT_EQ(expected, ConfiguredPaths());
}

}  // namespace
}  // namespace orbisk::test
