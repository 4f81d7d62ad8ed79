// "fileindexctl folder" and the program as a whole, run on a box with folders, queues and a pause.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/indexer_double.h"
#include "tests/support/private_mounts.h"
#include "tests/system/fileindexctl_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

// Three shares on two volumes with some indexed folders, in an order that no sorting gives.
class FolderCommand : public Box {
 protected:
  void SetUp() override {
    Box::SetUp();
    AddShare(OnFirst("photo"), {"--recycle"});
    AddShare(OnFirst("Music"));
    AddShare(OnSecond("docs"));
    MakeFolder(OnFirst("photo/2019"));
    photo_["document"] = false;
    photo_["group"] = "family";
    music_["audio"] = false;
    music_["owner"] = "ann";
    WriteFolders({photo_, year_, docs_, music_});
  }

  Json::Value photo_ = Entry("/photo", "beta");
  Json::Value year_ = Entry("/photo/2019", "Alpha");
  Json::Value docs_ = Entry("/docs", "gamma");
  Json::Value music_ = Entry("/Music", "Delta Alpha");
};

class StoredStatus : public FolderCommand {
 protected:
  void SetUp() override {
    FolderCommand::SetUp();
    SkipWithoutIdentities();
  }
};

// The paths that "folder list" gives, with "| offset/total" behind them.
std::vector<std::string> List(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"folder", "list", "--json"});
  const ProcessResult result = Fileindexctl(arguments);
  EXPECT_EQ(result.exit_status, 0) << result.errors;
  const Json::Value answer = Parse(result.output);
  EXPECT_THAT(answer.getMemberNames(), ElementsAre("folder", "offset", "total"));
  std::vector<std::string> paths;
  for (const Json::Value& folder : answer["folder"]) {
    paths.push_back(folder["path"].asString());
  }
  paths.push_back("| " + answer["offset"].asString() + "/" + answer["total"].asString());
  return paths;
}

// The status of one folder as "text" or "text desc".
std::string StatusOf(const std::string& path) {
  const ProcessResult result = Fileindexctl({"folder", "get", "--status", "--json", path});
  EXPECT_EQ(result.exit_status, 0) << result.errors;
  const Json::Value status = Parse(result.output)["additional"]["status"];
  return status["text"].asString() + (status.isMember("desc") ? " " + status["desc"].asString() : "");
}

TEST_F(FolderCommand, ABoxWithoutFoldersListsNone) {
  fs::remove(kFoldersFile);

  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "list", "--json"}), "{\"folder\":[],\"offset\":0,\"total\":0}\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "list", "--status"}),
                       "PATH  NAME  KINDS  GROUP  OWNER  STATUS\n0 of 0 folders\n"));
}

TEST_F(FolderCommand, ListSortsWithoutRegardToCase) {
  EXPECT_THAT(List({}), ElementsAre("/photo/2019", "/photo", "/Music", "/docs", "| 0/4"));
  EXPECT_THAT(List({"--desc"}), ElementsAre("/docs", "/Music", "/photo", "/photo/2019", "| 0/4"));
  EXPECT_THAT(List({"--sort", "path"}), ElementsAre("/docs", "/Music", "/photo", "/photo/2019", "| 0/4"));
  EXPECT_EQ(List({"--sort", "document"})[0], "/photo");
  EXPECT_EQ(List({"--sort", "document", "--desc"})[3], "/photo");
  EXPECT_EQ(List({"--sort", "audio"})[0], "/Music");
}

TEST_F(FolderCommand, ListKeepsWhatIsAskedFor) {
  EXPECT_THAT(List({"--group", "family"}), ElementsAre("/photo", "| 0/1"));
  EXPECT_THAT(List({"--group", ""}), ElementsAre("/photo/2019", "/Music", "/docs", "| 0/3"));
  EXPECT_THAT(List({"--group", "nobody"}), ElementsAre("| 0/0"));
  EXPECT_THAT(List({"--keyword", " aLPHa "}), ElementsAre("/photo/2019", "/Music", "| 0/2"));
  EXPECT_EQ(List({"--keyword", "  "}).size(), 5U);
  EXPECT_THAT(List({"--keyword", "photo"}), ElementsAre("| 0/0"));
}

TEST_F(FolderCommand, ListPages) {
  EXPECT_THAT(List({"--offset", "1", "--limit", "2"}), ElementsAre("/photo", "/Music", "| 1/4"));
  EXPECT_THAT(List({"--offset", "9"}), ElementsAre("| 9/4"));
  EXPECT_THAT(List({"--limit", "0"}), ElementsAre("| 0/4"));
}

TEST_F(FolderCommand, ListIsATableForPeople) {
  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "list", "--limit", "3", "--status"}),
                       "PATH         NAME         KINDS                       GROUP   OWNER  STATUS\n"
                       "/photo/2019  Alpha        document,audio,video,photo  -       -      finished\n"
                       "/photo       beta         audio,video,photo           family  -      finished\n"
                       "/Music       Delta Alpha  document,video,photo        -       ann    finished\n"
                       "3 of 4 folders\n"));
}

TEST_F(FolderCommand, GetGivesAFolderAsItIsStored) {
  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "get", "--json", "/Music"}),
                       R"({"audio":false,"document":true,"group":"","name":"Delta Alpha","owner":"ann",)"
                       R"("path":"/Music","paused":false,"photo":true,"privileged":false,"video":true,)"
                       R"("volume_to_be_clean":""})"
                       "\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "get", "/photo", "--status"}),
                       "path:                  /photo\n"
                       "name:                  beta\n"
                       "kinds:                 audio,video,photo\n"
                       "group:                 family\n"
                       "owner:                 -\n"
                       "privileged:            no\n"
                       "paused:                no\n"
                       "volume to be cleaned:  -\n"
                       "status:                finished\n"));
}

TEST_F(FolderCommand, GettingAFolderThatIsNotIndexedFails) {
  EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "get", "/photo/"}),
                        "fileindexctl: error 902: /photo/ (no such indexed folder)"));
}

TEST_F(FolderCommand, ChangesThatWaitBelowAFolderAreProcessing) {
  WriteFile(QueueOf("photo"),
            R"({"event":4,"is_dir":false,"path":")" + OnFirst("photo/2019/a.jpg") + R"(","path_old":""})" + "\n");

  EXPECT_EQ(StatusOf("/photo"), "processing");
  EXPECT_EQ(StatusOf("/photo/2019"), "processing");
  EXPECT_EQ(StatusOf("/Music"), "finished");
}

TEST_F(FolderCommand, ABatchInWorkIsProcessing) {
  WriteFile(QueueOf("photo") + ".tmp",
            R"({"event":4,"is_dir":false,"path":")" + OnFirst("photo/a.jpg") + R"(","path_old":""})" + "\n");

  EXPECT_EQ(StatusOf("/photo"), "processing");
  EXPECT_EQ(StatusOf("/photo/2019"), "finished");
}

TEST_F(StoredStatus, APauseShowsWhereWorkWaitsUntilItIsResumed) {
  const IndexerDouble daemon;
  WriteFile(QueueOf("photo"),
            R"({"event":4,"is_dir":false,"path":")" + OnFirst("photo/2019/a.jpg") + R"(","path_old":""})" + "\n");

  ASSERT_TRUE(Succeeds(Fileindexctl({"pause", "1"})));
  EXPECT_EQ(StatusOf("/photo/2019"), "paused");
  ASSERT_TRUE(Succeeds(Fileindexctl({"pause"})));
  EXPECT_EQ(StatusOf("/photo/2019"), "paused");
  EXPECT_EQ(StatusOf("/docs"), "finished");
  ASSERT_TRUE(Succeeds(Fileindexctl({"resume"})));
  EXPECT_EQ(StatusOf("/photo/2019"), "processing");
}

TEST_F(StoredStatus, AShareThatNeedsAReindexSaysSoBeforeAnythingElse) {
  WriteFile(QueueOf("docs"), "rubbish\n");
  ASSERT_EQ(Fileindexctl({"event", "add", "reindex", OnSecond("docs")}).exit_status, 1);
  fs::remove(QueueOf("docs"));

  EXPECT_EQ(StatusOf("/docs"), "need_reindex");
  EXPECT_EQ(StatusOf("/photo"), "finished");
}

TEST_F(FolderCommand, AQueueThatCannotBeReadIsAnErrorThatNamesTheFolder) {
  WriteFile(QueueOf("docs"), "rubbish\n");

  EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "list", "--status"}),
                        "fileindexctl: error 906: Malformed event_raw: rubbish (indexed folder /docs)"));
}

// Whatever "path check" refuses is an error here.
TEST_F(FolderCommand, FoldersThatMayNotBeIndexedAreErrors) {
  AddShare(OnSecond("vault"), {"--encryption"});
  AddShare(OnSecond("open"), {"--encryption"});
  MountEmptyFileSystem(OnSecond("open"), 1 << 20);
  for (const char* const folder : {"photo/#recycle/old", "photo/#snapshot/daily", "photo/disk", "photo/.git"}) {
    MakeFolder(OnFirst(folder));
  }
  MountEmptyFileSystem(OnFirst("photo/disk"), 1 << 20);
  fs::create_directory_symlink(OnFirst("photo/2019"), OnFirst("photo/link"));
  WriteFolders({Entry("/photo/#recycle/old", "bin"), Entry("/photo/#snapshot/daily", "snapshot"),
                Entry("/photo/disk", "mount"), Entry("/photo/.git", "name"), Entry("/photo/link", "link"),
                Entry("/photo/gone", "missing"), Entry("/vault", "locked"), Entry("/open", "open"),
                Entry("/photo/2019", "plain")});

  const Json::Value answer = Parse(Fileindexctl({"folder", "list", "--status", "--json"}).output);

  ASSERT_EQ(answer["folder"].size(), 9U);
  for (const Json::Value& folder : answer["folder"]) {
    const std::string name = folder["name"].asString();
    const bool is_fine = name == "open" || name == "plain";
    const Json::Value& status = folder["additional"]["status"];
    EXPECT_EQ(status["text"].asString(), is_fine ? "finished" : "error") << name;
    EXPECT_EQ(status["desc"].asString(), is_fine ? "" : "invalid_path") << name;
  }
  EXPECT_THAT(Fileindexctl({"folder", "list", "--status"}).output, HasSubstr("  error: invalid_path\n"));
}

TEST_F(FolderCommand, AnErrorBeatsTheNeedForAReindexAndThatBeatsAPause) {
  WriteFile(kStatusFile, R"({"resume_time":0,"share":{"photo":1}})");
  WriteFile(QueueOf("photo"),
            R"({"event":4,"is_dir":false,"path":")" + OnFirst("photo/2019/a.jpg") + R"(","path_old":""})" + "\n");
  WriteFolders({Entry("/photo/2019", "a"), Entry("/photo/gone", "b")});

  EXPECT_EQ(StatusOf("/photo/2019"), "need_reindex");
  EXPECT_EQ(StatusOf("/photo/gone"), "error invalid_path");
}

TEST_F(FolderCommand, AFolderOfAShareThatIsGoneFailsTheListAndIsNamed) {
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "docs", "--force"})));

  EXPECT_TRUE(FailsWith(
      Fileindexctl({"folder", "list", "--status"}),
      "fileindexctl: error 800: docs (indexed folder /docs) (no such share, though folders of it are indexed; "
      "'fileindexctl share clear-paused docs PATH --force' forgets it)"));
  EXPECT_EQ(List({}).size(), 5U);
}

TEST_F(FolderCommand, ABadEntryWrittenByHandIsSaidWithItsPlace) {
  const std::string file = kFoldersFile;
  const auto fails = [&](const std::string& entry, const std::string& reason) {
    WriteFile(file,
              R"([{"path":"/docs","name":"d","document":true,"audio":true,"video":true,"photo":true},)" + entry + "]");
    return FailsWith(Fileindexctl({"folder", "list"}),
                     "fileindexctl: error 120: " + reason + " (entry 2 of " + file + ")");
  };

  EXPECT_TRUE(fails("7", "Not an object, data=7"));
  EXPECT_TRUE(fails(R"({"path":"/a"})", R"(Missing property: name, data={"path":"/a"})"));
  EXPECT_TRUE(fails(R"({"name":"a","path":[]})", R"(Not a string, data={"name":"a","path":[]})"));
  EXPECT_TRUE(fails(R"({"path":"/a","name":"a","document":true,"audio":true,"video":true,"photo":true,"group":"all"})",
                    "\"all\" is reserved group name"));
}

TEST_F(FolderCommand, AnEntryThatIsNoSharePathIsNamedWhenItsStatusIsAsked) {
  WriteFolders({Entry("photo/2019", "n")});

  EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "list", "--status"}),
                        "fileindexctl: error 120: not a share path: it does not begin with \"/\" (indexed folder "
                        "photo/2019)"));
}

TEST_F(FolderCommand, AFoldersFileThatIsNoListOfFoldersIsNamed) {
  const std::string error = std::string("fileindexctl: error 504: Cannot load json: ") + kFoldersFile;
  for (const char* const text : {"[{", "{}", "7", ""}) {
    WriteFile(kFoldersFile, text);
    EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "list"}), error)) << text;
    EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "get", "/photo"}), error)) << text;
  }
}

TEST_F(FolderCommand, OddNamesStayOnOneLineForPeopleAndWholeForPrograms) {
  const std::string name = "a\nb\xff";
  MakeFolder(OnFirst("photo/" + name));
  WriteFolders({Entry("/photo/" + name, name)});

  EXPECT_THAT(Fileindexctl({"folder", "list", "--status"}).output, HasSubstr("\n/photo/a\\nb\xff  a\\nb\xff  "));
  EXPECT_THAT(Fileindexctl({"folder", "list", "--json"}).output, HasSubstr("\"path\":\"/photo/a\\nb\xff\""));
  EXPECT_EQ(Fileindexctl({"folder", "get", "/photo/" + name, "--status"}).exit_status, 0);
}

TEST_F(FolderCommand, WrongUsageIsStatusTwo) {
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"folder"}), "A subcommand is required"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"folder", "get"}), "PATH is required"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"folder", "list", "--limit", "-1"}), "--limit: not a number from 0: -1"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"folder", "list", "--offset", "99999999999999999999"}),
                           "--offset: not a number from 0: 99999999999999999999"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"folder", "list", "--sort", "size"}),
                           "--sort: size not in {name,path,document,audio,video,photo}"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"folders"}), "No such command: folders"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({}), "A subcommand is required"));
}

}  // namespace
}  // namespace orbisk::test
