// The comparison of index and disk, on real files and an index in memory.
#include "services/indexer/reconciler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/unit/indexer/failing_statx.h"
#include "tests/unit/indexer/reconciler_box.h"

namespace fileindexd {
namespace {

namespace fs = std::filesystem;
using orbisk::test::WriteFile;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

class ReconcilerTest : public ReconcilerBox {
 protected:
  // As it must be after any changes of the files.
  void ExpectEqualAfterAnyChanges(unsigned rounds);
};

TEST_F(ReconcilerTest, ATreeIsIndexedWithItsFolders) {
  Write("a.txt", "one");
  Write("x/y/b.txt", "two");

  Tree(dir_.path());

  EXPECT_EQ(Texts(), DiskTexts());
  EXPECT_EQ(Texts().size(), 5U);
}

TEST_F(ReconcilerTest, WhatCameIntoAFolderWithinOneThatIsNoLongerIndexedStays) {
  Write("x/old.txt", "one");
  Build();
  fs::remove(At("x/old.txt"));
  Write("x/y/new.txt", "two");
  policy_ = Policy(Policy::Folders{{At("x/y"), {}}});

  Tree(dir_.path());

  EXPECT_EQ(Texts(), (std::map<std::string, std::string>{{"/x/y", ""}, {"/x/y/new.txt", "two"}}));
}

TEST_F(ReconcilerTest, WhatIsUnchangedIsLeftAlone) {
  Write("a.txt", "one");
  Write("x/b.txt", "two");
  Build();

  Tree(dir_.path());

  EXPECT_THAT(index_.calls, IsEmpty());
}

TEST_F(ReconcilerTest, AFileThatWasYoungIsReadOnceMore) {
  Write("a.txt", "one");
  const auto written = std::chrono::system_clock::now();
  now_ = [written] { return written; };
  Tree(dir_.path());
  index_.calls.clear();
  Age();

  Tree(dir_.path());
  EXPECT_THAT(index_.calls, Contains("read " + At("a.txt")));
  index_.calls.clear();

  Tree(dir_.path());
  EXPECT_THAT(index_.calls, IsEmpty());
}

TEST_F(ReconcilerTest, OnlyWhatChangedIsReadAndOnlyAttributesIfTheyChanged) {
  Write("a.txt", "one");
  Write("b.txt", "two");
  Write("c.txt", "three");
  Build();
  Write("a.txt", "ONE");
  fs::permissions(At("b.txt"), fs::perms::owner_read);

  Tree(dir_.path());

  EXPECT_THAT(index_.calls, UnorderedElementsAre("read " + At("a.txt"), "attributes " + At("b.txt")));
  EXPECT_EQ(Texts(), DiskTexts());
}

// Of the same size, with the date of before.
void ReplaceUnseen(const std::string& path, const std::string& text) {
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  WriteFile(path, text);
  const timespec times[] = {info.st_atim, info.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST_F(ReconcilerTest, ContentThatWasReplacedBehindTheOldDateIsRead) {
  Write("a.txt", "one");
  Write("b.txt", "two");
  Build();
  ReplaceUnseen(At("a.txt"), "ONE");
  ReplaceUnseen(At("b.txt"), "TWO");

  Fresh().Update(At("b.txt"), true);
  Tree(dir_.path());

  EXPECT_THAT(index_.calls, ElementsAre("read " + At("b.txt"), "read " + At("a.txt")));
  EXPECT_EQ(Texts(), DiskTexts());
}

TEST_F(ReconcilerTest, AnEventOfAttributesIsBelievedUnlessEventsMayBeLost) {
  Write("a.txt", "one");
  Build();
  ReplaceUnseen(At("a.txt"), "one");

  Fresh().UpdateAttributes(At("a.txt"), false);
  EXPECT_THAT(index_.calls, ElementsAre("attributes " + At("a.txt")));
  index_.calls.clear();
  AwaitTick();
  ReplaceUnseen(At("a.txt"), "ONE");

  Fresh().UpdateAttributes(At("a.txt"), true);
  EXPECT_THAT(index_.calls, ElementsAre("read " + At("a.txt")));
}

TEST_F(ReconcilerTest, ARenamedFileIsNotReadAlsoWhenTheMoveIsDoneAgain) {
  Write("a.txt", "one");
  Build();
  fs::rename(At("a.txt"), At("b.txt"));
  Fresh().Move(At("a.txt"), At("b.txt"));
  Reconciler& again = Fresh();

  again.Move(At("a.txt"), At("b.txt"));
  again.Tree(At("a.txt"));
  again.Tree(At("b.txt"));

  EXPECT_THAT(index_.calls, ElementsAre("move " + At("a.txt") + " " + At("b.txt"), "attributes " + At("b.txt")));
}

TEST_F(ReconcilerTest, WhatVanishedIsRemoved) {
  Write("a.txt", "one");
  Write("a!/b.txt", "two");
  Write("a/c.txt", "three");
  Write("a/d/e.txt", "four");
  Build();
  fs::remove_all(At("a"));

  Tree(dir_.path());

  EXPECT_EQ(Texts(), DiskTexts());
}

TEST_F(ReconcilerTest, AFolderInThePlaceOfAFileAndTheOtherWayRound) {
  Write("a", "one");
  Write("b/c.txt", "two");
  Build();
  fs::remove(At("a"));
  fs::remove_all(At("b"));
  Write("a/x.txt", "three");
  Write("b", "four");

  Fresh().Update(At("a"), false);
  Tree(At("b"));

  EXPECT_EQ(Texts(), DiskTexts());
}

TEST_F(ReconcilerTest, AnUpdateOfAFileRemovesWhatWasBelowAFolderInItsPlace) {
  Write("x/a.txt", "one");
  Write("x/y/b.txt", "two");
  Build();
  fs::remove_all(At("x"));
  Write("x", "three");

  Fresh().Update(At("x"), false);

  EXPECT_EQ(Texts(), DiskTexts());
}

TEST_F(ReconcilerTest, AnUpdateOfWhatIsGoneRemovesItAndADeleteOfWhatIsThereReadsIt) {
  Write("a.txt", "one");
  Write("x/b.txt", "two");
  Build();
  fs::remove_all(At("x"));
  Write("a.txt", "ONE");

  Fresh().Update(At("x"), false);
  Fresh().Update(At("a.txt"), false);

  EXPECT_EQ(Texts(), DiskTexts());
}

TEST_F(ReconcilerTest, AnUpdateIsBelievedUnlessItIsDoneAgain) {
  Write("a.txt", "one");
  Build();

  Fresh().Update(At("a.txt"), true);
  EXPECT_THAT(index_.calls, IsEmpty());

  Fresh().Update(At("a.txt"), false);
  EXPECT_THAT(index_.calls, ElementsAre("read " + At("a.txt")));
}

TEST_F(ReconcilerTest, WhatMayNotBeIndexedIsSkippedAndTakenOut) {
  Write("ok.txt", "one");
  Write("forbidden/a.txt", "two");
  Write(".git/config", "three");
  index_.documents[At("forbidden/a.txt")] = {"two", ""};

  Tree(dir_.path());

  EXPECT_EQ(Texts(), (std::map<std::string, std::string>{{"", ""}, {"/ok.txt", "one"}}));
}

TEST_F(ReconcilerTest, AFolderWithinOneThatIsNoLongerConfiguredStays) {
  Write("a.txt", "one");
  Write("x/b.txt", "two");
  Build();
  policy_ = Policy(Policy::Folders{{At("x"), {}}});

  Tree(dir_.path());

  EXPECT_EQ(Texts(), (std::map<std::string, std::string>{{"/x", ""}, {"/x/b.txt", "two"}}));
  EXPECT_THAT(index_.calls, IsEmpty());
}

TEST_F(ReconcilerTest, APausedFolderIsLeftAsItIs) {
  Write("a.txt", "one");
  Write("x/b.txt", "two");
  Build();
  policy_ = Policy(Policy::Folders{{dir_.path(), {}}, {At("x"), {true, true, true, true, true}}});
  fs::remove_all(At("x"));

  Tree(dir_.path());
  Fresh().Update(At("x/b.txt"), false);

  EXPECT_EQ(Texts()["/x/b.txt"], "two");
}

TEST_F(ReconcilerTest, AFileThatCannotBeReadIsIndexedByItsAttributesAndNotTriedAgainUntilItChanges) {
  Write("a.txt", "one");
  Age();
  index_.unreadable = {At("a.txt")};

  Tree(dir_.path());
  EXPECT_THAT(index_.calls,
              ElementsAre("add " + dir_.path(), "read " + At("a.txt"), "read " + At("a.txt"), "add " + At("a.txt")));
  EXPECT_EQ(progress_.ToJson()["failures"][0]["path"].asString(), At("a.txt"));
  index_.calls.clear();

  Tree(dir_.path());
  EXPECT_THAT(index_.calls, IsEmpty());

  Write("a.txt", "two");
  index_.unreadable.clear();
  Tree(dir_.path());
  EXPECT_EQ(Texts(), DiskTexts());
}

TEST_F(ReconcilerTest, AnExtractorThatEndsInTheMiddleOfItsWorkIsAskedAgain) {
  Write("a.txt", "one");
  index_.extractor_ends = 1;

  Fresh().Update(At("a.txt"), false);

  EXPECT_EQ(Texts()["/a.txt"], "one");
  EXPECT_EQ(progress_.ToJson()["failed"].asUInt(), 0U);
}

TEST_F(ReconcilerTest, AnExtractorThatEndsWhileAFileIsAddedByItsAttributesIsAskedAgain) {
  Write("a.txt", "one");
  index_.extractor_ends = 3;

  Fresh().Update(At("a.txt"), false);

  EXPECT_EQ(index_.documents.count(At("a.txt")), 1U);
}

TEST_F(ReconcilerTest, WithoutAnExtractorNothingIsTakenOut) {
  Write("a.txt", "one");
  Build();
  Write("a.txt", "two");
  index_.extractor_down = true;

  EXPECT_THROW(Fresh().Update(At("a.txt"), false), NoExtractor);
  EXPECT_EQ(Texts()["/a.txt"], "one");
}

TEST_F(ReconcilerTest, ARenamedFolderIsMovedAndNotRead) {
  Write("x/a.txt", "one");
  Write("x/y/b.txt", "two");
  Build();
  fs::rename(At("x"), At("z"));

  Fresh().Move(At("x"), At("z"));
  Tree(At("x"));
  Tree(At("z"));

  EXPECT_THAT(index_.calls, ElementsAre("move " + At("x") + " " + At("z"), "attributes " + At("z")));
  EXPECT_EQ(Texts(), DiskTexts());
}

TEST_F(ReconcilerTest, ADocumentThatBelongsWhereItIsStaysThere) {
  Write("x.txt", "old");
  Build();
  fs::rename(At("x.txt"), At("z.txt"));
  Fresh().Move(At("x.txt"), At("z.txt"));
  Write("x.txt", "new");
  Age();
  Tree(dir_.path());
  index_.calls.clear();

  Fresh().Move(At("x.txt"), At("z.txt"));

  EXPECT_THAT(index_.calls, IsEmpty());
}

TEST_F(ReconcilerTest, ItEndsBetweenTwoFilesWhenItIsInterrupted) {
  Write("a.txt", "one");
  interrupted_ = true;

  EXPECT_THROW(Tree(dir_.path()), Interrupted);
  EXPECT_THROW(Fresh().Update(At("a.txt"), false), Interrupted);
  EXPECT_THAT(index_.documents, IsEmpty());
}

TEST_F(ReconcilerTest, AFolderThatIsRefusedLosesItsOwnDocumentAlone) {
  Write("x/a.txt", "one");
  Write("x/y/b.txt", "two");
  Build();
  fs::permissions(At("x"), fs::perms::owner_all);
  index_.refused = {At("x")};

  Tree(dir_.path());

  EXPECT_EQ(Texts(),
            (std::map<std::string, std::string>{{"", ""}, {"/x/a.txt", "one"}, {"/x/y", ""}, {"/x/y/b.txt", "two"}}));
}

TEST_F(ReconcilerTest, AnUpdateOfAVanishedFolderLeavesPausedFoldersBelowItAlone) {
  Write("x/a.txt", "one");
  Write("x/y/b.txt", "two");
  Build();
  policy_ = Policy(Policy::Folders{{dir_.path(), {}}, {At("x/y"), {true, true, true, true, true}}});
  fs::remove_all(At("x"));

  Fresh().Update(At("x"), false);

  EXPECT_EQ(Texts(), (std::map<std::string, std::string>{{"", ""}, {"/x/y", ""}, {"/x/y/b.txt", "two"}}));
}

TEST_F(ReconcilerTest, NothingIsRemovedWhileTheShareIsGone) {
  Write("a.txt", "one");
  Write("x/b.txt", "two");
  Build();
  const auto before = Texts();
  fs::remove_all(At("x"));
  fs::remove(At("a.txt"));
  offline_ = true;

  EXPECT_THROW(Tree(dir_.path()), Offline);
  EXPECT_THROW(Fresh().Update(At("a.txt"), false), Offline);

  EXPECT_EQ(Texts(), before);
}

TEST_F(ReconcilerTest, WhatTheFileSystemSaysNothingOfKeepsItsDocument) {
  Write("a.txt", "one");
  Write("x/b.txt", "two");
  Build();
  const auto before = Texts();
  for (const int error : {EIO, ESTALE, ENOMEM, EACCES}) {
    const FailingStatx failing(error);

    Tree(dir_.path());
    Fresh().Update(At("a.txt"), false);
    Fresh().Update(At("x"), false);

    EXPECT_EQ(Texts(), before) << error;
  }
  EXPECT_EQ(progress_.ToJson()["failures"][0]["path"].asString(), dir_.path());
}

TEST_F(ReconcilerTest, AFileOfAFolderThatTheFileSystemSaysNothingOfKeepsItsDocument) {
  Write("a.txt", "one");
  Write("x/b.txt", "two");
  Write("x/y/c.txt", "three");
  Build();
  Write("a.txt", "ONE");
  const FailingStatx failing(EIO, At("x"));

  Tree(dir_.path());

  EXPECT_EQ(Texts(), DiskTexts());
}

TEST_F(ReconcilerTest, AnEventThatNoFolderIsConcernedWithAsksNothingOfTheIndex) {
  policy_ = Policy(Policy::Folders{{At("x"), {}}});

  Fresh().Update(At("gone.txt"), false);

  EXPECT_EQ(index_.removals, 0);
}

TEST_F(ReconcilerTest, APausedFolderIsNotWalked) {
  Write("x/y/b.txt", "two");
  Build();
  policy_ = Policy(Policy::Folders{{dir_.path(), {}}, {At("x"), {true, true, true, true, true}}});
  std::vector<std::string> asked;
  box_.may_be_indexed = [&asked](const std::string& path) {
    asked.push_back(path);
    return true;
  };

  Tree(dir_.path());

  EXPECT_THAT(asked, ElementsAre(dir_.path()));
}

void ReconcilerTest::ExpectEqualAfterAnyChanges(unsigned rounds) {
  std::mt19937 random(7);
  const auto pick = [&random](unsigned bound) { return std::uniform_int_distribution<unsigned>(0, bound - 1)(random); };
  const auto any = [&] {
    std::string path = dir_.path();
    for (unsigned depth = 1 + pick(3); depth > 0; --depth) {
      path += std::string("/") + "abc"[pick(3)] + (pick(2) == 0 ? ".txt" : "");
    }
    return path;
  };
  std::error_code ignored;
  for (unsigned round = 0; round < rounds; ++round) {
    for (int step = 0; step < 8; ++step) {
      const std::string path = any();
      switch (pick(4)) {
        case 0:
          fs::rename(path, any(), ignored);
          break;
        case 1:
          fs::remove_all(path, ignored);
          break;
        default:
          fs::create_directories(fs::path(path).parent_path(), ignored);
          if (fs::is_directory(fs::path(path).parent_path(), ignored) && !fs::is_directory(path, ignored)) {
            WriteFile(path, std::to_string(random()).substr(0, 4));
          }
      }
    }

    Tree(dir_.path());

    ASSERT_EQ(Texts(), DiskTexts()) << "round " << round;
  }
}

// Whatever happens to the files: a comparison of the whole leaves the index equal to the disk.
TEST_F(ReconcilerTest, AfterAnyChangesTheIndexEqualsTheDisk) {
  ExpectEqualAfterAnyChanges(300);
}

TEST_F(ReconcilerTest, AfterAnyChangesTheIndexEqualsTheDiskHoweverManyHandsWorkAtIt) {
  hands_ = 3;
  ExpectEqualAfterAnyChanges(100);
}

TEST_F(ReconcilerTest, WhateverBecomesOfAnOperationItIsNoLongerToBeDone) {
  Write("paused/a.txt", "one");
  Write("new/b.txt", "two");
  Write("odd.txt", "three");
  Write("way", "no folder, but the way to one");
  Write("outside/c.txt", "four");
  policy_ = Policy(Policy::Folders{
      {At("paused"), {true, true, true, true, true}}, {At("new"), {}}, {At("odd.txt"), {}}, {At("way/deep"), {}}});
  const FailingStatx failing(EIO, At("odd.txt"));

  for (const char* const path : {"paused/a.txt", "outside/c.txt", "odd.txt", "way", "new", "new/b.txt", "new/gone"}) {
    progress_.BeginPass();
    progress_.AddWork(1);
    Fresh().Update(At(path), false);

    EXPECT_EQ(progress_.ToJson()["to_do"].asUInt(), 0U) << path;
    EXPECT_GT(progress_.ToJson()["done"].asUInt(), 0U) << path;
  }
}

}  // namespace
}  // namespace fileindexd
