// Every entry of the library, with the platform failing at its first call, its second, and so on until none is left:
// each time the one outcome that the failed operation stands for, and nothing left behind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "orbisk/error.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/queue_mgr.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/json.h"
#include "orbisk/sdk/share.h"
#include "tests/support/fake_filesystem.h"
#include "tests/support/fake_share.h"
#include "tests/support/fake_string_list.h"
#include "tests/support/fake_time.h"
#include "tests/support/fake_user.h"
#include "tests/support/indexer_double.h"
#include "tests/support/lock_holder.h"
#include "tests/unit/fileindex/config_box.h"
#include "tests/unit/fileindex/queue_lines.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::FakeFileSystem;
using orbisk::test::FakePlatform;
using orbisk::test::FakeShares;
using orbisk::test::FakeStringLists;
using orbisk::test::FakeTime;
using orbisk::test::FakeUsers;
using orbisk::test::IndexerDouble;
using orbisk::test::IsLocked;
using orbisk::test::ReadFile;
using orbisk::test::SeamCall;
using orbisk::test::WriteFile;

// The folder that every question is about. Its name makes the library ask of snapshots and recycle bins as well.
constexpr char kPath[] = "/homes/a#snapshot#recycle";
constexpr char kFolders[] =
    R"([{"audio":true,"document":true,"name":"A","path":"/homes","photo":true,"video":true},)"
    R"({"audio":false,"document":true,"name":"B","path":"/homes/a#snapshot#recycle","photo":false,"video":true}])";
constexpr char kStatus[] = R"({"resume_time":-1,"share":{"homes":2}})";

// A fresh box with the two files, a queue with one event, and the share's folder.
class SweepBox {
 public:
  SweepBox() {
    box_.AddShare("homes");
    box_.MakeFolder(kPath);
    WriteFile(kFoldersFile, kFolders);
    WriteFile(kStatusFile, kStatus);
    queue_ = ConfigBox::QueuePath("homes");
    WriteFile(queue_, Join({Create(full_path() + "/f")}));
  }

  std::string full_path() const { return box_.Full(kPath); }
  // Known beforehand, so that asking for it is no call of the platform.
  const std::string& queue() const { return queue_; }

 private:
  ConfigBox box_;
  const FakeTime time_{1000};
  std::string queue_;
};

using Action = std::function<std::string(const SweepBox&)>;
// What comes out when an operation of the platform fails: "same" as without a failure, or this text.
using Outcomes = std::map<std::string, std::string>;

std::string OutcomeOf(const Action& action, const SweepBox& box) {
  std::string text;
  try {
    text = action(box);
  } catch (const Error& error) {
    text = std::to_string(error.code()) + " " + error.what();
  } catch (const std::exception& error) {
    text = std::string("not an Error: ") + error.what();
  }
  const size_t place = text.find(box.full_path());
  return place == std::string::npos ? text : text.replace(place, box.full_path().size(), "<path>");
}

bool IsFree(const std::string& lock) {
  return !std::filesystem::exists(lock) || !IsLocked(lock);
}

// What must hold after any call, failed or not.
class Leftovers {
 public:
  Leftovers() : descriptors_(OpenDescriptors()), euid_(geteuid()), egid_(getegid()) {}

  void ExpectNone(const SweepBox& box) const {
    EXPECT_EQ(0, FakeShares().outstanding());
    EXPECT_EQ(0, FakeUsers().outstanding());
    EXPECT_EQ(0, FakeStringLists().outstanding());
    EXPECT_EQ(descriptors_, OpenDescriptors());
    EXPECT_EQ(euid_, geteuid());
    EXPECT_EQ(egid_, getegid());
    EXPECT_TRUE(IsFree(kStatusLock));
    EXPECT_TRUE(IsFree(box.queue()));
    for (const auto& entry : std::filesystem::directory_iterator("/var/packages/Orbisk/etc")) {
      EXPECT_NE(0U, entry.path().filename().string().rfind(".orbisk-", 0)) << "a temporary file stays";
    }
  }

 private:
  const size_t descriptors_;
  const uid_t euid_;
  const gid_t egid_;
};

// The files of the box as texts.
std::string Files(const SweepBox& box) {
  return ReadFile(kFoldersFile) + "\n" + ReadFile(kStatusFile) + "\n" + ReadFile(box.queue());
}

// Operations that only release, only tell what failed, or only read memory cannot fail.
bool CanFail(const std::string& function) {
  return function.find("Free") == std::string::npos && function.rfind("NLIBCErr", 0) != 0 &&
         function != "NLIBCSzListGet";
}

// One entry of the library and what it may come to.
class Sweep {
 public:
  Sweep(std::string success, Outcomes outcomes, Action action)
      : success_(std::move(success)), outcomes_(std::move(outcomes)), action_(std::move(action)) {}

  /// Prepares each fresh box before the action.
  Sweep& Arrange(std::function<void(const SweepBox&)> arrange) {
    arrange_ = std::move(arrange);
    return *this;
  }

  /// Fails call after call. The operations that were made to fail, each once.
  std::set<std::string> Run() const {
    std::set<std::string> failed;
    for (size_t nth = 0;; ++nth) {  // first without a failure
      const std::string function = RunOnce(nth);
      if (function.empty()) {
        return failed;
      }
      failed.insert(function);
    }
  }

 private:
  // The operation whose call failed, "" if there is no such call any more.
  std::string RunOnce(size_t nth) const {
    const SweepBox box;
    if (arrange_) {
      arrange_(box);
    }
    const std::string before = Files(box);
    const Leftovers leftovers;
    const size_t calls_before = FakePlatform::call_count();
    if (nth > 0) {
      FakePlatform::FailCall(nth);
    }
    const std::string outcome = OutcomeOf(action_, box);

    const std::vector<SeamCall> calls = FakePlatform::calls();
    if (nth == 0) {
      EXPECT_EQ(success_, outcome);
      leftovers.ExpectNone(box);
      return "nothing";
    }
    if (calls_before + nth > calls.size()) {
      FakePlatform::Reset();  // the failure that did not come
      return "";
    }
    const std::string function = calls[calls_before + nth - 1].function;
    SCOPED_TRACE(function + ", call " + std::to_string(nth));
    if (CanFail(function)) {
      const auto expected = outcomes_.find(function);
      const std::string text = expected == outcomes_.end() ? "a function that was not thought of" : expected->second;
      EXPECT_EQ(text == "same" ? success_ : text, outcome);
      EXPECT_TRUE(text == "same" || Files(box) == before) << "a failed call changed a file";
      leftovers.ExpectNone(box);
    }
    return function;
  }

  const std::string success_;
  const Outcomes outcomes_;
  const Action action_;
  std::function<void(const SweepBox&)> arrange_;
};

using Functions = std::set<std::string>;

std::string YesNo(bool answer) {
  return answer ? "yes" : "no";
}

Outcomes Joined(Outcomes first, const Outcomes& second) {
  first.insert(second.begin(), second.end());
  return first;
}

const Outcomes kNoShare = {{"NIMOShareGet", "800 homes"}};
const Outcomes kNoRoot = {{"NLIBGroupIsAdminGroupMem", "same"}, {"ResetCredentialsByName", "503 "}};

// The failures of CanPathBeIndexed, whose refusal shows as `refused`.
Outcomes PathOutcomes(const std::string& refused) {
  return {{"NIMOShareGet", "800 homes"},
          {"NLIBFhsPathInSnapshot", "same"},
          {"NIMOGetFSType", refused},
          {"NIMOFSIsRemoteFS", refused},
          {"NIMOFSIsImageFS", refused},
          {"NIMOShareNamePathGet", "502 NIMOShareNamePathGet failed, full_path=<path>"},
          {"NLIBShareIsEncryptedGet", "502 NLIBShareis_encryptedGet failed, share=homes"},
          {"NLIBShareIsReadOnlyGet", "502 NLIBShareis_readonlyGet failed, share=homes"},
          {"NIMOShareIsShareRecycle", "same"},
          {"NIMORecycleUserHomePathIsExist", "same"},
          {"NIMOFSDirIsMntPoint", "same"},
          {"NLIBShareIsEncryptionGet", "502 NLIBShareIsEncryptionGet failed, share=homes"},
          {"NIMOEAIsHiddenDir", "same"},
          {"FILEIDXQueuePathCompose", "502 FILEIDXQueuePathCompose failed, share=homes"}};
}

TEST(FaultSweep, ReadingTheConfigurationAsksNothing) {
  const Sweep sweep("2", {}, [](const SweepBox&) { return std::to_string(FolderMgr().GetFolders().size()); });
  EXPECT_EQ(Functions({"nothing"}), sweep.Run());
}

TEST(FaultSweep, SavingTheConfiguration) {
  const Sweep sweep("saved", kNoRoot, [](const SweepBox&) { return FolderMgr().Save(), "saved"; });
  EXPECT_EQ(Functions({"nothing", "NLIBGroupIsAdminGroupMem", "ResetCredentialsByName"}), sweep.Run());
}

TEST(FaultSweep, ChangingTheConfiguration) {
  const Sweep upsert("av", kNoShare, [](const SweepBox&) {
    FolderMgr manager;
    std::shared_ptr<Folder> diff;
    const std::string error = ErrorOf([&] { manager.Upsert(diff, MakeFolder("/homes/a#snapshot#recycle/b", "da")); });
    EXPECT_EQ(error == "none" ? 3U : 2U, manager.GetFolders().size());
    return error == "none" ? KindsOf(diff) : error;
  });
  EXPECT_EQ(Functions({"nothing", "NIMOShareGet", "NIMOShareFree"}), upsert.Run());

  const Sweep remove("ap", kNoShare, [](const SweepBox&) {
    FolderMgr manager;
    std::shared_ptr<Folder> diff;
    manager.Delete(diff, kPath);
    return KindsOf(diff);
  });
  EXPECT_EQ(Functions({"nothing", "NIMOShareGet", "NIMOShareFree"}), remove.Run());
}

TEST(FaultSweep, AskingTheConfiguration) {
  const std::vector<Action> kQuestions = {
      [](const SweepBox& box) {
        return YesNo(PathOf(FolderMgr().GetMostSuitableCfg(box.full_path() + "/x")) == kPath);
      },
      [](const SweepBox& box) { return YesNo(FolderMgr().IsFullPathIndexed(box.full_path() + "/x")); },
      [](const SweepBox& box) { return YesNo(FolderMgr().IsFullPathHasOwnCfg(box.full_path())); },
      [](const SweepBox& box) { return YesNo(FolderMgr().IsFullPathNeedMeta(box.full_path() + "/x.mkv")); },
  };
  for (const Action& question : kQuestions) {
    EXPECT_EQ(Functions({"nothing", "NIMOShareGet", "NIMOShareFree"}), Sweep("yes", kNoShare, question).Run());
  }
}

TEST(FaultSweep, AFailedQuestionCanBeAskedAgain) {
  for (size_t nth = 1; nth <= 4; ++nth) {
    const SweepBox box;
    const FolderMgr manager;
    FakePlatform::FailCall(nth);
    const std::string error = ErrorOf([&] { manager.GetMostSuitableCfg(box.full_path()); });
    EXPECT_EQ(nth == 1 ? "800 homes" : "none", error) << "one call to get the share of all entries, and one to free it";
    EXPECT_EQ(kPath, PathOf(manager.GetMostSuitableCfg(box.full_path())));
  }
}

TEST(FaultSweep, ChangingTheStatus) {
  const std::vector<std::function<void(StatusMgr&)>> kChanges = {
      [](StatusMgr& status) { status.Pause(1); },
      [](StatusMgr& status) { status.Resume(); },
      [](StatusMgr& status) { status.SetShareStatus("homes", 1); },
      [](StatusMgr& status) { status.UnsetShareStatus("homes", 3); },
      [](StatusMgr& status) { status.ClearShareStatus("homes"); },
      [](StatusMgr& status) { status.SetVMTouchEnabled(true); },
      [](StatusMgr& status) { status.Save(); },
  };
  for (const auto& change : kChanges) {
    const Sweep sweep("saved", kNoRoot, [&](const SweepBox&) {
      const IndexerDouble daemon;
      StatusMgr status;
      change(status);
      return "saved";
    });
    EXPECT_EQ(Functions({"nothing", "NLIBGroupIsAdminGroupMem", "ResetCredentialsByName"}), sweep.Run());
  }
}

TEST(FaultSweep, WhetherAPathCanBeIndexed) {
  const Sweep sweep("yes", PathOutcomes("no"), [](const SweepBox&) { return YesNo(CanPathBeIndexed(kPath)); });
  const Functions failed = sweep.Run();
  for (const char* const function :
       {"NIMOShareGet", "NLIBFhsPathInSnapshot", "NIMOGetFSType", "NIMOFSIsRemoteFS", "NIMOFSIsImageFS",
        "NIMOShareNamePathGet", "NLIBShareIsEncryptedGet", "NLIBShareIsReadOnlyGet", "NIMOShareIsShareRecycle",
        "NIMORecycleUserHomePathIsExist", "NIMOFSDirIsMntPoint", "NIMOEAIsHiddenDir"}) {
    EXPECT_EQ(1U, failed.count(function)) << function;
  }
}

TEST(FaultSweep, WhetherAMountPointCanBeIndexed) {
  Outcomes outcomes = PathOutcomes("no");
  outcomes["NIMOFSDirIsMntPoint"] = "yes";  // a failure does not make it one
  Sweep sweep("no", outcomes, [](const SweepBox&) { return YesNo(CanPathBeIndexed(kPath)); });
  sweep.Arrange([](const SweepBox& box) { FakeFileSystem().AddMountPoint(box.full_path()); });
  EXPECT_EQ(1U, sweep.Run().count("NLIBShareIsEncryptionGet"));
}

TEST(FaultSweep, ConvertingPaths) {
  const Sweep to_full("<path>", kNoShare, [](const SweepBox&) {
    std::string full_path;
    GetFullPath(full_path, kPath);
    return full_path;
  });
  EXPECT_EQ(1U, to_full.Run().count("NIMOShareGet"));

  const Sweep to_share("homes", PathOutcomes(""), [](const SweepBox& box) {
    std::string share;
    std::string share_path;
    GetShareNamePathByFullPath(share, share_path, box.full_path());
    return share;
  });
  EXPECT_EQ(Functions({"nothing", "NIMOShareNamePathGet"}), to_share.Run());
}

TEST(FaultSweep, TheStatusOfAFolder) {
  constexpr char kRefused[] = R"({"desc":"invalid_path","text":"error"})";
  const Sweep one(R"({"text":"processing"})", PathOutcomes(kRefused), [](const SweepBox&) {
    Json::Value status;
    MakeFolder(kPath)->GetStatus(status);
    return toString(status);
  });
  EXPECT_EQ(1U, one.Run().count("FILEIDXQueuePathCompose"));

  const Sweep indexing("yes", PathOutcomes(""), [](const SweepBox&) { return YesNo(MakeFolder(kPath)->IsIndexing()); });
  EXPECT_EQ(1U, indexing.Run().count("FILEIDXQueuePathCompose"));
}

TEST(FaultSweep, TheStatusOfManyFolders) {
  Json::Value additional(Json::arrayValue);
  additional.append("status");
  const Sweep sweep("processing processing ", PathOutcomes("error processing "), [&](const SweepBox&) {
    std::string texts;
    for (const Json::Value& folder : GetDataWithAdditional({MakeFolder(kPath), MakeFolder(kPath)}, additional)) {
      texts += folder["additional"]["status"]["text"].asString() + " ";
    }
    // Which of the two was refused depends on the call.
    return texts == "processing error " ? "error processing " : texts;
  });
  EXPECT_EQ(1U, sweep.Run().count("FILEIDXQueuePathCompose"));
}

TEST(FaultSweep, AddingAnEvent) {
  const Sweep sweep("2 lines", PathOutcomes(""), [](const SweepBox& box) {
    AddCustomEvent(EVENT_REINDEX, box.full_path(), "", Json::Value());
    const std::string lines = ReadFile(box.queue());
    return std::to_string(std::count(lines.begin(), lines.end(), '\n')) + " lines";
  });
  const Functions failed = sweep.Run();
  EXPECT_EQ(Functions({"nothing", "NIMOShareNamePathGet", "NIMOShareGet", "FILEIDXQueuePathCompose",
                       "NLIBShareIsEncryptedGet", "NLIBShareIsReadOnlyGet", "NIMOShareFree"}),
            failed);
}

TEST(FaultSweep, AddingAnEventToAQueueThatCannotBeRead) {
  Outcomes outcomes = Joined(PathOutcomes(""), kNoRoot);
  Sweep sweep("906 Malformed event_raw: {bad", outcomes, [](const SweepBox& box) {
    AddCustomEvent(EVENT_REINDEX, box.full_path(), "", Json::Value());
    return "added";
  });
  sweep.Arrange([](const SweepBox& box) { WriteFile(box.queue(), "{bad\n"); });
  EXPECT_EQ(1U, sweep.Run().count("ResetCredentialsByName")) << "the share is flagged";
}

TEST(FaultSweep, TheSettingsOfAShare) {
  const auto text = [](const std::string& function) { return "502 " + function + " failed, share=homes"; };
  const auto sweep = [](const std::string& success, const std::string& function, const std::string& outcome,
                        const std::function<std::string(const sdk::SDKShare&)>& question) {
    const Sweep entry(success, Joined(kNoShare, {{function, outcome}}),
                      [&](const SweepBox&) { return question(sdk::SDKShare("homes")); });
    EXPECT_EQ(Functions({"nothing", "NIMOShareGet", "NIMOShareFree", function}), entry.Run());
  };
  sweep("no", "NLIBShareIsEncryptionGet", text("NLIBShareIsEncryptionGet"),
        [](const sdk::SDKShare& share) { return YesNo(share.IsEncryption()); });
  sweep("no", "NLIBShareRecycleStatusGet", text("NLIBShareRecycleStatusGet"),
        [](const sdk::SDKShare& share) { return YesNo(share.IsEnableRecycleBin()); });
  sweep("no", "NLIBShareHideUnreadableGet", "no",
        [](const sdk::SDKShare& share) { return YesNo(share.IsHideUnReadable()); });
  sweep("2", "NIMOShareUserPrivCalc", "-1",
        [](const sdk::SDKShare& share) { return std::to_string(share.GetPrivilege("ann")); });
  sweep("fileindex_homes", "FILEIDXGetIndexID", text("FILEIDXGetIndexID"),
        [](const sdk::SDKShare& share) { return share.GetDBName(); });
  sweep("/db", "FILEIDXDBPathCompose", text("FILEIDXDBPathCompose"), [](const sdk::SDKShare& share) {
    const std::string path = share.GetDBPath();
    return path.substr(path.size() - 3);
  });
}

TEST(FaultSweep, WhetherAShareHasRoomIsDoubtedOnlyForAShortage) {
  const Sweep sweep("yes", Joined(kNoShare, {{"NIMOQuotaIsEnough", "yes"}}),
                    [](const SweepBox&) { return YesNo(sdk::SDKShare("homes").IsSpaceEnough()); });
  EXPECT_EQ(1U, sweep.Run().count("NIMOQuotaIsEnough"));
}

TEST(FaultSweep, ListingTheShares) {
  const Sweep sweep(
      "1", {{"NLIBCSzListAlloc", "121 NLIBCSzListAlloc failed"}, {"NLIBShareEnum", "121 NLIBShareEnum failed"}},
      [](const SweepBox&) { return std::to_string(sdk::SDKShare::Enum().size()); });
  const Functions failed = sweep.Run();
  EXPECT_EQ(1U, failed.count("NLIBCSzListAlloc"));
  EXPECT_EQ(1U, failed.count("NLIBShareEnum"));
}

}  // namespace
}  // namespace orbisk::fileindex::test
