// The commands that change what is indexed, run as a program with the real search daemon; the indexing daemon is a
// double.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/util.h"
#include "tests/support/eventually.h"
#include "tests/support/indexer_double.h"
#include "tests/support/lock_holder.h"
#include "tests/system/search_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr char kNobodyToAsk[] = "fileindexctl: nothing was done: this needs --yes where nobody can be asked";
constexpr char kFoldersLock[] = "/tmp/orbisk_cfg_folder.lock";
constexpr char kStored[] = "(the change is stored, and the indexing daemon follows when it runs)";

std::string WorkerCommand(const std::string& type) {
  return R"({"data":{"share_name":"photo"},"type":")" + type + "\"}";
}

// Types `answer` at a terminal on which the command runs.
ProcessResult AtTerminal(const std::string& command, const std::string& answer) {
  Subprocess terminal({"script", "-qec", BuiltProgram("fileindexctl") + " " + command, "/dev/null"});
  terminal.Write(answer + "\n");
  return terminal.Wait(std::chrono::seconds(60));
}

// Hears of a file's being opened from here on.
class OpenedFile {
 public:
  explicit OpenedFile(const std::string& path) : descriptor_(inotify_init1(IN_CLOEXEC)) {
    EXPECT_GE(inotify_add_watch(descriptor_, path.c_str(), IN_OPEN), 0);
  }
  ~OpenedFile() { close(descriptor_); }
  OpenedFile(const OpenedFile&) = delete;
  OpenedFile& operator=(const OpenedFile&) = delete;

  // False if nobody opens it for long.
  bool Wait() const {
    pollfd event{descriptor_, POLLIN, 0};
    return poll(&event, 1, 60'000) == 1;
  }

 private:
  int descriptor_;
};

// A share "photo" with a folder and room, of which nothing is indexed.
class ManagementCommand : public RoomyBox {
 protected:
  void SetUp() override {
    RoomyBox::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
      return;
    }
    AddShare(OnRoomy("photo"));
    MakeFolder(OnRoomy("photo/2019"));
  }

  std::string Queue() const {
    const std::string queue = OnRoomy("@fileindex/photo/queue");
    return fs::exists(queue) ? ReadFile(queue) : "";
  }
  void EmptyQueue() const { WriteFile(OnRoomy("@fileindex/photo/queue"), ""); }

  // The commands that the indexing daemon got since it was asked last.
  std::vector<std::string> NewCommands() {
    const std::vector<std::string> all = indexer_->commands();
    const std::vector<std::string> news(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
    seen_ = all.size();
    return news;
  }

  void AddPhoto() {
    ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/photo"})));
    EmptyQueue();
    NewCommands();
  }

  static Json::Value Get(const std::string& path) {
    return Parse(Fileindexctl({"folder", "get", "--json", path}).output);
  }
  // Of the share's index: "open", "paused", or "" if there is none.
  static std::string IndexState() {
    for (const Json::Value& index : Parse(Fileindexctl({"index", "list", "--json"}).output)) {
      if (index["id"] == "fileindex_photo") {
        return index["state"].asString();
      }
    }
    return "";
  }
  void StopIndexer() { indexer_.reset(); }
  static bool IsRegistered() { return fs::exists(kRegistrations) && !fs::is_empty(kRegistrations); }

 private:
  std::optional<IndexerDouble> indexer_{std::in_place};
  size_t seen_ = 0;
};

TEST_F(ManagementCommand, AnAddedFolderHasAllKindsAndItsOwnNameAndIsIndexed) {
  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/photo/2019"})));

  const Json::Value folder = Get("/photo/2019");
  EXPECT_EQ(folder["name"], "2019");
  for (const char* const kind : {"document", "audio", "video", "photo"}) {
    EXPECT_TRUE(folder[kind].asBool()) << kind;
  }
  EXPECT_FALSE(folder["privileged"].asBool());
  EXPECT_EQ(IndexState(), "open");
  EXPECT_TRUE(IsRegistered());
  EXPECT_THAT(Queue(), HasSubstr(OnRoomy("photo/2019")));
  EXPECT_THAT(NewCommands(),
              ElementsAre(R"({"data":{"is_upsert":true,"share_name":"photo"},"type":"notify_setting_changed"})"));
}

TEST_F(ManagementCommand, AddStoresWhatIsGiven) {
  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/photo", "--name", "All", "--kinds", "photo,video", "--group",
                                     "family", "--owner", "ann", "--privileged"})));

  const Json::Value folder = Get("/photo");
  EXPECT_EQ(folder["name"], "All");
  EXPECT_EQ(folder["group"], "family");
  EXPECT_EQ(folder["owner"], "ann");
  EXPECT_TRUE(folder["privileged"].asBool());
  EXPECT_TRUE(folder["photo"].asBool() && folder["video"].asBool());
  EXPECT_FALSE(folder["document"].asBool() || folder["audio"].asBool());
}

TEST_F(ManagementCommand, AnUpgradeAddsWithoutLookingAtThePathAndQueuesNothing) {
  EXPECT_TRUE(
      FailsWith(Fileindexctl({"folder", "add", "/photo/gone"}),
                "fileindexctl: error 903: Path cannot index: /photo/gone ('fileindexctl path check --share-path PATH' "
                "says why)"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/photo/gone", "--updater"})));

  EXPECT_EQ(Get("/photo/gone")["name"], "gone");
  EXPECT_EQ(Queue(), "");
}

TEST_F(ManagementCommand, AFolderThatCannotBeAddedIsRefusedWithTheReason) {
  AddPhoto();
  const std::string before = ReadFile(kFoldersFile);

  EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "add", "/photo"}),
                        "fileindexctl: error 901: Duplicated ID: /photo (this folder is indexed already; "
                        "'fileindexctl folder set' changes it)"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"folder", "add", "/photo/"}), "PATH: not a plain share path: /photo/"));
  EXPECT_EQ(Fileindexctl({"folder", "add", "/nowhere"}).exit_status, 1);
  EXPECT_EQ(Fileindexctl({"folder", "add", "/photo/2019", "--kinds", "books"}).exit_status, 2);

  EXPECT_EQ(ReadFile(kFoldersFile), before);
  EXPECT_THAT(NewCommands(), IsEmpty());
}

TEST_F(ManagementCommand, AddMakesTheIndexAnewThatAKilledAddLeft) {
  WriteFile(OnRoomy("photo/a.txt"), "heron");
  fileindex::elastic::ShareIndexCreate("photo");
  fileindex::elastic::IndexUpsert("photo", OnRoomy("photo/a.txt"), true);
  fileindex::elastic::IndexCommit("photo");
  ASSERT_THAT(Find({"heron"}), ElementsAre(OnRoomy("photo/a.txt")));

  const ProcessResult result = Fileindexctl({"folder", "add", "/photo/2019"});

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.errors, "fileindexctl: an index of the share photo was left over; it is made anew\n");
  EXPECT_EQ(Get("/photo/2019")["name"], "2019");
  EXPECT_THAT(Find({"heron"}), IsEmpty());
}

TEST_F(ManagementCommand, ALeftOverIndexIsAllThatAddClearsAway) {
  fileindex::elastic::ShareIndexCreate("photo");
  QueueOf("photo");
  fileindex::AddCustomEvent(fileindex::EVENT_REINDEX, OnRoomy("photo/2019"), "", Json::Value());
  const std::string queue = Queue();

  const ProcessResult result = Fileindexctl({"folder", "add", "/photo"});

  EXPECT_EQ(result.exit_status, 0) << result.errors;
  EXPECT_THAT(Queue(), AllOf(Not(queue), StartsWith(queue)));
  EXPECT_TRUE(IsRegistered());
}

TEST_F(ManagementCommand, WhatNeedsAnIndexMakesTheOneThatIsMissing) {
  AddPhoto();
  const std::string volume = OnRoomy("photo").substr(0, OnRoomy("photo").rfind('/'));
  const std::vector<std::vector<std::string>> commands = {{"share", "pause", "photo"},
                                                          {"share", "resume", "photo"},
                                                          {"share", "rebuild", "photo", "--yes"},
                                                          {"volume", "resume", volume},
                                                          {"folder", "delete", "/photo", "--yes"}};
  for (const std::vector<std::string>& command : commands) {
    ASSERT_TRUE(Succeeds(Fileindexctl({"index", "delete", "photo", "--yes"})));

    const ProcessResult result = Fileindexctl(command);

    EXPECT_EQ(result.exit_status, 0) << result.errors;
    EXPECT_EQ(result.errors, "fileindexctl: the index of the share photo was missing; a new one is made\n");
  }
  EXPECT_EQ(IndexState(), "");
  EXPECT_EQ(ReadFile(kFoldersFile), "[]");
}

TEST_F(ManagementCommand, AMissingIndexIsMadeOnlyWhereTheShareIs) {
  AddPhoto();
  ASSERT_TRUE(Succeeds(Fileindexctl({"index", "delete", "photo", "--yes"})));
  fs::remove_all(OnRoomy("photo"));
  fs::remove_all(OnRoomy("@fileindex"));

  const ProcessResult result = Fileindexctl({"share", "resume", "photo"});

  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.errors, StartsWith("fileindexctl: error 1204"));
  EXPECT_EQ(IndexState(), "");
  EXPECT_FALSE(fs::exists(OnRoomy("@fileindex")));
}

TEST_F(ManagementCommand, AMissingIndexIsMadeWhenNobodyElseChangesTheConfiguration) {
  AddPhoto();
  ASSERT_TRUE(Succeeds(Fileindexctl({"index", "delete", "photo", "--yes"})));
  LockHolder holder(kFoldersLock);
  const OpenedFile opened(kFoldersLock);

  Subprocess resume({BuiltProgram("fileindexctl"), "share", "resume", "photo"});

  EXPECT_TRUE(opened.Wait());
  EXPECT_EQ(IndexState(), "");
  holder.Release();
  EXPECT_EQ(resume.Wait(std::chrono::seconds(120)).exit_status, 0);
  EXPECT_EQ(IndexState(), "open");
}

TEST_F(ManagementCommand, AnIndexWhoseFilesAreGoneIsMadeAnew) {
  AddPhoto();
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "pause", "photo"})));
  KillSearchDaemon();
  fs::remove_all(OnRoomy("@fileindex/photo/db"));
  StartSearchDaemon();

  const ProcessResult result = Fileindexctl({"share", "resume", "photo"});

  EXPECT_EQ(result.exit_status, 0) << result.errors;
  EXPECT_EQ(result.errors, "fileindexctl: the index of the share photo was missing; a new one is made\n");
  EXPECT_EQ(IndexState(), "open");
}

TEST_F(ManagementCommand, SetChangesWhatIsGivenAndKeepsTheRest) {
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/photo", "--group", "family", "--privileged"})));
  EmptyQueue();

  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "set", "/photo", "--kinds", "audio", "--name", "Sounds"})));

  Json::Value folder = Get("/photo");
  EXPECT_EQ(folder["name"], "Sounds");
  EXPECT_EQ(folder["group"], "family");
  EXPECT_TRUE(folder["privileged"].asBool());
  EXPECT_TRUE(folder["audio"].asBool());
  EXPECT_FALSE(folder["photo"].asBool());
  EXPECT_THAT(Queue(), HasSubstr(R"({"audio":false,"document":true,"photo":true,"video":true})"));

  EXPECT_TRUE(Succeeds(Fileindexctl(
      {"folder", "set", "/photo", "--kinds", "none", "--group", "", "--owner", "bob", "--no-privileged"})));
  folder = Get("/photo");
  EXPECT_EQ(folder["group"], "");
  EXPECT_EQ(folder["owner"], "bob");
  EXPECT_FALSE(folder["privileged"].asBool());
  EXPECT_FALSE(folder["audio"].asBool());
}

TEST_F(ManagementCommand, SetRefusesAFolderThatIsNotIndexed) {
  EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "set", "/photo", "--name", "x"}),
                        "fileindexctl: error 902: /photo (no such indexed folder)"));
  EXPECT_FALSE(fs::exists(kFoldersFile));
}

TEST_F(ManagementCommand, DeleteTakesThePathsAndTheIndexThatIsLeftWithoutAny) {
  AddPhoto();
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/photo/2019"})));

  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "delete", "/photo/2019", "--yes"})));
  EXPECT_EQ(IndexState(), "open");
  EXPECT_EQ(ReadFile(kFoldersFile).find("2019"), std::string::npos);
  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "delete", "/photo", "-y"})));

  EXPECT_EQ(IndexState(), "");
  EXPECT_FALSE(IsRegistered());
  EXPECT_EQ(ReadFile(kFoldersFile), "[]");
}

TEST_F(ManagementCommand, DeleteOfAShareTakesAllItsFolders) {
  AddPhoto();
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/photo/2019"})));

  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "delete", "--share", "photo", "--yes"})));

  EXPECT_EQ(ReadFile(kFoldersFile), "[]");
  EXPECT_EQ(IndexState(), "");
  EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "delete", "--share", "photo", "--yes"}),
                        "fileindexctl: no folder of this share is indexed: photo"));
}

TEST_F(ManagementCommand, DeleteRefusesUnknownFoldersUnlessForcedToCleanUpBehindThem) {
  AddPhoto();
  WriteFile(kFoldersFile, "[]");

  EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "delete", "/photo", "--yes"}),
                        "fileindexctl: error 902: /photo (no such indexed folder)"));
  EXPECT_EQ(IndexState(), "open");
  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "delete", "/photo", "--yes", "--force"})));

  EXPECT_EQ(IndexState(), "");
}

TEST_F(ManagementCommand, WhatDestroysDoesNothingWithoutYesWhereNobodyCanBeAsked) {
  AddPhoto();
  const std::string photo = OnRoomy("photo");
  ASSERT_TRUE(Succeeds(Fileindexctl({"volume", "pause", fs::path(photo).parent_path()})));
  const std::string before = ReadFile(kFoldersFile);

  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"folder", "delete", "/photo"},
                                             {"folder", "delete", "--share", "photo"},
                                             {"share", "rebuild", "photo"},
                                             {"share", "clear-paused", "photo", photo, "--force"},
                                             {"share", "auto-clean", "photo"},
                                             {"volume", "clear-paused", fs::path(photo).parent_path()}}) {
    EXPECT_TRUE(FailsWith(Fileindexctl(command), kNobodyToAsk)) << command[0] << " " << command[1];
  }

  EXPECT_EQ(ReadFile(kFoldersFile), before);
  EXPECT_EQ(IndexState(), "open");
  EXPECT_THAT(NewCommands(), IsEmpty());
  EXPECT_EQ(Queue(), "");
}

TEST_F(ManagementCommand, AtATerminalWhatDestroysAsksAndOnlyYesIsYes) {
  AddPhoto();

  for (const char* const no : {"", "n", "yesterday"}) {
    const ProcessResult refused = AtTerminal("folder delete /photo", no);
    EXPECT_EQ(refused.exit_status, 1);
    EXPECT_THAT(refused.output, AllOf(HasSubstr("Stop indexing /photo and delete what the index has of it? [y/N] "),
                                      HasSubstr("fileindexctl: nothing was done\r\n")));
  }
  EXPECT_EQ(IndexState(), "open");

  EXPECT_EQ(AtTerminal("folder delete /photo", "y").exit_status, 0);
  EXPECT_EQ(IndexState(), "");
}

TEST_F(ManagementCommand, ReindexQueuesAComparisonAndRefusesWhatIsInNoIndex) {
  EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "reindex", "/photo/2019"}),
                        "fileindexctl: /photo/2019: no folder of the share is indexed"));
  AddPhoto();

  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "reindex", "/photo/2019"})));

  EXPECT_THAT(Queue(), HasSubstr("\"event\":65536,\"path\":\"" + OnRoomy("photo/2019") + "\""));
}

TEST_F(ManagementCommand, GroupsAndSummaryTellHowFarEverythingIs) {
  MakeFolder(OnRoomy("photo/2020"));
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/photo", "--name", "Pictures"})));
  EmptyQueue();
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/photo/2019", "--group", "years"})));
  EmptyQueue();
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/photo/2020", "--group", "a\nb"})));

  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "groups"}), "a\\nb\nyears\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"folder", "groups", "--json"}), "[\"a\\nb\",\"years\"]\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"summary"}),
                       "NAME      KIND    STATUS\n"
                       "Pictures  folder  processing\n"
                       "a\\nb      group   processing\n"
                       "years     group   finished\n"
                       "all together: processing\n"));
  EmptyQueue();
  const Json::Value summary = Parse(Fileindexctl({"summary", "--json"}).output);
  EXPECT_EQ(summary["status"], "finished");
  EXPECT_EQ(summary["items"].size(), 3U);
}

TEST_F(ManagementCommand, APausedShareIsOutOfWorkUntilItIsResumed) {
  AddPhoto();

  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "pause", "photo"})));
  EXPECT_EQ(IndexState(), "paused");
  EXPECT_FALSE(IsRegistered());
  EXPECT_TRUE(Get("/photo")["paused"].asBool());
  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "resume", "photo"})));

  EXPECT_EQ(IndexState(), "open");
  EXPECT_TRUE(IsRegistered());
  EXPECT_FALSE(Get("/photo")["paused"].asBool());
  EXPECT_THAT(NewCommands(), ElementsAre(WorkerCommand("worker_delete"), WorkerCommand("worker_create")));
}

TEST_F(ManagementCommand, RebuildMakesANewIndexAndHasItFilled) {
  AddPhoto();
  Index("photo", OnRoomy("photo/a.txt"), "kingfisher");
  fileindex::elastic::IndexCommit("photo");
  const auto documents = [] {
    return Parse(Fileindexctl({"index", "stat", "photo", "--json"}).output)["documents"].asInt();
  };
  ASSERT_EQ(documents(), 1);

  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "rebuild", "photo", "--yes"})));

  EXPECT_EQ(documents(), 0);
  EXPECT_THAT(Queue(), HasSubstr("\"event\":65536"));
  EXPECT_THAT(NewCommands(), ElementsAre(WorkerCommand("worker_create")));
}

TEST_F(ManagementCommand, OperationsOnAShareThatIsNotIndexedSaySo) {
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"share", "pause", "photo"},
                                             {"share", "resume", "photo"},
                                             {"share", "rebuild", "photo", "--yes"},
                                             {"share", "auto-clean", "photo", "--yes"},
                                             {"share", "check-recycle", "photo"},
                                             {"share", "clear-paused", "photo", OnRoomy("photo"), "--yes"},
                                             {"share", "migrate", "photo", "/a/photo", "/b/photo"}}) {
    EXPECT_TRUE(FailsWith(Fileindexctl(command), "fileindexctl: no folder of this share is indexed: photo"))
        << command[1];
  }
  EXPECT_THAT(NewCommands(), IsEmpty());
  EXPECT_EQ(Queue(), "");
}

TEST_F(ManagementCommand, ARenamedShareKeepsItsFoldersAndItsIndex) {
  AddPhoto();
  fs::rename(OnRoomy("photo"), OnRoomy("pictures"));
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "photo", "--force"})));
  AddShare(OnRoomy("pictures"));

  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "rename", "photo", "pictures"})));

  EXPECT_EQ(Get("/pictures")["path"], "/pictures");
  EXPECT_EQ(IndexState(), "");
  EXPECT_THAT(Fileindexctl({"index", "list"}).output, HasSubstr("fileindex_pictures  open"));
}

TEST_F(ManagementCommand, AMigratedShareTakesItsIndexAlong) {
  AddPhoto();
  const std::string from = OnRoomy("photo");
  fs::create_directory(OnFirst("photo"));
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "photo", "--force"})));
  AddShare(OnFirst("photo"));
  QueueOf("photo");

  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "migrate", "photo", from, OnFirst("photo")})));

  EXPECT_THAT(Fileindexctl({"index", "list"}).output, HasSubstr(OnFirst("@fileindex/photo/db")));
  EXPECT_THAT(ReadFile(QueueOf("photo")), HasSubstr("\"path_old\":\"" + from + "\""));
}

TEST_F(ManagementCommand, ClearPausedForgetsAShareThatIsGone) {
  AddPhoto();
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "pause", "photo"})));
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "photo", "--force"})));

  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "clear-paused", "photo", OnRoomy("photo"), "--yes"})));

  EXPECT_EQ(ReadFile(kFoldersFile), "[]");
  EXPECT_EQ(IndexState(), "");
}

TEST_F(ManagementCommand, ClearPausedBelievesOnlyWhatFitsTheShares) {
  AddPhoto();
  AddShare(OnRoomy("music"));
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/music"})));
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "pause", "music"})));
  WriteFile(OnRoomy("@fileindex/photo/queue"), "waiting");
  const std::string photo = OnRoomy("photo");
  const std::string before = ReadFile(kFoldersFile);
  const auto refused = [](const std::vector<std::string>& arguments, const std::string& reason) {
    std::vector<std::string> command = {"share", "clear-paused", "--yes"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return FailsWith(Fileindexctl(command), "fileindexctl: " + reason);
  };

  EXPECT_TRUE(refused({"phto", photo}, photo + " is the share photo"));
  EXPECT_TRUE(refused({"phto", photo, "--force"}, photo + " is the share photo"));
  EXPECT_TRUE(refused({"music", photo}, "the share music is at " + OnRoomy("music") + ", not at " + photo));
  EXPECT_TRUE(refused({"music", OnFirst("music"), "--force"},
                      "the share music is at " + OnRoomy("music") + ", not at " + OnFirst("music")));
  EXPECT_TRUE(refused({"gone", OnRoomy("elsewhere"), "--force"},
                      "the path " + OnRoomy("elsewhere") + " does not end in the share's name gone"));
  EXPECT_TRUE(refused({"gone", OnRoomy("gone")}, "no folder of this share is indexed: gone"));
  EXPECT_TRUE(refused({"photo", photo}, "the folder /photo is not paused; --force forgets the share nevertheless"));

  EXPECT_EQ(ReadFile(kFoldersFile), before);
  EXPECT_EQ(Queue(), "waiting");
  EXPECT_TRUE(fs::exists(OnRoomy("@fileindex/photo/db")));
  EXPECT_TRUE(fs::exists(OnRoomy("@fileindex/music/db")));
  EXPECT_EQ(IndexState(), "open");
}

TEST_F(ManagementCommand, ForceForgetsAShareThatIsNotPaused) {
  AddPhoto();
  ASSERT_TRUE(IsRegistered());

  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "clear-paused", "photo", OnRoomy("photo"), "--yes", "--force"})));

  EXPECT_EQ(ReadFile(kFoldersFile), "[]");
  EXPECT_EQ(IndexState(), "");
  EXPECT_FALSE(IsRegistered());
}

TEST_F(ManagementCommand, AShareIsNotUnregisteredWhileItIsIndexed) {
  AddPhoto();
  constexpr char kGone[] =
      "fileindexctl: error 800: photo (no such share, though folders of it are indexed; 'fileindexctl share "
      "clear-paused photo PATH --force' forgets it)";

  EXPECT_TRUE(FailsWith(Fileindexctl({"share", "unregister", "photo"}),
                        "fileindexctl: folders of the share photo are indexed; 'fileindexctl folder delete --share "
                        "photo' ends that, and --force unregisters it nevertheless"));
  EXPECT_THAT(Fileindexctl({"share", "list"}).output, HasSubstr("photo"));
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "photo", "--force"})));
  EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "delete", "/photo", "--yes"}), kGone));
  EXPECT_TRUE(FailsWith(Fileindexctl({"summary"}), kGone));
  EXPECT_TRUE(FailsWith(Fileindexctl({"share", "show", "pho"}), "fileindexctl: error 800: pho (no such share)"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "clear-paused", "photo", OnRoomy("photo"), "--yes", "--force"})));

  EXPECT_TRUE(Succeeds(Fileindexctl({"summary"}), "NAME  KIND  STATUS\nall together: finished\n"));
}

TEST_F(ManagementCommand, ClearPausedForgetsAShareThatIsGoneWithItsIndex) {
  AddPhoto();
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "pause", "photo"})));
  ASSERT_TRUE(Succeeds(Fileindexctl({"index", "delete", "photo", "--yes"})));
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "photo", "--force"})));

  const ProcessResult result = Fileindexctl({"share", "clear-paused", "photo", OnRoomy("photo"), "--yes"});

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.errors, "fileindexctl: the index of the share photo was missing; the share is forgotten\n");
  EXPECT_EQ(ReadFile(kFoldersFile), "[]");
  EXPECT_FALSE(fs::exists(OnRoomy("@fileindex/photo/db")));
}

TEST_F(ManagementCommand, AutoCleanTakesTheIndexAndLeavesTheFoldersConfigured) {
  AddPhoto();

  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "auto-clean", "photo", "--yes"})));

  EXPECT_EQ(IndexState(), "");
  EXPECT_FALSE(IsRegistered());
  EXPECT_EQ(Get("/photo")["path"], "/photo");
}

TEST_F(ManagementCommand, CheckRecycleHasTheBinCompared) {
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "register", "photo", OnRoomy("photo"), "--recycle"})));
  AddPhoto();

  EXPECT_TRUE(Succeeds(Fileindexctl({"share", "check-recycle", "photo"})));

  EXPECT_THAT(Queue(), HasSubstr("\"path\":\"" + OnRoomy("photo/#recycle") + "\""));
}

TEST_F(ManagementCommand, AVolumeIsPausedResumedAndForgotten) {
  AddPhoto();
  const std::string volume = fs::path(OnRoomy("photo")).parent_path();

  EXPECT_TRUE(Succeeds(Fileindexctl({"volume", "pause", volume})));
  EXPECT_TRUE(Get("/photo")["paused"].asBool());
  EXPECT_EQ(Get("/photo")["volume_to_be_clean"], volume);
  EXPECT_FALSE(IsRegistered());
  EXPECT_TRUE(Succeeds(Fileindexctl({"volume", "resume", volume})));
  EXPECT_FALSE(Get("/photo")["paused"].asBool());
  EXPECT_TRUE(IsRegistered());

  ASSERT_TRUE(Succeeds(Fileindexctl({"volume", "pause", volume})));
  EXPECT_TRUE(Succeeds(Fileindexctl({"volume", "clear-paused", volume, "--yes"})));
  EXPECT_EQ(ReadFile(kFoldersFile), "[]");
  EXPECT_EQ(IndexState(), "");
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"volume", "pause", volume + "/"}),
                           "MOUNT_POINT: not a plain full path: " + volume + "/"));
}

TEST_F(ManagementCommand, AVolumeWhoseSharesAreRegisteredNoMoreIsForgotten) {
  AddPhoto();
  const std::string volume = fs::path(OnRoomy("photo")).parent_path();
  ASSERT_TRUE(Succeeds(Fileindexctl({"volume", "pause", volume})));
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "photo", "--force"})));

  EXPECT_TRUE(Succeeds(Fileindexctl({"volume", "clear-paused", volume, "--yes"})));

  EXPECT_EQ(ReadFile(kFoldersFile), "[]");
  EXPECT_EQ(IndexState(), "");
}

TEST_F(ManagementCommand, OnlyTheSharesOfTheVolumeAreForgottenThoughOthersAreGone) {
  AddPhoto();
  AddShare(OnFirst("music"));
  Json::Value folders = Parse(ReadFile(kFoldersFile));
  WriteFolders({folders[0], Entry("/music", "Music")});
  const std::string volume = fs::path(OnRoomy("photo")).parent_path();
  ASSERT_TRUE(Succeeds(Fileindexctl({"volume", "pause", volume})));
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "photo", "--force"})));
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "music", "--force"})));

  EXPECT_TRUE(Succeeds(Fileindexctl({"volume", "clear-paused", volume, "--yes"})));

  folders = Parse(ReadFile(kFoldersFile));
  ASSERT_EQ(folders.size(), 1U);
  EXPECT_EQ(folders[0]["path"], "/music");
  EXPECT_EQ(IndexState(), "");
}

TEST_F(ManagementCommand, AVolumeWithoutIndexedFoldersIsRefused) {
  AddPhoto();
  const std::string volume = fs::path(OnRoomy("photo")).parent_path();
  const std::string misspelt = volume + "1";
  const std::string before = ReadFile(kFoldersFile);

  for (const char* const operation : {"pause", "resume"}) {
    EXPECT_TRUE(FailsWith(Fileindexctl({"volume", operation, misspelt}),
                          "fileindexctl: no indexed folder lies on " + misspelt));
  }
  for (const std::string& not_paused : {misspelt, volume}) {
    EXPECT_TRUE(FailsWith(Fileindexctl({"volume", "clear-paused", not_paused, "--yes"}),
                          "fileindexctl: no folder was paused with the volume " + not_paused));
  }

  EXPECT_EQ(ReadFile(kFoldersFile), before);
  EXPECT_EQ(IndexState(), "open");
}

TEST_F(ManagementCommand, AVolumeIsForgottenThoughAnIndexIsMissing) {
  AddPhoto();
  AddShare(OnRoomy("music"));
  AddShare(OnRoomy("video"));
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/music"})));
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/video"})));
  const std::string volume = fs::path(OnRoomy("photo")).parent_path();
  ASSERT_TRUE(Succeeds(Fileindexctl({"volume", "pause", volume})));
  ASSERT_TRUE(Succeeds(Fileindexctl({"index", "delete", "photo", "--yes"})));
  ASSERT_TRUE(Succeeds(Fileindexctl({"share", "unregister", "photo", "--force"})));

  const ProcessResult result = Fileindexctl({"volume", "clear-paused", volume, "--yes"});

  EXPECT_EQ(result.exit_status, 0) << result.errors;
  EXPECT_THAT(result.errors, HasSubstr("the index of the share photo was missing; the share is forgotten\n"));
  EXPECT_EQ(ReadFile(kFoldersFile), "[]");
  EXPECT_EQ(Fileindexctl({"index", "list", "--json"}).output, "[]\n");
}

TEST_F(ManagementCommand, SuggestUpdateBuildsWhatSuggestAnswersFrom) {
  AddPhoto();
  Index("photo", OnRoomy("photo/a.txt"), "kingfisher");
  fileindex::elastic::IndexCommit("photo");
  ASSERT_TRUE(Succeeds(Fileindexctl({"suggest", "king"})));

  EXPECT_TRUE(Succeeds(Fileindexctl({"suggest", "update"})));

  EXPECT_TRUE(Succeeds(Fileindexctl({"suggest", "king"}), "kingfisher\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"suggest", "--", "update"})));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"suggest"}), "PREFIX is required"));
}

TEST_F(ManagementCommand, ARenamedAccountTakesTheFoldersOfItsHomeAlong) {
  AddShare(OnRoomy("homes"));
  MakeFolder(OnRoomy("homes/ann"));
  MakeFolder(OnRoomy("homes/bob"));
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/homes/ann"})));

  EXPECT_TRUE(Succeeds(Fileindexctl({"user", "rename", "ann", "bob"})));

  EXPECT_EQ(Get("/homes/bob")["path"], "/homes/bob");
}

TEST_F(ManagementCommand, HomesHaveTheirRecycleBinsComparedByKindOfAccount) {
  AddShare(OnRoomy("homes"), {"--recycle"});
  MakeFolder(OnRoomy("homes/root/#recycle"));
  MakeFolder(OnRoomy("homes/stranger/#recycle"));
  const std::string queue = QueueOf("homes");

  EXPECT_TRUE(Succeeds(Fileindexctl({"home", "enable", "local"})));
  EXPECT_THAT(ReadFile(queue), AllOf(HasSubstr("homes/root/#recycle"), Not(HasSubstr("stranger"))));
  WriteFile(queue, "");
  EXPECT_TRUE(Succeeds(Fileindexctl({"home", "enable", "directory"})));
  EXPECT_EQ(ReadFile(queue), "");
  EXPECT_TRUE(Succeeds(Fileindexctl({"home", "disable", "directory"})));

  EXPECT_THAT(ReadFile(queue), AllOf(HasSubstr("homes/root/#recycle"), HasSubstr("homes/stranger/#recycle")));
  EXPECT_EQ(Fileindexctl({"home", "enable", "everybody"}).exit_status, 2);
}

TEST_F(ManagementCommand, PreparingStartsTheServicesIfAnyFolderIsIndexed) {
  const std::string started = OnRoomy("started");
  fs::create_directories("/etc/nimo/services.d");
  WriteFile("/etc/nimo/services.d/nimocontentextractd.json", R"({"command":["/usr/bin/touch",")" + started + "\"]}");
  StopIndexer();

  EXPECT_TRUE(Succeeds(Fileindexctl({"services", "prepare"})));
  EXPECT_FALSE(fs::exists(started));
  WriteFolders({Entry("/photo", "Pictures")});
  EXPECT_TRUE(FailsWith(Fileindexctl({"services", "prepare"}),
                        "fileindexctl: the indexing daemon does not answer; see the system log"));

  EXPECT_TRUE(Eventually([&started] { return fs::exists(started); }));
}

TEST_F(ManagementCommand, PreparingIsDoneWhenTheIndexingDaemonAnswers) {
  StopIndexer();
  KillSearchDaemon();  // as when the package is upgraded: it is started later
  fs::create_directories("/etc/nimo/services.d");
  WriteFile("/etc/nimo/services.d/pkg-Orbisk-fileindexd.json",
            R"({"command":[")" + BuiltProgram("fileindexd") + R"("],"notify":false})");
  WriteFolders({Entry("/photo", "Pictures")});

  const ProcessResult prepared = Fileindexctl({"services", "prepare"});
  const ProcessResult status = Fileindexctl({"daemon", "status"});
  WriteFolders({});
  const ProcessResult stopped = Fileindexctl({"services", "prepare"});

  EXPECT_TRUE(Succeeds(prepared));
  EXPECT_EQ(status.exit_status, 0) << status.errors;
  EXPECT_TRUE(Succeeds(stopped));
  EXPECT_EQ(Fileindexctl({"daemon", "status"}).exit_status, 1);
}

TEST_F(ManagementCommand, PreparingTakesRoot) {
  const auto as_nobody = [](const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {
        "setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", BuiltProgram("fileindexctl")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunProcess(command);
  };
  if (as_nobody({"--version"}).exit_status != 0) {
    GTEST_SKIP() << "there is no other account, or the program lies where it may not go";
  }

  EXPECT_TRUE(FailsWith(as_nobody({"services", "prepare"}), "fileindexctl: error 503: cannot act as root"));
}

TEST_F(ManagementCommand, PreparingTakesFoldersThatCanBeRead) {
  WriteFile(kFoldersFile, "no folders");
  const ProcessResult unreadable = Fileindexctl({"services", "prepare"});
  EXPECT_EQ(unreadable.exit_status, 1);
  EXPECT_THAT(unreadable.errors, AllOf(StartsWith("fileindexctl: error 504: "), HasSubstr(kFoldersFile)));
}

TEST_F(ManagementCommand, WithoutAnIndexingDaemonTheUserHearsWhatIsStored) {
  StopIndexer();
  constexpr char kReason[] = "fileindexctl: error 502: write failed, reason=Transport endpoint is not connected ";

  EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "add", "/photo"}), std::string(kReason) + kStored));
  EXPECT_EQ(Get("/photo")["path"], "/photo");
  EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "set", "/photo", "--name", "x"}), std::string(kReason) + kStored));
  EXPECT_EQ(Get("/photo")["name"], "x");
  EXPECT_TRUE(FailsWith(Fileindexctl({"folder", "delete", "/photo", "--yes"}), std::string(kReason) + kStored));
  EXPECT_EQ(ReadFile(kFoldersFile), "[]");
}

TEST_F(ManagementCommand, DaemonStatusSaysThatTheDaemonCannotBeReached) {
  StopIndexer();

  const ProcessResult result = Fileindexctl({"daemon", "status"});

  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.errors, StartsWith("fileindexctl: error 502: the indexing daemon cannot be reached at "
                                        "/var/run/fileindexd.sock: "));
}

}  // namespace
}  // namespace orbisk::test
