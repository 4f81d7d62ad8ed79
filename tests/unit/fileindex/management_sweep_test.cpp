// Every management operation, with each call of the platform and each call for a file, a lock or a socket failing in
// turn: the steps before the failure are the same, those after it are not made, and nothing is left behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>

#include "nimo/home.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/json.h"
#include "tests/support/fake_daemon_connection.h"
#include "tests/support/fake_service.h"
#include "tests/support/fake_share.h"
#include "tests/support/fake_string_list.h"
#include "tests/support/fake_user.h"
#include "tests/support/lock_holder.h"
#include "tests/unit/fileindex/management_box.h"
#include "tests/unit/fileindex/system_calls.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::FakeConnections;
using orbisk::test::FakePlatform;
using orbisk::test::FakeShares;
using orbisk::test::FakeStringLists;
using orbisk::test::FakeUsers;
using orbisk::test::IsLocked;
using orbisk::test::ReadFile;
using orbisk::test::SeamCall;

using Arrange = std::function<void(ManagementBox&)>;
using Action = std::function<void(ManagementBox&)>;

struct Operation {
  std::string name;
  Action action;
  Arrange arrange = nullptr;
};

void AnswerSuggestions(const ManagementBox& box) {
  FakeConnections().Reply(R"({"success":true,"data":{"unavail":["fileindex_photo"]}})");
  for (const char* const folder : {"/photo/a", "/photo/b"}) {
    FakeConnections().Reply(R"({"success":true,"data":[{"NIMOMDPath":")" + box.Full(folder) + R"(/1"}]})");
    FakeConnections().Reply(R"({"success":true})");
  }
}

const std::vector<Operation>& Operations() {
  static const std::vector<Operation> operations = {
      {"FolderAdd",
       [](ManagementBox&) {
         FolderAdd(List({Entry("/photo/c"), Entry("/homes/ann"), Entry("/homes/bob")}), false);
       }},
      {"FolderSet",
       [](ManagementBox&) {
         FolderSet(List({Entry("/photo/a", "p"), Entry("/homes/ann")}), false);
       }},
      {"FolderDelete",
       [](ManagementBox&) {
         FolderDelete(List({"/photo/a", "/music"}));
       }},
      {"FolderDelete of a share", [](ManagementBox&) { FolderDelete("photo"); }},
      {"FolderDelete of the last", [](ManagementBox&) { FolderDelete("photo"); },
       [](ManagementBox&) { WriteFoldersFile({Entry("/photo/a")}); }},
      {"FolderReindex",
       [](ManagementBox&) {
         FolderReindex(List({"/music", "/photo/a", "/homes"}));
       },
       [](ManagementBox&) { StatusMgr().SetShareStatus("photo", 3); }},
      {"ShareRename", [](ManagementBox&) { ShareRename("photo", "homes"); }},
      {"ShareMigrate", [](ManagementBox& box) { ShareMigrate("photo", "/old/photo", box.Full("/photo")); }},
      {"SharePause", [](ManagementBox&) { SharePause("photo"); }},
      {"ShareResume", [](ManagementBox&) { ShareResume("photo"); }},
      {"ShareRebuild", [](ManagementBox&) { ShareRebuild("photo"); }},
      {"ShareClearPaused", [](ManagementBox& box) { ShareClearPaused("photo", box.Full("/photo")); }},
      {"ShareAutoClean", [](ManagementBox&) { ShareAutoClean("photo"); }},
      {"ShareCheckRecycle", [](ManagementBox&) { ShareCheckRecycle("photo"); }},
      {"VolumePause", [](ManagementBox& box) { VolumePause(box.Full("")); }},
      {"VolumeResume", [](ManagementBox& box) { VolumeResume(box.Full("")); }},
      {"VolumeClearPaused", [](ManagementBox& box) { VolumeClearPaused(box.Full("")); },
       [](ManagementBox& box) { VolumePause(box.Full("")); }},
      {"HomeEnable", [](ManagementBox&) { HomeEnable(AUTH_LOCAL); }},
      {"HomeDisable", [](ManagementBox&) { HomeDisable(AUTH_LOCAL); }},
      {"UserRename", [](ManagementBox&) { UserRename("ann", "anna"); }},
      {"PrepareServices", [](ManagementBox&) { PrepareServices(); }},
      {"UpdateTermSuggestion", [](ManagementBox&) { UpdateTermSuggestion(); },
       [](ManagementBox& box) { AnswerSuggestions(box); }},
  };
  return operations;
}

// A fresh box with two indexed shares, and one of homes that is not.
class SweepBox {
 public:
  explicit SweepBox(const Operation& operation) : operation_(operation) {
    for (const char* const share : {"homes", "music", "photo"}) {
      box_.AddShare(share);
      std::filesystem::create_directories(box_.Full(std::string("/@fileindex/") + share + "/db"));
    }
    box_.MakeFolders({"/photo/a", "/photo/b", "/photo/c", "/homes/ann/#recycle", "/homes/bob/#recycle"});
    FakeUsers().Add("ann", 2001, 2001);
    FakeUsers().Add("bob", 2002, 2002);
    WriteFoldersFile({Entry("/photo/a", "d"), Entry("/music", "d"), Entry("/photo/b", "d")});
    if (operation.arrange) {
      operation.arrange(box_);
    }
    box_.daemon().ForgiveClients();
  }

  ManagementBox& box() { return box_; }
  Story Run() {
    return box_.StoryOf([&] { operation_.action(box_); });
  }
  // The configuration, whose places are the same in every box.
  std::string Folders() const {
    std::string text = ReadFile(kFoldersFile);
    ReplaceAll(text, box_.Full(""), "V");
    return text;
  }

 private:
  const Operation& operation_;
  ManagementBox box_;
};

// What must hold after any call, failed or not.
class Leftovers {
 public:
  Leftovers() : descriptors_(OpenDescriptors()), euid_(geteuid()) {}

  void ExpectNone(SweepBox& box, bool descriptor_may_stay) const {
    EXPECT_EQ(0, FakeShares().outstanding());
    EXPECT_EQ(0, FakeUsers().outstanding());
    EXPECT_EQ(0, FakeStringLists().outstanding());
    EXPECT_EQ(0, FakeConnections().open());
    EXPECT_EQ(euid_, geteuid());
    box.box().daemon().Settle();  // has closed its ends then
    const size_t allowed = descriptors_ + (descriptor_may_stay ? 1 : 0);
    EXPECT_GE(allowed, OpenDescriptors());
    for (const char* const lock : {"/tmp/orbisk_cfg_folder.lock", kStatusLock}) {
      EXPECT_FALSE(std::filesystem::exists(lock) && !descriptor_may_stay && IsLocked(lock)) << lock;
    }
    for (const auto& entry : std::filesystem::directory_iterator("/var/packages/Orbisk/etc")) {
      EXPECT_NE(0U, entry.path().filename().string().rfind(".orbisk-", 0)) << "a temporary file stays";
    }
  }

 private:
  const size_t descriptors_;
  const uid_t euid_;
};

bool IsError(const Story& story) {
  return !story.empty() && story.back().rfind("Error ", 0) == 0;
}

// The steps themselves: no error, and no end of the lock, which comes with it.
Story Steps(Story story) {
  std::erase_if(story,
                [](const std::string& line) { return line.rfind("Error ", 0) == 0 || line == "unlock folders"; });
  return story;
}

bool IsPrefix(const Story& steps, const Story& whole) {
  return steps.size() <= whole.size() && std::equal(steps.begin(), steps.end(), whole.begin());
}

// Whether `steps` are the first of `whole`, but for what is done about a failure: a share is marked when an event
// cannot be queued, and asked for room when a commit fails.
bool AreFirstSteps(Story steps, const Story& whole) {
  const bool is_more = !steps.empty() && (steps.back() == "save status" || steps.back() == RoomNote("photo"));
  if (is_more && !IsPrefix(steps, whole)) {
    steps.pop_back();
  }
  return IsPrefix(steps, whole);
}

bool IsOneLess(const Story& steps, const Story& whole) {
  for (size_t i = 0; i < whole.size(); ++i) {
    Story rest = whole;
    rest.erase(rest.begin() + static_cast<Story::difference_type>(i));
    if (rest == steps) {
      return true;
    }
  }
  return false;
}

std::string CodeOf(const Story& story) {
  return IsError(story) ? story.back().substr(6, story.back().find(' ', 6) - 6) : "none";
}

// What a failing operation of the platform comes to: an Error of this code; "same": nothing that others see; "logged":
// the end, without an Error; "next": the step is made in vain, and the others follow.
const std::map<std::string, std::string>& PlatformOutcomes() {
  static const std::map<std::string, std::string> outcomes = {
      {"NIMOShareGet", "800"},
      {"NIMOShareNamePathGet", "502"},
      {"NLIBShareIsEncryptedGet", "502"},
      {"NLIBShareIsReadOnlyGet", "502"},
      {"FILEIDXQueuePathCompose", "502"},
      {"FILEIDXDBPathCompose", "502"},
      {"FILEIDXGetIndexID", "502"},
      {"MonitorQueue::Upsert", "502"},
      {"MonitorQueue::Delete", "502"},
      {"ResetCredentialsByName", "503"},
      {"NIMOGetFSType", "903"},
      {"NIMOFSIsRemoteFS", "903"},
      {"NIMOFSIsImageFS", "903"},
      {"DomainSockConnection::Connect", "913"},
      {"SockConnection::Send", "913"},
      {"SockConnection::Recv", "913"},
      {"NLIBGroupIsAdminGroupMem", "same"},
      {"NIMOEAIsHiddenDir", "same"},
      {"NIMOFSDirIsMntPoint", "same"},
      {"NIMORecycleUserHomePathIsExist", "same"},
      {"NIMOQuotaIsEnough", "same"},
      {"NLIBCExec", "same"},
      {"NLIBServiceStart", "same"},
      {"NLIBServiceStop", "same"},
      {"NLIBServiceRestart", "same"},
      {"NLIBServicectlStart", "same"},
      {"NLIBServicectlStop", "same"},
      {"NIMOSMBIsEnableSpotlight", "next"},
      {"NIMOSMBSetSpotlight", "next"},
      {"NLIBCSzListAlloc", "logged"},
      {"NIMORecycleHomeEnumRecyclePath", "logged"},
      {"NIMORecycleHomeEnumRecyclePathForAuthType", "logged"},
  };
  return outcomes;
}

bool CanFail(const std::string& function) {
  return function.find("Free") == std::string::npos && function.rfind("NLIBCErr", 0) != 0 &&
         function != "NLIBCSzListGet";
}

Story WithoutSpotlight(Story story) {
  std::erase_if(story, [](const std::string& line) {
    return line.rfind("NIMOSMBSet", 0) == 0 || line.rfind("NLIBServiceRestart", 0) == 0;
  });
  return story;
}

void ExpectOutcome(const std::string& outcome, const Story& story, const Story& whole) {
  if (outcome == "same") {
    EXPECT_EQ(whole, story);
  } else if (outcome == "next") {
    EXPECT_FALSE(IsError(story));
    EXPECT_EQ(WithoutSpotlight(whole), WithoutSpotlight(story));
  } else if (outcome == "logged") {
    EXPECT_FALSE(IsError(story));
    EXPECT_TRUE(IsPrefix(story, whole)) << testing::PrintToString(story);
    EXPECT_LT(story.size(), whole.size());
  } else {
    EXPECT_EQ(outcome, CodeOf(story)) << testing::PrintToString(story);
    EXPECT_TRUE(AreFirstSteps(Steps(story), Steps(whole))) << testing::PrintToString(story);
  }
}

TEST(ManagementSweep, AFailureOfThePlatformHasTheOneOutcomeThatItStandsFor) {
  std::set<std::string> failed;
  for (const Operation& operation : Operations()) {
    SweepBox untouched(operation);
    const std::string before = untouched.Folders();
    const Story whole = untouched.Run();
    ASSERT_FALSE(IsError(whole)) << operation.name << ": " << whole.back();
    const std::string after = untouched.Folders();
    for (size_t nth = 1;; ++nth) {
      SweepBox box(operation);
      const Leftovers leftovers;
      const size_t calls_before = FakePlatform::call_count();
      FakePlatform::FailCall(nth);
      const Story story = box.Run();
      const std::vector<SeamCall> calls = FakePlatform::calls();
      if (calls_before + nth > calls.size()) {
        break;
      }
      const std::string function = calls[calls_before + nth - 1].function;
      if (!CanFail(function)) {
        continue;
      }
      SCOPED_TRACE(operation.name + ": " + function + ", call " + std::to_string(nth));
      failed.insert(function);
      const auto outcome = PlatformOutcomes().find(function);
      ASSERT_NE(PlatformOutcomes().end(), outcome) << "a function that was not thought of";
      ExpectOutcome(outcome->second, story, whole);
      EXPECT_THAT(box.Folders(), testing::AnyOf(before, after));
      leftovers.ExpectNone(box, false);
    }
  }
  for (const auto& [function, outcome] : PlatformOutcomes()) {
    EXPECT_EQ(1U, failed.count(function)) << function << " is never called";
  }
}

// The codes that a failing call to the kernel may come to.
const std::map<std::string, std::set<std::string>>& SystemOutcomes() {
  static const std::map<std::string, std::set<std::string>> outcomes = {
      {"open", {"504", "505", "506", "none"}},  // the last for a queue that takes nothing
      {"mkostemp", {"505"}},
      {"read", {"502", "504"}},
      {"write", {"502", "505"}},
      {"fsync", {"505"}},
      {"fchmod", {"505"}},
      {"chmod", {"502"}},
      {"rename", {"505"}},
      {"flock", {"506", "none"}},  // letting go cannot fail
      {"socket", {"502"}},
      {"connect", {"502"}},
      {"setsockopt", {"502"}},
      {"unlink", {"none"}},
  };
  return outcomes;
}

void ExpectSystemOutcome(const std::string& failed, const Story& story, const Story& whole) {
  const std::string function = failed.substr(0, failed.find(' '));
  const auto codes = SystemOutcomes().find(function);
  ASSERT_NE(SystemOutcomes().end(), codes) << "a function that was not thought of";
  EXPECT_EQ(1U, codes->second.count(CodeOf(story))) << testing::PrintToString(story);
  const Story steps = Steps(story);
  if (IsError(story)) {
    EXPECT_TRUE(AreFirstSteps(steps, Steps(whole))) << testing::PrintToString(story);
  } else {
    EXPECT_TRUE(steps == Steps(whole) || IsOneLess(steps, Steps(whole))) << testing::PrintToString(story);
  }
}

TEST(ManagementSweep, AFailureOfAFileALockOrASocketStopsThereAndLeavesNothingBehind) {
  std::set<std::string> functions;
  for (const Operation& operation : Operations()) {
    SweepBox untouched(operation);
    const std::string before = untouched.Folders();
    const Story whole = untouched.Run();
    const std::string after = untouched.Folders();
    for (size_t nth = 1;; ++nth) {
      SweepBox box(operation);
      const Leftovers leftovers;
      const SystemFailure failure(nth, EIO);
      const Story story = box.Run();
      const std::string failed = failure.failed();
      if (failed.empty()) {
        break;
      }
      SCOPED_TRACE(operation.name + ": " + failed + ", call " + std::to_string(nth));
      functions.insert(failed.substr(0, failed.find(' ')));
      // It never throws, whatever the configuration is like.
      if (operation.name == "PrepareServices") {
        EXPECT_EQ(Story{}, story);
      } else {
        ExpectSystemOutcome(failed, story, whole);
      }
      EXPECT_THAT(box.Folders(), testing::AnyOf(before, after));
      leftovers.ExpectNone(box, failed.rfind("flock", 0) == 0);
    }
  }
  for (const auto& [function, codes] : SystemOutcomes()) {
    EXPECT_EQ(1U, functions.count(function)) << function << " is never called";
  }
}

// Questions change nothing, and either answer or fail.
TEST(ManagementSweep, AQuestionThatFailsLeavesTheAnswerAlone) {
  const std::vector<std::pair<std::string, std::function<void(Json::Value&)>>> kQuestions = {
      {"FolderList", [](Json::Value& answer) { FolderList(answer, 0, 10, "path", "", "all", "", List({"status"})); }},
      {"FolderGet", [](Json::Value& answer) { FolderGet(answer, "/photo/a"); }},
      {"FolderListGroups", [](Json::Value& answer) { FolderListGroups(answer); }},
      {"FolderSummary", [](Json::Value& answer) { FolderSummary(answer); }},
  };
  for (const auto& [name, question] : kQuestions) {
    for (const bool fail_system : {false, true}) {
      for (size_t nth = 1;; ++nth) {
        Json::Value answer("kept");
        const Operation operation{name, [&, ask = question](ManagementBox&) { ask(answer); }};
        SweepBox box(operation);
        const Leftovers leftovers;
        const SystemFailure failure(fail_system ? nth : 0, EIO);
        const size_t calls_before = FakePlatform::call_count();
        if (!fail_system) {
          FakePlatform::FailCall(nth);
        }
        const Story story = box.Run();
        if (fail_system ? failure.failed().empty() : FakePlatform::call_count() < calls_before + nth) {
          break;
        }
        SCOPED_TRACE(name + ", call " + std::to_string(nth) + " " + failure.failed());
        EXPECT_TRUE(Steps(story).empty()) << testing::PrintToString(story);
        EXPECT_EQ(IsError(story), answer == Json::Value("kept")) << toString(answer);
        leftovers.ExpectNone(box, false);
      }
    }
  }
}

}  // namespace
}  // namespace orbisk::fileindex::test
