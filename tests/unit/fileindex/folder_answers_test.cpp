// The management operations that answer: lists, single folders, groups and the summary.
#include <gtest/gtest.h>

#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/json.h"
#include "tests/support/fake_filesystem.h"
#include "tests/unit/fileindex/management_box.h"
#include "tests/unit/fileindex/queue_lines.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::FakeFileSystem;
using orbisk::test::WriteFile;

class FolderAnswers : public testing::Test {
 protected:
  FolderAnswers() {
    for (const char* const share : {"a", "b", "c", "d"}) {
      box_.AddShare(share);
    }
  }

  // A page of all folders by name.
  static Json::Value Page(unsigned long offset, unsigned long limit, const Json::Value& additional = List({})) {
    Json::Value answer("what was there before");
    FolderList(answer, offset, limit, "name", "asc", "all", "", additional);
    return answer;
  }
  static Story NamesIn(const Json::Value& page) {
    Story names;
    for (const Json::Value& folder : page["folder"]) {
      names.push_back(folder["name"].asString());
    }
    return names;
  }

  ManagementBox box_;
};

TEST_F(FolderAnswers, APageHasItsFoldersTheCountOfAllAndTheOffset) {
  WriteFoldersFile({Entry("/a", "d", "C"), Entry("/b", "d", "A"), Entry("/c", "d", "B")});

  const Json::Value page = Page(1, 1);

  EXPECT_EQ((std::vector<std::string>{"folder", "offset", "total"}), page.getMemberNames());
  EXPECT_EQ(Story{"B"}, NamesIn(page));
  EXPECT_EQ(MakeFolder("/c", "d", "B")->GetData(), page["folder"][0]);
  EXPECT_EQ(3U, page["total"].asUInt64());
  EXPECT_EQ(1U, page["offset"].asUInt64());
}

TEST_F(FolderAnswers, APageBeyondTheEndIsAnEmptyArrayWithTheOffsetAsGiven) {
  WriteFoldersFile({Entry("/a")});

  EXPECT_EQ(R"({"folder":[],"offset":18446744073709551615,"total":1})", toString(Page(~0UL, 5)));
  EXPECT_EQ(R"({"folder":[],"offset":0,"total":1})", toString(Page(0, 0)));
}

TEST_F(FolderAnswers, WithoutAConfigurationAPageIsEmpty) {
  EXPECT_EQ(R"({"folder":[],"offset":0,"total":0})", toString(Page(0, 10)));
}

TEST_F(FolderAnswers, TheSelectionIsSortDirectionGroupAndKeyword) {
  WriteFoldersFile({Entry("/a", "d", "one x", "g"), Entry("/b", "", "two x", "g"), Entry("/c", "d", "three x"),
                    Entry("/d", "d", "four", "g")});
  Json::Value answer;

  FolderList(answer, 0, 10, "document", "", "g", "X", List({}));
  EXPECT_EQ((Story{"two x", "one x"}), NamesIn(answer));
  FolderList(answer, 0, 10, "path", "DESC", "g", "", List({}));
  EXPECT_EQ((Story{"four", "two x", "one x"}), NamesIn(answer));
}

TEST_F(FolderAnswers, AdditionalInformationIsThatOfTheFolders) {
  WriteFoldersFile({Entry("/a", "d"), Entry("/b", "d")});
  WriteFile(ConfigBox::QueuePath("b"), Join({Create(box_.Full("/b/f"))}));

  const Json::Value page = Page(0, 10, List({"status"}));

  EXPECT_EQ("finished", page["folder"][0]["additional"]["status"]["text"].asString());
  EXPECT_EQ("processing", page["folder"][1]["additional"]["status"]["text"].asString());
}

TEST_F(FolderAnswers, WhatNobodyKnowsIsRefusedAndTheAnswerLeftAlone) {
  WriteFoldersFile({Entry("/a")});
  Json::Value answer("kept");
  const auto list = [&](const Json::Value& additional) { FolderList(answer, 0, 1, "", "", "all", "", additional); };

  EXPECT_EQ("120 {}", ErrorOf([&] { list(Json::Value(Json::objectValue)); }));
  EXPECT_EQ("120 Unknown additioal: size", ErrorOf([&] { list(List({"size"})); }));
  EXPECT_EQ("kept", answer.asString());
}

TEST_F(FolderAnswers, OneFolderIsItsRecord) {
  WriteFoldersFile({Entry("/a", "dp", "A", "g"), Entry("/b")});
  Json::Value answer("what was there before");

  FolderGet(answer, "/a");

  EXPECT_EQ(MakeFolder("/a", "dp", "A", "g")->GetData(), answer);
}

TEST_F(FolderAnswers, AFolderThatIsNotConfiguredIsRefusedByItsPath) {
  WriteFoldersFile({Entry("/a")});
  Json::Value answer("kept");

  EXPECT_EQ("902 /a/", ErrorOf([&] { FolderGet(answer, "/a/"); }));
  EXPECT_EQ("kept", answer.asString());
}

TEST_F(FolderAnswers, GroupsAreSortedAndNamedOnce) {
  WriteFoldersFile({Entry("/a", "d", "", "z"), Entry("/b", "d", "", "B"), Entry("/c", "d", "", "z"), Entry("/d")});
  Json::Value answer("what was there before");

  FolderListGroups(answer);

  EXPECT_EQ(R"(["B","z"])", toString(answer));
}

TEST_F(FolderAnswers, WithoutGroupsTheListIsAnEmptyArray) {
  Json::Value answer;
  FolderListGroups(answer);
  EXPECT_EQ("[]", toString(answer));
}

// Each folder is a share's, and the share makes its status.
class Summary : public FolderAnswers {
 protected:
  static void MakeWanted(const std::string& share) { StatusMgr().SetShareStatus(share, 1); }
  void MakeBusy(const std::string& share) const {
    WriteFile(ConfigBox::QueuePath(share), Join({Create(box_.Full("/" + share) + "/f")}));
  }
  void MakeRefused(const std::string& share) const {
    FakeFileSystem().SetType(box_.Full("/" + share), orbisk::test::kFakeRemoteFS);
  }
  void MakePaused() const { WriteFile(kStatusFile, R"({"resume_time":0})"); }

  static Json::Value Summarised() {
    Json::Value answer("what was there before");
    FolderSummary(answer);
    return answer;
  }
};

TEST_F(Summary, OfNothingIsFinished) {
  EXPECT_EQ(R"({"items":[],"status":"finished"})", toString(Summarised()));
}

TEST_F(Summary, HasFoldersWithoutAGroupOneByOneAndGroupsAsOneItemEachAfterThem) {
  WriteFoldersFile({Entry("/a", "d", "Z", ""), Entry("/b", "d", "In", "h"), Entry("/c", "d", "A", ""),
                    Entry("/d", "d", "Alone", "g")});
  MakeBusy("b");

  EXPECT_EQ(R"({"items":[{"name":"Z","text":"finished"},{"name":"A","text":"finished"},)"
            R"({"group":true,"name":"g","text":"finished"},{"group":true,"name":"h","text":"processing"}],)"
            R"("status":"processing"})",
            toString(Summarised()));
}

TEST_F(Summary, AnItemSaysWhyItIsRefused) {
  WriteFoldersFile({Entry("/a", "d", "A")});
  MakeRefused("a");

  EXPECT_EQ(R"({"items":[{"desc":"invalid_path","name":"A","text":"error"}],"status":"error"})",
            toString(Summarised()));
}

TEST_F(Summary, AGroupDoesNotSayWhyAFolderOfItIsRefused) {
  WriteFoldersFile({Entry("/a", "d", "A", "g")});
  MakeRefused("a");

  EXPECT_EQ(R"({"items":[{"group":true,"name":"g","text":"error"}],"status":"error"})", toString(Summarised()));
}

TEST_F(Summary, TheStatusOfAGroupIsThatOfItsFoldersTogether) {
  WriteFoldersFile({Entry("/a", "d", "A", "g"), Entry("/b", "d", "B", "g"), Entry("/c", "d", "C", "g")});
  MakeWanted("a");

  EXPECT_EQ(R"({"items":[{"group":true,"name":"g","text":"need_reindex"}],"status":"need_reindex"})",
            toString(Summarised()));
}

TEST_F(Summary, ProcessingHidesANeededReindexThatCameBefore) {
  WriteFoldersFile({Entry("/a"), Entry("/b")});
  MakeWanted("a");
  MakeBusy("b");

  EXPECT_EQ("processing", Summarised()["status"].asString());
}

TEST_F(Summary, ANeededReindexHidesProcessingThatCameBefore) {
  WriteFoldersFile({Entry("/b"), Entry("/a")});
  MakeWanted("a");
  MakeBusy("b");

  EXPECT_EQ("need_reindex", Summarised()["status"].asString());
}

TEST_F(Summary, AnErrorIsHiddenByNothing) {
  WriteFoldersFile({Entry("/a"), Entry("/b"), Entry("/c"), Entry("/d")});
  MakeRefused("a");
  MakeWanted("b");
  MakeBusy("c");

  EXPECT_EQ("error", Summarised()["status"].asString());
}

TEST_F(Summary, AnErrorHidesWhateverCameBefore) {
  WriteFoldersFile({Entry("/b"), Entry("/c"), Entry("/a")});
  MakeRefused("a");
  MakeWanted("b");
  MakeBusy("c");

  EXPECT_EQ("error", Summarised()["status"].asString());
}

TEST_F(Summary, APauseDoesNotHideANeededReindexThatCameBefore) {
  WriteFoldersFile({Entry("/a"), Entry("/b")});
  MakePaused();
  MakeWanted("a");
  MakeBusy("b");

  EXPECT_EQ("need_reindex", Summarised()["status"].asString());
}

TEST_F(Summary, ANeededReindexHidesAPauseThatCameBefore) {
  WriteFoldersFile({Entry("/b"), Entry("/a")});
  MakePaused();
  MakeWanted("a");
  MakeBusy("b");

  EXPECT_EQ("need_reindex", Summarised()["status"].asString());
}

TEST_F(Summary, WhatIsFinishedChangesNothingWhereverItStands) {
  for (const auto& entries : {std::vector{Entry("/a"), Entry("/b")}, std::vector{Entry("/b"), Entry("/a")}}) {
    WriteFoldersFile(entries);
    MakePaused();
    MakeBusy("b");
    EXPECT_EQ("paused", Summarised()["status"].asString());
  }
}

TEST_F(Summary, GroupsComeIntoTheWholeAfterTheFoldersWithout) {
  WriteFoldersFile({Entry("/a", "d", "", "g"), Entry("/b")});
  MakeBusy("a");
  MakeWanted("b");

  EXPECT_EQ("processing", Summarised()["status"].asString()) << "the group is met last, though it stands first";
}

TEST_F(Summary, OfFoldersThatCannotBeAskedFails) {
  WriteFoldersFile({Entry("/gone/a")});
  Json::Value answer("kept");

  EXPECT_EQ("800 gone", ErrorOf([&] { FolderSummary(answer); }));
  EXPECT_EQ("kept", answer.asString());
}

}  // namespace
}  // namespace orbisk::fileindex::test
