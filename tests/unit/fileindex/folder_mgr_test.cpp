// The folder manager: its file, its changes and their differences, and the questions about shares, groups and kinds.
#include "orbisk/fileindex/folder_mgr.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "orbisk/error.h"
#include "orbisk/json.h"
#include "tests/support/fake_share.h"
#include "tests/support/fake_user.h"
#include "tests/support/record_capture.h"
#include "tests/unit/fileindex/config_box.h"
#include "tests/unit/fileindex/failing_chmod.h"
#include "tests/unit/fileindex/queue_lines.h"
#include "tests/unit/record_match.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::ExpectFailure;
using orbisk::test::FakeShares;
using orbisk::test::FakeUsers;
using orbisk::test::ReadFile;
using orbisk::test::RecordCapture;
using orbisk::test::TheFakeIdentity;
using orbisk::test::WriteFile;
using Paths = std::vector<std::string>;
using Names = std::set<std::string>;

class FolderMgrTest : public testing::Test {
 protected:
  FolderMgrTest() {
    box_.AddShare("photo");
    box_.AddShare("music");
  }

  std::string Governs(const FolderMgr& manager, const std::string& share_path) const {
    return PathOf(manager.GetMostSuitableCfg(box_.Full(share_path)));
  }

  ConfigBox box_;
};

void ExpectCannotLoad(const std::string& condition) {
  const std::string reason = std::string("Cannot load json: ") + kFoldersFile;
  const RecordCapture capture;
  errno = 0;
  EXPECT_EQ("504 " + reason, ErrorOf([] { const FolderMgr manager; }));
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "folder_mgr.cpp", "FolderMgr", condition, reason);
}

using FoldersFile = FolderMgrTest;

TEST_F(FoldersFile, AMissingFileIsAnEmptyConfiguration) {
  const FolderMgr manager;
  EXPECT_TRUE(manager.IsEmpty());
  EXPECT_TRUE(manager.GetFolders().empty());
  EXPECT_FALSE(manager.HasFolder("/photo"));
  EXPECT_EQ("null", Governs(manager, "/photo"));
  EXPECT_FALSE(manager.IsFullPathNeedMeta(box_.Full("/photo/a.txt")));
  EXPECT_FALSE(manager.IsFullPathIndexed(box_.Full("/photo")));
  EXPECT_FALSE(manager.IsFullPathHasOwnCfg(box_.Full("/photo")));
  EXPECT_FALSE(manager.IsShareIndexed("photo"));
  EXPECT_EQ(Names(), manager.GetIndexedShares());
  EXPECT_EQ(Names(), manager.GetGroups());
}

TEST_F(FoldersFile, SavingAnEmptyConfigurationMakesAnEmptyArray) {
  FolderMgr().Save();
  EXPECT_EQ("[]", ReadFile(kFoldersFile));
  EXPECT_TRUE(FolderMgr().IsEmpty());
}

TEST_F(FoldersFile, EntriesComeInTheOrderOfTheFile) {
  EXPECT_EQ(Paths({"/photo/z", "/music", "/photo/a"}),
            PathsOf(Manager({Entry("/photo/z"), Entry("/music"), Entry("/photo/a")})));
}

TEST_F(FoldersFile, WhatIsSavedIsTheDataOfEveryEntryInOrder) {
  const FolderMgr manager =
      Manager({Entry("/photo/z", "d", "Z", "family"), Entry("/music", "a"), Entry("/photo/\xff")});
  manager.Save();
  Json::Value expected(Json::arrayValue);
  for (const auto& folder : manager.GetFolders()) {
    expected.append(folder->GetData());
  }
  EXPECT_EQ(3U, expected.size());
  EXPECT_EQ(11U, expected[0].size());
  EXPECT_EQ(toString(expected), ReadFile(kFoldersFile));
}

TEST_F(FoldersFile, WhatCannotBeParsedIsRefused) {
  for (const char* const text : {"", "[", "[]x", "{\"a\":1", "not json"}) {
    WriteFile(kFoldersFile, text);
    ExpectCannotLoad("IsFileExist(kFileIndexFoldersCfgPath) && !folders.fromFile(kFileIndexFoldersCfgPath)");
  }
}

TEST_F(FoldersFile, ADocumentThatIsNoListIsRefusedAndNotReplacedByAnEmptyOne) {
  for (const char* const text : {"{}", "7", "\"text\"", "true"}) {
    WriteFile(kFoldersFile, text);
    ExpectCannotLoad("!folders.isArray() && !folders.isNull()");
  }
}

TEST_F(FoldersFile, NullIsAnEmptyList) {
  WriteFile(kFoldersFile, "null");
  EXPECT_TRUE(FolderMgr().IsEmpty());
}

TEST_F(FoldersFile, WhatIsNoRegularFileCountsAsMissing) {
  std::filesystem::create_directory(kFoldersFile);
  EXPECT_TRUE(FolderMgr().IsEmpty());
}

TEST_F(FoldersFile, OneBadEntryFailsTheWholeLoad) {
  EXPECT_EQ("120 \"all\" is reserved group name", ErrorOf([] {
              Manager({Entry("/photo"), Entry("/music", "a", "M", "all"), Entry("/photo/b")});
            }));
  EXPECT_EQ("120 Not an object, data=7", ErrorOf([] { Manager({Entry("/photo"), Json::Value(7)}); }));
  Json::Value nameless = Entry("/photo/a");
  nameless.removeMember("name");
  EXPECT_EQ("120 Missing property: name, data=" + toString(nameless), ErrorOf([&] {
              Manager({nameless, Entry("/photo")});
            }));
}

TEST_F(FoldersFile, LoadingAsksTheBoxNothing) {
  const size_t asked = orbisk::test::FakePlatform::call_count();
  Manager({Entry("/gone/a"), Entry("malformed")});
  EXPECT_EQ(asked, orbisk::test::FakePlatform::call_count());
}

TEST_F(FoldersFile, SavingActsAsRootAndReplacesAnyMode) {
  WriteFile(kFoldersFile, "[]");
  ASSERT_EQ(0, chmod(kFoldersFile, 0600));
  FolderMgr().Save();
  struct stat status {};
  ASSERT_EQ(0, stat(kFoldersFile, &status));
  EXPECT_EQ(0644U, status.st_mode & 07777U);
  ASSERT_EQ(1U, FakeUsers().reset_credentials.calls().size());
  EXPECT_EQ("root", FakeUsers().reset_credentials.calls()[0].arguments.at(0));
}

TEST_F(FoldersFile, AModeOfTheProcessDoesNotMatter) {
  const mode_t old_mask = umask(0077);
  FolderMgr().Save();
  umask(old_mask);
  struct stat status {};
  ASSERT_EQ(0, stat(kFoldersFile, &status));
  EXPECT_EQ(0644U, status.st_mode & 07777U);
}

TEST_F(FoldersFile, AProcessThatCannotBeRootSavesNothing) {
  const FolderMgr manager = Manager({Entry("/photo")});
  const std::string before = ReadFile(kFoldersFile);
  FakeUsers().reset_credentials.FailAt(1);
  EXPECT_EQ("503 ", ErrorOf([&] { manager.Save(); }));
  EXPECT_EQ(before, ReadFile(kFoldersFile));
}

TEST_F(FoldersFile, AnotherAccountIsRootFromThenOnAndStaysItselfWhenThatFails) {
  FakeUsers().Add("ann", 1000, 100);
  TheFakeIdentity() = {1000, 100};
  FakeUsers().reset_credentials.FailAt(1);
  EXPECT_EQ("503 ", ErrorOf([] { FolderMgr().Save(); }));
  EXPECT_EQ(1000U, geteuid());
  FolderMgr().Save();
  EXPECT_EQ(0U, geteuid()) << "the guard goes to the account that it was made with";
  EXPECT_EQ(0U, getegid());
}

TEST_F(FoldersFile, AFileThatCannotBeWrittenIsAnError) {
  const FolderMgr manager;
  std::filesystem::create_directories(std::string(kFoldersFile) + "/in the way");
  const RecordCapture capture;
  EXPECT_EQ(std::string("505 ") + kFoldersFile, ErrorOf([&] { manager.Save(); }));
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "folder_mgr.cpp", "Save", "!folders.toFile(kFileIndexFoldersCfgPath)",
                kFoldersFile, "Is a directory");
}

TEST_F(FoldersFile, AModeThatCannotBeSetIsAnErrorWithoutAReasonAndTheFileIsThere) {
  const FolderMgr manager;
  const FailingChmod failing;
  const RecordCapture capture;
  EXPECT_EQ("502 ", ErrorOf([&] { manager.Save(); }));
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "folder_mgr.cpp", "Save", "-1 == chmod(kFileIndexFoldersCfgPath, 0644)", "",
                "Operation not permitted");
  EXPECT_EQ("[]", ReadFile(kFoldersFile));
}

TEST_F(FoldersFile, AnotherManagerDoesNotSeeWhatWasNotSaved) {
  FolderMgr manager;
  std::shared_ptr<Folder> diff;
  manager.Upsert(diff, MakeFolder("/photo"));
  EXPECT_FALSE(FolderMgr().HasFolder("/photo"));
  manager.Save();
  EXPECT_TRUE(FolderMgr().HasFolder("/photo"));
}

using FolderLookup = FolderMgrTest;

TEST_F(FolderLookup, EntriesAreFoundByTheirPathByteForByte) {
  const FolderMgr manager = Manager({Entry("/photo/a", "d"), Entry("/photo/a/", "v")});
  std::shared_ptr<Folder> found;
  manager.Get(found, "/photo/a/");
  EXPECT_EQ("v", KindsOf(found));
  EXPECT_EQ(manager.GetFolders()[1], found) << "the entry itself, not a copy";
  EXPECT_TRUE(manager.HasFolder("/photo/a"));
  for (const char* const path : {"/photo", "/photo/A", "/photo//a", "/photo/a/b", "photo/a", ""}) {
    EXPECT_FALSE(manager.HasFolder(path)) << path;
  }
}

TEST_F(FolderLookup, WhatIsNotThereIsAnErrorWithThePath) {
  const FolderMgr manager = Manager({Entry("/photo/a")});
  const auto before = MakeFolder("/x");
  std::shared_ptr<Folder> found = before;
  const RecordCapture capture;
  errno = 0;
  EXPECT_EQ("902 /photo/A", ErrorOf([&] { manager.Get(found, "/photo/A"); }));
  EXPECT_EQ(before, found);
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "folder_mgr.cpp", "Get", "it == folders_.end()", "/photo/A");
}

TEST_F(FolderLookup, SharesAndGroupsOfAllEntries) {
  const FolderMgr manager = Manager({Entry("/photo/a", "", "", "family"), Entry("/photo/b"),
                                     Entry("/music", "", "", "work"), Entry("/gone/x", "", "", "family")});
  EXPECT_EQ(Names({"gone", "music", "photo"}), manager.GetIndexedShares());
  EXPECT_EQ(Names({"family", "work"}), manager.GetGroups());
  EXPECT_TRUE(manager.IsShareIndexed("photo"));
  EXPECT_TRUE(manager.IsShareIndexed("gone")) << "nobody asks the box";
  for (const char* const share : {"Photo", "phot", "", "photo/a"}) {
    EXPECT_FALSE(manager.IsShareIndexed(share)) << share;
  }
}

TEST_F(FolderLookup, AMalformedEntryFailsTheQuestionsAboutShares) {
  const FolderMgr manager = Manager({Entry("/photo/a"), Entry("photo")});
  EXPECT_TRUE(manager.IsShareIndexed("photo")) << "answered by the entry before it";
  EXPECT_EQ("120 ", ErrorOf([&] { (void)manager.IsShareIndexed("music"); }));
  EXPECT_EQ("120 ", ErrorOf([&] { (void)manager.GetIndexedShares(); }));
}

TEST_F(FolderLookup, TheNearestEntryGoverns) {
  const FolderMgr manager = Manager({Entry("/photo/a"), Entry("/photo/a/b")});
  EXPECT_EQ("/photo/a/b", Governs(manager, "/photo/a/b/c"));
  EXPECT_EQ("/photo/a/b", Governs(manager, "/photo/a/b"));
  EXPECT_EQ("/photo/a", Governs(manager, "/photo/a/bc"));
  EXPECT_EQ("/photo/a", Governs(manager, "/photo/a"));
  EXPECT_EQ("null", Governs(manager, "/photo/ab"));
  EXPECT_EQ("null", Governs(manager, "/photo"));
  EXPECT_EQ("null", Governs(manager, ""));
}

TEST_F(FolderLookup, AnEntryWithATrailingSlashHoldsNothingBelowIt) {
  const FolderMgr manager = Manager({Entry("/photo/a/")});
  EXPECT_EQ("null", Governs(manager, "/photo/a"));
  EXPECT_EQ("null", Governs(manager, "/photo/a/b"));
  EXPECT_FALSE(manager.IsFullPathIndexed(box_.Full("/photo/a/b")));
  EXPECT_TRUE(manager.IsFullPathHasOwnCfg(box_.Full("/photo/a/")));
}

TEST_F(FolderLookup, OfTwoEntriesWithOneFullPathTheEarlierGoverns) {
  FolderMgr manager = Manager({Entry("/photo/a", "d"), Entry("/photo/b", "v")});
  manager.GetFolders()[1]->SetPath("/photo/a");
  EXPECT_EQ("d", KindsOf(manager.GetMostSuitableCfg(box_.Full("/photo/a"))));
}

TEST_F(FolderLookup, OwnConfigurationIsExact) {
  const FolderMgr manager = Manager({Entry("/photo/a")});
  EXPECT_TRUE(manager.IsFullPathHasOwnCfg(box_.Full("/photo/a")));
  EXPECT_FALSE(manager.IsFullPathHasOwnCfg(box_.Full("/photo/a/b")));
  EXPECT_FALSE(manager.IsFullPathHasOwnCfg("/photo/a"));
  EXPECT_TRUE(manager.IsFullPathIndexed(box_.Full("/photo/a/b")));
  EXPECT_FALSE(manager.IsFullPathIndexed("/photo/a/b")) << "a share path is no full path";
}

TEST_F(FolderLookup, AFilesKindIsAskedOfTheEntryThatGovernsIt) {
  const std::vector<std::pair<std::string, std::string>> kFiles = {
      {"d", "f.pdf"}, {"a", "f.mp3"}, {"v", "f.mkv"}, {"p", "f.jpg"}};
  for (const auto& [wanted, wanted_file] : kFiles) {
    const FolderMgr manager = Manager({Entry("/photo", "davp"), Entry("/photo/a", wanted)});
    for (const auto& [kind, file] : kFiles) {
      EXPECT_EQ(kind == wanted, manager.IsFullPathNeedMeta(box_.Full("/photo/a/" + file))) << wanted << file;
      EXPECT_TRUE(manager.IsFullPathNeedMeta(box_.Full("/photo/" + file)));
      EXPECT_FALSE(manager.IsFullPathNeedMeta(box_.Full("/music/" + file)));
    }
  }
}

TEST_F(FolderLookup, AFileOfNoKindIsAlwaysWantedWhereAnEntryGoverns) {
  const FolderMgr manager = Manager({Entry("/photo", "")});
  EXPECT_TRUE(manager.IsFullPathNeedMeta(box_.Full("/photo/f.unheard-of")));
  EXPECT_FALSE(manager.IsFullPathNeedMeta(box_.Full("/photo/README"))) << "without an extension, a document";
  EXPECT_FALSE(manager.IsFullPathNeedMeta(box_.Full("/music/f.unheard-of")));
}

using FolderChanges = FolderMgrTest;

TEST_F(FolderChanges, ANewEntryUnderNoneHasNoDifference) {
  FolderMgr manager;
  std::shared_ptr<Folder> diff = MakeFolder("/x");
  manager.Upsert(diff, MakeFolder("/photo/a"));
  EXPECT_EQ(nullptr, diff);
  EXPECT_EQ(Paths({"/photo/a"}), PathsOf(manager));
  EXPECT_EQ("/photo/a", Governs(manager, "/photo/a/b"));
}

TEST_F(FolderChanges, ANewEntryIsComparedWithTheOneAboveAndTheDifferenceBearsThatOnesName) {
  FolderMgr manager = Manager({Entry("/photo", "da", "Pictures", "family")});
  std::shared_ptr<Folder> diff;
  manager.Upsert(diff, MakeFolder("/photo/a", "dv"));
  EXPECT_EQ("av", KindsOf(diff));
  EXPECT_EQ("/photo", diff->GetPath());
  EXPECT_EQ("Pictures", diff->GetName());
  EXPECT_EQ("", diff->GetOwner() + diff->GetGroup() + diff->GetVolumeToBeClean());
  EXPECT_FALSE(diff->IsPrivileged());
  EXPECT_FALSE(diff->IsPaused());
}

TEST_F(FolderChanges, AChangedEntryMovesToTheEndAndIsComparedWithItself) {
  FolderMgr manager = Manager({Entry("/photo", "davp"), Entry("/photo/a", "d"), Entry("/music")});
  std::shared_ptr<Folder> diff;
  const auto changed = MakeFolder("/photo/a", "p");
  manager.Upsert(diff, changed);
  EXPECT_EQ("dp", KindsOf(diff));
  EXPECT_EQ("/photo/a", diff->GetPath());
  EXPECT_EQ(Paths({"/photo", "/music", "/photo/a"}), PathsOf(manager));
  EXPECT_EQ(changed, manager.GetFolders().back());
  EXPECT_EQ(changed, manager.GetMostSuitableCfg(box_.Full("/photo/a")));
}

TEST_F(FolderChanges, EveryEntryWithThePathIsReplaced) {
  FolderMgr manager = Manager({Entry("/photo/a", "d"), Entry("/music"), Entry("/photo/a", "v")});
  std::shared_ptr<Folder> diff;
  manager.Upsert(diff, MakeFolder("/photo/a", "p"));
  EXPECT_EQ(Paths({"/music", "/photo/a"}), PathsOf(manager));
  EXPECT_EQ("dp", KindsOf(diff)) << "the earlier one governed";
}

TEST_F(FolderChanges, AnEntryThatWasChangedInPlaceDiffersFromItselfInNothing) {
  FolderMgr manager = Manager({Entry("/photo/a", "d"), Entry("/music")});
  std::shared_ptr<Folder> entry;
  manager.Get(entry, "/photo/a");
  std::shared_ptr<Folder> diff;
  manager.Upsert(diff, entry);
  EXPECT_EQ("", KindsOf(diff));
  EXPECT_EQ(Paths({"/music", "/photo/a"}), PathsOf(manager));
}

TEST_F(FolderChanges, AnUpsertIntoAMissingShareChangesNothing) {
  FolderMgr manager = Manager({Entry("/photo/a")});
  std::shared_ptr<Folder> diff;
  EXPECT_EQ("800 gone", ErrorOf([&] { manager.Upsert(diff, MakeFolder("/gone/a")); }));
  EXPECT_EQ(Paths({"/photo/a"}), PathsOf(manager));
}

TEST_F(FolderChanges, DeletingUnderAnotherEntryGivesTheDifferenceOfTheTwo) {
  FolderMgr manager = Manager({Entry("/photo/a", "da"), Entry("/photo/a/b", "dp", "B")});
  std::shared_ptr<Folder> diff;
  manager.Delete(diff, "/photo/a/b");
  EXPECT_EQ("ap", KindsOf(diff));
  EXPECT_EQ("/photo/a/b", diff->GetPath());
  EXPECT_EQ("B", diff->GetName());
  EXPECT_EQ(Paths({"/photo/a"}), PathsOf(manager));
  EXPECT_EQ("/photo/a", Governs(manager, "/photo/a/b"));
}

TEST_F(FolderChanges, DeletingALoneEntryChangesEveryKind) {
  for (const char* const kinds : {"", "d", "davp"}) {
    FolderMgr manager = Manager({Entry("/photo/a", kinds, "A")});
    std::shared_ptr<Folder> diff;
    manager.Delete(diff, "/photo/a");
    EXPECT_EQ("davp", KindsOf(diff));
    EXPECT_EQ("/photo/a", diff->GetPath());
    EXPECT_EQ("A", diff->GetName());
    EXPECT_FALSE(diff->IsPrivileged());
    EXPECT_FALSE(diff->IsPaused());
    EXPECT_TRUE(manager.IsEmpty());
  }
}

TEST_F(FolderChanges, DeletingAnUnknownPathChangesNothing) {
  FolderMgr manager = Manager({Entry("/photo/a", "da")});
  std::shared_ptr<Folder> diff = MakeFolder("/x");
  manager.Delete(diff, "/music/x");
  EXPECT_EQ(nullptr, diff);
  manager.Delete(diff, "/photo/a/x");
  EXPECT_EQ("", KindsOf(diff)) << "governed by the same entry before and after";
  EXPECT_EQ("/photo/a", diff->GetPath());
  EXPECT_EQ(Paths({"/photo/a"}), PathsOf(manager));
}

TEST_F(FolderChanges, DeletingInAMissingShareFailsAndChangesNothing) {
  FolderMgr manager = Manager({Entry("/gone/a"), Entry("/photo/a")});
  std::shared_ptr<Folder> diff;
  EXPECT_EQ("800 gone", ErrorOf([&] { manager.Delete(diff, "/gone/a"); }));
  EXPECT_EQ("120 ", ErrorOf([&] { manager.Delete(diff, "photo/a"); }));
  EXPECT_EQ(Paths({"/gone/a", "/photo/a"}), PathsOf(manager));
}

TEST_F(FolderChanges, DeletingAShareKeepsTheOthersInOrder) {
  box_.AddShare("photos");
  FolderMgr manager =
      Manager({Entry("/music/z"), Entry("/photo"), Entry("/photos"), Entry("/photo/a/b"), Entry("/music/a")});
  EXPECT_TRUE(manager.IsFullPathIndexed(box_.Full("/photo/a/b")));
  manager.DeleteByShare("photo");
  EXPECT_EQ(Paths({"/music/z", "/photos", "/music/a"}), PathsOf(manager));
  EXPECT_FALSE(manager.IsFullPathIndexed(box_.Full("/photo/a/b")));
  manager.DeleteByShare("nothing");
  EXPECT_EQ(3U, manager.GetFolders().size());
}

TEST_F(FolderChanges, DeletingAShareGoesByTheShareThatWasSet) {
  FolderMgr manager = Manager({Entry("/photo/a"), Entry("/photo/b")});
  manager.GetFolders()[0]->SetShare("music");
  manager.DeleteByShare("photo");
  EXPECT_EQ(Paths({"/music/a"}), PathsOf(manager));
}

TEST_F(FolderChanges, AMalformedEntryFailsDeletingAShareWhichThenChangesNothing) {
  FolderMgr manager = Manager({Entry("/photo/a"), Entry("photo")});
  EXPECT_EQ("120 ", ErrorOf([&] { manager.DeleteByShare("photo"); }));
  EXPECT_EQ(Paths({"/photo/a", "photo"}), PathsOf(manager));
  EXPECT_NE(nullptr, manager.GetFolders()[0]) << "not moved from";
}

TEST(FolderDifference, EachKindChangesByItself) {
  const ConfigBox box;
  FolderMgr manager;
  for (unsigned bits = 0; bits < 256; ++bits) {
    const auto kinds = [](unsigned four) {
      return std::string((four & 1U) != 0 ? "d" : "") + ((four & 2U) != 0 ? "a" : "") + ((four & 4U) != 0 ? "v" : "") +
             ((four & 8U) != 0 ? "p" : "");
    };
    const unsigned before = bits & 15U;
    const unsigned after = bits >> 4U;
    const auto diff = manager.DiffCfg(MakeFolder("/a", kinds(before)), MakeFolder("/b", kinds(after)));
    EXPECT_EQ(kinds(before ^ after), KindsOf(diff));
  }
}

TEST(FolderDifference, OwnerGroupAndSwitchesAreNotTakenOver) {
  const ConfigBox box;
  FolderMgr manager;
  Json::Value data = Entry("/a", "d", "A", "family");
  data["owner"] = "ann";
  data["privileged"] = true;
  data["paused"] = true;
  data["volume_to_be_clean"] = "/volume1";
  const auto before = std::make_shared<Folder>(data);
  EXPECT_EQ(Folder("/a", "A", "", "", true, true, true, true, false, false).GetData(),
            manager.DiffCfg(before, nullptr)->GetData());
  EXPECT_EQ(Folder("/a", "A", "", "", false, false, false, false, false, false).GetData(),
            manager.DiffCfg(before, before)->GetData());
  EXPECT_EQ(nullptr, manager.DiffCfg(nullptr, before));
  EXPECT_EQ(nullptr, manager.DiffCfg(nullptr, nullptr));
}

}  // namespace
}  // namespace orbisk::fileindex::test
