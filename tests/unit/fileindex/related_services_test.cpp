// Companion services, the change monitor's registration, index data, and the term suggestions.
#include "fileindex/related_services.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/json.h"
#include "tests/support/fake_box.h"
#include "tests/support/fake_daemon_connection.h"
#include "tests/support/fake_monitor_queue.h"
#include "tests/support/fake_service.h"
#include "tests/support/fake_share.h"
#include "tests/unit/fileindex/management_box.h"
#include "tests/unit/fileindex/queue_lines.h"
#include "tests/unit/fileindex/system_calls.h"
#include "tests/unit/record_match.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::FailPlatform;
using orbisk::test::FakeConnections;
using orbisk::test::FakeIndexLocation;
using orbisk::test::FakeMonitorQueues;
using orbisk::test::FakeProcess;
using orbisk::test::FakeServices;
using orbisk::test::FakeShares;
using orbisk::test::Record;
using orbisk::test::RecordText;
using orbisk::test::SetPlatformError;
using orbisk::test::WithoutLine;
using testing::HasSubstr;
using testing::IsEmpty;

class RelatedServices : public testing::Test {
 protected:
  RelatedServices() {
    box_.AddShare("photo");
    errno = 0;
  }

  // A failure as the platform reports it.
  static int Fail(int code, const char* file, int line, int error = 0) {
    SetPlatformError(code, file, line);
    errno = error;
    return -1;
  }
  Story Texts() const {
    Story texts;
    for (const Record& record : box_.log().records()) {
      EXPECT_EQ(3, record.priority);
      texts.push_back(record.text);
    }
    return texts;
  }
  // "index_mgr.cpp:42 (pid, euid) (SetupRelatedServices) " with this line.
  static std::string At(const std::string& line, const std::string& tail) {
    std::string text = RecordText("index_mgr.cpp", "SetupRelatedServices", tail);
    return text.replace(text.find(":N") + 1, 1, line);
  }

  ManagementBox box_;
};

TEST_F(RelatedServices, AreSwitchedOnWithSpotlight) {
  EXPECT_EQ(ServicesOn(), box_.StoryOf([] { SetupRelatedServices(true); }));
  EXPECT_TRUE(FakeServices().spotlight());
  EXPECT_THAT(Texts(), IsEmpty());
}

TEST_F(RelatedServices, AreSwitchedOffAsAMirrorImage) {
  FakeServices().SetSpotlight(true);

  EXPECT_EQ(ServicesOff(), box_.StoryOf([] { SetupRelatedServices(false); }));
  EXPECT_FALSE(FakeServices().spotlight());
}

TEST_F(RelatedServices, SpotlightThatIsAsWantedIsLeftAloneAndSambaToo) {
  FakeServices().is_spotlight.Next([] { return 7; });  // any number but 0 is on
  EXPECT_EQ((Story{"NIMOSMBIsEnableSpotlight()", "NLIBServiceStart(nimocontentextractd, 1)",
                   "NLIBServicectlStart(pkg-Orbisk-fileindexd, 1)"}),
            box_.StoryOf([] { SetupRelatedServices(true); }));
  EXPECT_EQ((Story{"NIMOSMBIsEnableSpotlight()", "NLIBServiceStop(nimocontentextractd, 0)",
                   "NLIBServicectlStop(pkg-Orbisk-fileindexd, 1)"}),
            box_.StoryOf([] { SetupRelatedServices(false); }));
}

TEST_F(RelatedServices, SambaIsNotRestartedWhenTheSwitchFailedAndTheNextStepsRun) {
  FakeServices().set_spotlight.Next([](int) { return Fail(0x2A, "smb.c", 17); });

  EXPECT_EQ((Story{"NIMOSMBIsEnableSpotlight()", "NIMOSMBSetSpotlight(1)", "NLIBServiceStart(nimocontentextractd, 1)",
                   "NLIBServicectlStart(pkg-Orbisk-fileindexd, 1)"}),
            box_.StoryOf([] { SetupRelatedServices(true); }));
  ASSERT_EQ(1U, Texts().size());
  EXPECT_EQ("%s:%d (%d, %u) (%s) NIMOSMBSetSpotlight failed: err=[0x%04X %s:%d]", box_.log().records()[0].format);
  EXPECT_THAT(Texts()[0], HasSubstr("NIMOSMBSetSpotlight failed: err=[0x002A smb.c:17]"));
  EXPECT_THAT(Texts()[0], HasSubstr("index_mgr.cpp:"));
  EXPECT_THAT(Texts()[0], HasSubstr(") (SetupRelatedServices) NIMOSMB"));
}

TEST_F(RelatedServices, ARestartThatFailsIsLoggedAndTheNextStepsRun) {
  FakeServices().restart.Next([](const char*) { return Fail(0xD000, "service.c", 9, EPERM); });

  EXPECT_EQ(ServicesOn(), box_.StoryOf([] { SetupRelatedServices(true); }));
  ASSERT_EQ(1U, Texts().size());
  EXPECT_EQ("%s:%d (%d, %u) (%s) NLIBServiceRestart failed: err=[0x%04X %s:%d] [err: %m]",
            box_.log().records()[0].format);
  EXPECT_THAT(Texts()[0], HasSubstr(") (SetupRelatedServices) NLIBServiceRestart failed: err=[0xD000 service.c:9] "
                                    "[err: Operation not permitted]"));
  EXPECT_EQ(0, errno);
}

TEST_F(RelatedServices, EveryStepIsTakenWhenAllFailAndEachIsLogged) {
  FakeServices().set_spotlight.FailAlways();
  FakeServices().start.FailAlways();
  FakeServices().package_start.FailAlways();

  EXPECT_EQ((Story{"NIMOSMBIsEnableSpotlight()", "NIMOSMBSetSpotlight(1)", "NLIBServiceStart(nimocontentextractd, 1)",
                   "NLIBServicectlStart(pkg-Orbisk-fileindexd, 1)"}),
            box_.StoryOf([] { SetupRelatedServices(true); }));
  ASSERT_EQ(3U, Texts().size());
  EXPECT_EQ(RecordText("index_mgr.cpp", "SetupRelatedServices",
                       "Failed [0 > NLIBServiceStart(\"nimocontentextractd\", TRUE)]"),
            WithoutLine(Texts()[1]));
  EXPECT_EQ(At("42", "Failed [0 > NLIBServicectlStart(\"pkg-Orbisk-fileindexd\", NLIB_SERVICECTL_UPSTART)]"),
            Texts()[2]);
}

TEST_F(RelatedServices, EveryStepOfSwitchingOffIsTakenWhenAllFailAndEachIsLogged) {
  FakeServices().SetSpotlight(true);
  FakeServices().restart.FailAlways();
  FakeServices().stop.FailAlways();
  FakeServices().package_stop.Next([](const char*, int) { return Fail(1, "x.c", 1, ENOENT); });

  EXPECT_EQ(ServicesOff(), box_.StoryOf([] { SetupRelatedServices(false); }));
  ASSERT_EQ(3U, Texts().size());
  EXPECT_EQ(RecordText("index_mgr.cpp", "SetupRelatedServices",
                       "Failed [0 > NLIBServiceStop(\"nimocontentextractd\", FALSE)]"),
            WithoutLine(Texts()[1]));
  EXPECT_EQ(At("52",
               "Failed [0 > NLIBServicectlStop(\"pkg-Orbisk-fileindexd\", NLIB_SERVICECTL_UPSTART)] "
               "[err: No such file or directory]"),
            Texts()[2]);
  EXPECT_EQ(0, errno);
}

TEST_F(RelatedServices, OnlyWhatIsNegativeIsAFailure) {
  FakeServices().set_spotlight.Next([](int) { return 3; });
  FakeServices().restart.Next([](const char*) { return 3; });
  FakeServices().start.Next([](const char*, int) { return 3; });
  FakeServices().package_start.Next([](const char*, int) { return 3; });
  EXPECT_EQ(ServicesOn(), box_.StoryOf([] { SetupRelatedServices(true); }));

  FakeServices().SetSpotlight(true);
  FakeServices().set_spotlight.Next([](int) { return 3; });
  FakeServices().restart.Next([](const char*) { return 3; });
  FakeServices().stop.Next([](const char*, int) { return 3; });
  FakeServices().package_stop.Next([](const char*, int) { return 3; });
  EXPECT_EQ(ServicesOff(), box_.StoryOf([] { SetupRelatedServices(false); }));

  EXPECT_THAT(Texts(), IsEmpty());
}

TEST_F(RelatedServices, ArePreparedByWhetherAnyFolderIsConfigured) {
  WriteFoldersFile({Entry("/photo")});
  EXPECT_EQ(ServicesOn(), box_.StoryOf(PrepareServices));
  WriteFoldersFile({});
  EXPECT_EQ(ServicesOff(), box_.StoryOf(PrepareServices));
}

TEST_F(RelatedServices, AConfigurationThatCannotBeReadSwitchesNothingAndIsLogged) {
  orbisk::test::WriteFile(kFoldersFile, "not readable");

  EXPECT_EQ(Story{}, box_.StoryOf(PrepareServices));
  ASSERT_EQ(2U, Texts().size());
  EXPECT_THAT(Texts()[0], HasSubstr("folder_mgr.cpp"));
  EXPECT_THAT(Texts()[1], HasSubstr("(PrepareServices) Failed [SetupRelatedServices(!FolderMgr().IsEmpty())], reason: "
                                    "Cannot load json: /var/packages/Orbisk/etc/fileindex.folders"));
}

TEST_F(RelatedServices, TheMonitorWatchesAllFoldersOfTheSharePausedOnesToo) {
  Json::Value paused = Entry("/photo/b");
  paused["paused"] = true;
  const FolderMgr folder_mgr = Manager({Entry("/photo/a"), Entry("/music/x"), paused, Entry("/photo2")});

  EXPECT_EQ(Story{WatchNote("photo", {"/photo/a", "/photo/b"})},
            box_.StoryOf([&] { UpsertNimotifydCfg("photo", folder_mgr); }));
}

TEST_F(RelatedServices, AShareWhoseFoldersAreAllPausedIsWatched) {
  Json::Value paused = Entry("/photo/b");
  paused["paused"] = true;
  const FolderMgr folder_mgr = Manager({paused});

  EXPECT_EQ(Story{WatchNote("photo", {"/photo/b"})}, box_.StoryOf([&] { UpsertNimotifydCfg("photo", folder_mgr); }));
}

TEST_F(RelatedServices, ARegistrationReplacesTheFormerOne) {
  UpsertNimotifydCfg("photo", Manager({Entry("/photo/a"), Entry("/photo/b")}));
  UpsertNimotifydCfg("photo", Manager({Entry("/photo/c")}));

  const auto registrations = FakeMonitorQueues().registrations();
  ASSERT_EQ(1U, registrations.size());
  EXPECT_EQ(1U, registrations.begin()->second["config"].size());
}

TEST_F(RelatedServices, AShareWithoutFoldersIsRegisteredWithNone) {
  const FolderMgr folder_mgr = Manager({});

  EXPECT_EQ(Story{WatchNote("photo", {})}, box_.StoryOf([&] { UpsertNimotifydCfg("photo", folder_mgr); }));
}

TEST_F(RelatedServices, TheMonitorIsNotAskedForAShareThatDoesNotExist) {
  const FolderMgr folder_mgr = Manager({});

  EXPECT_EQ(Story{"Error 800 gone"}, box_.StoryOf([&] { UpsertNimotifydCfg("gone", folder_mgr); }));
  EXPECT_EQ(Story{"Error 800 gone"}, box_.StoryOf([&] { DeleteNimotifydCfg("gone"); }));
}

TEST_F(RelatedServices, IndexDataIsRemovedPathByPathAndTheFlagsLast) {
  StatusMgr().SetShareStatus("photo", 3);

  EXPECT_EQ((Story{"NLIBCExec(/bin/rm, -rf|/v/@fileindex/x/queue)", "NLIBCExec(/bin/rm, -rf|/v/@fileindex/x/queue.tmp)",
                   "NLIBCExec(/bin/rm, -rf|/v/@fileindex/x/db)", "save status"}),
            box_.StoryOf([] { CleanShareIndexData("photo", "/v/x"); }))
      << "the flags are the name's, the paths are the path's";
  EXPECT_FALSE(ReadJson(kStatusFile)["share"].isMember("photo"));
}

TEST_F(RelatedServices, WhetherIndexDataCouldBeRemovedDoesNotMatter) {
  FakeProcess().exec.FailAlways();

  EXPECT_EQ(CleanNotes("/v/photo"), box_.StoryOf([] { CleanShareIndexData("photo", "/v/photo"); }));
}

TEST_F(RelatedServices, IndexDataWhosePlaceIsNotKnownIsAnErrorAndWhatWasRemovedStaysSo) {
  FakeIndexLocation().queue_path.FailAt(1);
  EXPECT_EQ(Story{"Error 502 FILEIDXQueuePathCompose failed, share_path=/v/photo"},
            box_.StoryOf([] { CleanShareIndexData("photo", "/v/photo"); }));
  ExpectFailed(box_.log().records().back(), "CleanShareIndexData",
               "0 > FILEIDXQueuePathCompose(share_path.c_str(), path, sizeof(path))",
               "FILEIDXQueuePathCompose failed, share_path=/v/photo");

  FakeIndexLocation().db_path.FailAt(1);
  EXPECT_EQ((Story{"NLIBCExec(/bin/rm, -rf|/v/@fileindex/photo/queue)",
                   "NLIBCExec(/bin/rm, -rf|/v/@fileindex/photo/queue.tmp)",
                   "Error 502 FILEIDXDBPathCompose failed, share_path=/v/photo"}),
            box_.StoryOf([] { CleanShareIndexData("photo", "/v/photo"); }));
  ExpectFailed(box_.log().records().back(), "CleanShareIndexData",
               "0 > FILEIDXDBPathCompose(share_path.c_str(), path, sizeof(path))",
               "FILEIDXDBPathCompose failed, share_path=/v/photo");
}

TEST_F(RelatedServices, ComposersGetABufferFor4096Bytes) {
  CleanShareIndexData("photo", "/v/photo");

  EXPECT_EQ("4096", FakeIndexLocation().queue_path.calls().back().arguments[2]);
  EXPECT_EQ("4096", FakeIndexLocation().db_path.calls().back().arguments[2]);
}

// Two indexed shares. The search daemon answers each story's requests in order.
class TermSuggestion : public testing::Test {
 protected:
  TermSuggestion() {
    for (const char* const share : {"music", "photo"}) {
      box_.AddShare(share);
      std::filesystem::create_directories(box_.Full(std::string("/@fileindex/") + share + "/db"));
    }
    WriteFoldersFile({Entry("/photo/b"), Entry("/music"), Entry("/photo/a")});
    errno = 0;
  }

  void Unavailable(const std::string& dbs) const {
    FakeConnections().Reply(R"({"success":true,"data":{"unavail":)" + dbs + "}}");
  }
  void Hits(const std::string& share_path) const {
    FakeConnections().Reply(R"({"success":true,"data":[{"NIMOMDPath":")" + box_.Full(share_path) + R"("}]})");
    FakeConnections().Reply(R"({"success":true})");
  }
  std::string Marker(const std::string& share) const {
    return box_.Full("/@fileindex/" + share + "/db/term.sugg.running");
  }
  static std::string QueryNote(const std::string& share, const std::string& share_path) {
    return R"(search document_get_by_query {"id":"fileindex_)" + share +
           R"(","load_field":["NIMOMDPath"],"query":{"qsl":{"prefix":{"NIMOMDPath":"V)" + share_path + R"(/"}}}})";
  }
  static std::string FeedNote(const std::string& share, const std::string& share_path) {
    return R"(search compound update_term_suggestion {"db_name":"fileindex_)" + share + R"(","doc_id_field":"V)" +
           share_path + "\"}";
  }
  Story Texts() const {
    Story texts;
    for (const Record& record : box_.log().records()) {
      EXPECT_EQ(3, record.priority);
      texts.push_back(WithoutLine(record.text));
    }
    return texts;
  }

  ManagementBox box_;
};

TEST_F(TermSuggestion, OfSharesThatHaveItIsNotBuilt) {
  Unavailable("[]");

  EXPECT_EQ(Story{"search list_term_sugg_db {}"}, box_.StoryOf([] { UpdateTermSuggestion(); }));
  EXPECT_THAT(Texts(), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists(Marker("photo")));
}

TEST_F(TermSuggestion, IsBuiltFolderByFolderFromTheDocumentsBelowThem) {
  Unavailable(R"(["fileindex_photo","fileindex_other"])");
  Hits("/photo/b/1");
  Hits("/photo/a/1");

  EXPECT_EQ((Story{"search list_term_sugg_db {}", QueryNote("photo", "/photo/b"), FeedNote("photo", "/photo/b/1"),
                   QueryNote("photo", "/photo/a"), FeedNote("photo", "/photo/a/1"), SearchNote("commit", "photo"),
                   "unlink marker"}),
            box_.StoryOf([] { UpdateTermSuggestion(); }))
      << "a folder's own document is not among them, and each folder's are fed once";
  EXPECT_EQ((Story{"index_mgr.cpp:N Start building term sugg [fileindex_photo]",
                   "index_mgr.cpp:N Done building term sugg [fileindex_photo]"}),
            Texts());
}

TEST_F(TermSuggestion, OfSeveralSharesIsBuiltByName) {
  Unavailable(R"(["fileindex_photo","fileindex_music"])");
  for (const char* const path : {"/music/1", "ignored", "/photo/b/1", "/photo/a/1"}) {
    if (std::string(path) == "ignored") {
      FakeConnections().Reply(R"({"success":true})");  // the commit
    } else {
      Hits(path);
    }
  }

  const Story story = box_.StoryOf([] { UpdateTermSuggestion(); });

  EXPECT_EQ((Story{"search list_term_sugg_db {}", QueryNote("music", "/music"), FeedNote("music", "/music/1"),
                   SearchNote("commit", "music"), "unlink marker", QueryNote("photo", "/photo/b"),
                   FeedNote("photo", "/photo/b/1"), QueryNote("photo", "/photo/a"), FeedNote("photo", "/photo/a/1"),
                   SearchNote("commit", "photo"), "unlink marker"}),
            story);
}

TEST_F(TermSuggestion, AFolderWithoutDocumentsIsFedAsNone) {
  Unavailable(R"(["fileindex_music"])");
  FakeConnections().Reply(R"({"success":true,"data":[]})");

  EXPECT_EQ((Story{"search list_term_sugg_db {}", QueryNote("music", "/music"), "search compound",
                   SearchNote("commit", "music"), "unlink marker"}),
            box_.StoryOf([] { UpdateTermSuggestion(); }));
}

TEST_F(TermSuggestion, TheMarkerIsThereExactlyWhileItIsBuilt) {
  orbisk::test::WriteFile(Marker("music"), "left behind by a build that broke off");
  Unavailable(R"(["fileindex_music"])");
  Hits("/music/1");
  Story seen;
  FakeConnections().send.Always([&](const std::string&) {
    seen.push_back(std::filesystem::exists(Marker("music"))
                       ? std::to_string(std::filesystem::file_size(Marker("music")))
                       : "none");
    return true;
  });

  UpdateTermSuggestion();

  EXPECT_EQ((Story{"37", "0", "0", "0"}), seen) << "it is truncated";
  EXPECT_FALSE(std::filesystem::exists(Marker("music")));
}

TEST_F(TermSuggestion, AMarkerThatCannotBeMadeIsLoggedAndTheNextShareFollows) {
  std::filesystem::remove_all(box_.Full("/@fileindex/music/db"));
  Unavailable(R"(["fileindex_photo","fileindex_music"])");
  Hits("/photo/b/1");
  Hits("/photo/a/1");

  const Story story = box_.StoryOf([] { UpdateTermSuggestion(); });

  EXPECT_EQ(7U, story.size()) << "only photo's steps";
  EXPECT_EQ((Story{"index_mgr.cpp:N Start building term sugg [fileindex_music]",
                   RecordText("index_mgr.cpp", "UpdateTermSuggestion", "Failed [!ofs]", "No such file or directory"),
                   "index_mgr.cpp:N Start building term sugg [fileindex_photo]",
                   "index_mgr.cpp:N Done building term sugg [fileindex_photo]"}),
            Texts());
}

TEST_F(TermSuggestion, TheMarkerStaysWhenTheEngineFails) {
  Unavailable(R"(["fileindex_music"])");
  FakeConnections().Reply(kRefusal);

  EXPECT_EQ((Story{"search list_term_sugg_db {}", QueryNote("music", "/music"), kRefused}),
            box_.StoryOf([] { UpdateTermSuggestion(); }));
  EXPECT_TRUE(std::filesystem::exists(Marker("music")));
}

TEST_F(TermSuggestion, AMarkerThatCannotBeRemovedIsLogged) {
  Unavailable(R"(["fileindex_music"])");
  Hits("/music/1");
  FakeConnections().send.Always([&](const std::string& message) {
    if (message.find("commit") != std::string::npos) {
      std::filesystem::remove(Marker("music"));
    }
    return true;
  });

  box_.StoryOf([] { UpdateTermSuggestion(); });

  EXPECT_EQ(RecordText("index_mgr.cpp", "UpdateTermSuggestion", "Failed [0 != unlink(term_sugg_running.c_str())]",
                       "No such file or directory"),
            Texts().back());
}

TEST_F(TermSuggestion, IsAskedForEvenWithoutAnyFolder) {
  WriteFoldersFile({});
  Unavailable(R"(["fileindex_photo"])");

  EXPECT_EQ(Story{"search list_term_sugg_db {}"}, box_.StoryOf([] { UpdateTermSuggestion(); }));
}

TEST_F(TermSuggestion, OfAShareThatIsGoneFailsAsTheLookUpDoes) {
  FakeShares().Remove("photo");
  Unavailable(R"(["fileindex_photo"])");

  EXPECT_EQ((Story{"search list_term_sugg_db {}", "Error 800 photo"}), box_.StoryOf([] { UpdateTermSuggestion(); }));
}

}  // namespace
}  // namespace orbisk::fileindex::test
