// How renames fold: target clean-up, the source's own operations, the subtree, and renames that are odd.
#include <gtest/gtest.h>

#include "orbisk/error.h"
#include "orbisk/json.h"
#include "tests/unit/fileindex/queue_lines.h"

namespace orbisk::fileindex::test {
namespace {

using Lines = std::vector<std::string>;

std::vector<int> KindsOn(OPTree& tree, const std::string& path) {
  std::vector<int> kinds;
  for (const auto& op : tree.GetNodeByPath(path)->ops) {
    kinds.push_back(op->op);
  }
  return kinds;
}

// Which updates and attributes of one file are pending in this order, brought together by renames of folders, which
// carry without cleaning up.
Lines PendingTogether(const std::string& first, const std::string& second) {
  return {first, second, Rename("/from", "/s")};
}

TEST(FoldRename, IsFiledWithBothPaths) {
  const auto tree = TreeOf({Rename("/a", "/b")});
  EXPECT_EQ((Lines{"[05] /a -> /b", "count=1"}), Deliver(*tree));
  EXPECT_EQ((Lines{"/b", "/a"}), Places(*tree)) << "the new path is looked up first";
}

TEST(FoldRename, OfACreatedFileIsTheRenameThenOneUpdate) {
  EXPECT_EQ((Lines{"[05] /a/x -> /a/y", "[02] /a/y", "count=3"}), Fold({Create("/a/x"), Rename("/a/x", "/a/y")}));
}

TEST(FoldRename, UpdateAttributesAndReindexOfTheSourceBecomeFollowUps) {
  EXPECT_EQ((Lines{"[05] /x -> /y", "[02] /y", "count=3"}), Fold({Modify("/x"), Rename("/x", "/y")}));
  EXPECT_EQ((Lines{"[05] /x -> /y", "[03] /y", "count=3"}), Fold({Attrib("/x"), Rename("/x", "/y")}));
  EXPECT_EQ((Lines{"[05] /x -> /y", "[06] /y", "count=3"}), Fold({Reindex("/x"), Rename("/x", "/y")}));
}

TEST(FoldRename, TheLastOfSeveralDecidesTheFollowUp) {
  Lines lines = PendingTogether(Attrib("/s/f"), Modify("/from/f"));
  lines.push_back(Rename("/s/f", "/t"));
  EXPECT_EQ((Lines{"[05] /from -> /s", "[05] /s/f -> /t", "[02] /t", "count=5"}), Fold(lines));
  lines = PendingTogether(Modify("/s/f"), Attrib("/from/f"));
  lines.push_back(Rename("/s/f", "/t"));
  EXPECT_EQ((Lines{"[05] /from -> /s", "[05] /s/f -> /t", "[03] /t", "count=5"}), Fold(lines));
}

TEST(FoldRename, TheFollowUpHasNoData) {
  EXPECT_EQ((Lines{"[05] /s -> /t", "[06] /t", "count=3"}),
            Fold({Switches("/s", R"({"audio":true})"), Reindex("/s"), Rename("/s", "/t")}))
      << "the reindex had kept the data of the switches";
}

TEST(FoldRename, APendingDeleteOfTheOldNameBecomesADeleteOfTheNewNameDeliveredBeforeTheRename) {
  EXPECT_EQ((Lines{"[01] /y", "[05] /x -> /y", "count=2"}), Fold({Delete("/x"), Rename("/x", "/y")}));
}

TEST(FoldRename, PendingSwitchesMoveUnchangedAndAreDeliveredBeforeTheRename) {
  EXPECT_EQ((Lines{R"([04] /t, data={"audio":1})", "[05] /s -> /t", "count=2"}),
            Fold({Switches("/s", R"({"audio":1})"), Rename("/s", "/t")}));
}

TEST(FoldRename, APendingCrashKindMovesUnchanged) {
  const auto tree = TreeOf({Create("/s")});
  tree->GetNodeByPath("/s")->ops[0]->op = OP_QUEUE_CRASHED;
  Insert(*tree, Rename("/s", "/t"));
  EXPECT_EQ((Lines{"[07] /t", "[05] /s -> /t", "count=2"}), Deliver(*tree));
}

TEST(FoldRename, AnEarlierRenamesTargetChangesWhenItIsCarriedAndItsOldPathNever) {
  EXPECT_EQ((Lines{"[05] /a -> /c", "[05] /b -> /c", "count=2"}), Fold({Rename("/a", "/b"), Rename("/b", "/c")}));
  EXPECT_EQ((Lines{"[05] /d/a -> /e/b", "[05] /d -> /e", "count=2"}),
            Fold({Rename("/d/a", "/d/b"), Rename("/d", "/e")}))
      << "the old path text stays, though its folder is gone";
}

TEST(FoldRename, MovedOperationsLeaveTheSourceAndStandAtTheEndOfTheTarget) {
  const auto tree = TreeOf({Switches("/t", "{}"), Switches("/s", "{}"), Delete("/s"), Rename("/s", "/t")});
  EXPECT_TRUE(KindsOn(*tree, "/s").empty());
  EXPECT_EQ((std::vector<int>{4, 4, 1, 5}), KindsOn(*tree, "/t"));
}

TEST(FoldRename, WhatBecameAFollowUpMovesAsACancelledEntry) {
  const auto tree = TreeOf({Create("/s"), Rename("/s", "/t")});
  EXPECT_TRUE(KindsOn(*tree, "/s").empty());
  EXPECT_EQ((std::vector<int>{0, 5, 2}), KindsOn(*tree, "/t"));
}

TEST(FoldRename, EntriesCancelledBeforeStayWithTheSource) {
  const auto tree = TreeOf({Create("/d/s"), Reindex("/d"), Delete("/d/s"), Rename("/d/s", "/t")});
  EXPECT_EQ((std::vector<int>{0}), KindsOn(*tree, "/d/s"));
  EXPECT_EQ((std::vector<int>{1, 5}), KindsOn(*tree, "/t"));
}

TEST(FoldRename, MovingDoesNotChangeTheOrderOfDelivery) {
  EXPECT_EQ((Lines{"[04] /t, data={}", "[02] /u", "[05] /s -> /t", "count=3"}),
            Fold({Switches("/s", "{}"), Create("/u"), Rename("/s", "/t")}));
}

TEST(FoldRename, TheSourceIsFreshAfterwards) {
  EXPECT_EQ((Lines{"[05] /a -> /b", "[02] /b", "[03] /a", "count=4"}),
            Fold({Create("/a"), Rename("/a", "/b"), Attrib("/a")}));
}

TEST(FoldRename, TheSourceIsFreshAlsoAfterManyRenamesOntoIt) {
  EXPECT_EQ(
      (Lines{"[05] /x -> /g", "[05] /x -> /g", "[05] /x -> /g", "[05] /f -> /g", "[02] /g", "[02] /f", "count=7"}),
      Fold({Rename("/x", "/f"), Rename("/x", "/f"), Rename("/x", "/f"), Create("/f"), Rename("/f", "/g"), Create("/f"),
            Modify("/f")}));
}

TEST(FoldRenameTarget, PendingDeleteUpdateAndAttributesAreCancelled) {
  for (const std::string& pending : {Delete("/t"), Modify("/t"), Attrib("/t")}) {
    EXPECT_EQ((Lines{"[05] /s -> /t", "count=2"}), Fold({pending, Rename("/s", "/t")})) << pending;
  }
}

TEST(FoldRenameTarget, PendingSwitchesRenameAndReindexStay) {
  EXPECT_EQ((Lines{"[04] /t, data={}", "[05] /s -> /t", "count=2"}), Fold({Switches("/t", "{}"), Rename("/s", "/t")}));
  EXPECT_EQ((Lines{"[05] /r -> /t", "[05] /s -> /t", "count=2"}), Fold({Rename("/r", "/t"), Rename("/s", "/t")}));
  EXPECT_EQ((Lines{"[06] /t", "[05] /s -> /t", "count=2"}), Fold({Reindex("/t"), Rename("/s", "/t")}));
}

TEST(FoldRenameTarget, APendingCrashKindStays) {
  const auto tree = TreeOf({Create("/t")});
  tree->GetNodeByPath("/t")->ops[0]->op = OP_QUEUE_CRASHED;
  Insert(*tree, Rename("/s", "/t"));
  EXPECT_EQ((Lines{"[07] /t", "[05] /s -> /t", "count=2"}), Deliver(*tree));
}

TEST(FoldRenameTarget, WhatIsBelowItIsNotCleanedUp) {
  EXPECT_EQ((Lines{"[02] /t/f", "[05] /s -> /t", "count=2"}), Fold({Create("/t/f"), Rename("/s", "/t")}));
}

TEST(FoldRenameTarget, IsCleanedUpBeforeTheSourceIsCarried) {
  EXPECT_EQ((Lines{"[01] /t", "[05] /s -> /t", "count=3"}), Fold({Modify("/t"), Delete("/s"), Rename("/s", "/t")}))
      << "the delete that comes from the source is not cancelled";
}

TEST(FoldRenameTarget, SaveByRenameDeliversTheNewContent) {
  EXPECT_EQ((Lines{"[05] /f.tmp -> /f", "[02] /f", "count=4"}),
            Fold({Modify("/f"), Create("/f.tmp"), Rename("/f.tmp", "/f")}));
}

TEST(FoldRenameTarget, OverAnOldFileThatWasMovedAwayKeepsBothRenames) {
  EXPECT_EQ((Lines{"[05] /f -> /f~", "[05] /n -> /f", "[02] /f", "count=4"}),
            Fold({Rename("/f", "/f~"), Create("/n"), Rename("/n", "/f")}));
}

TEST(FoldRenameSubtree, PendingUpdatesMoveAndPendingDeletesStay) {
  EXPECT_EQ((Lines{"[02] /b/f", "[01] /a/g", "[05] /a -> /b", "count=3"}),
            Fold({Modify("/a/f"), Delete("/a/g"), Rename("/a", "/b")}));
}

TEST(FoldRenameSubtree, AllKindsFromUpdateOnMoveAtEveryDepth) {
  EXPECT_EQ((Lines{"[02] /b/1/x", "[03] /b/2", "[04] /b/3/y/z, data={}", "[05] /q -> /b/4", "[06] /b/5", "[01] /a/6/w",
                   "[05] /a -> /b", "count=7"}),
            Fold({Create("/a/1/x"), Attrib("/a/2"), Switches("/a/3/y/z", "{}"), Rename("/q", "/a/4"), Reindex("/a/5"),
                  Delete("/a/6/w"), Rename("/a", "/b")}));
}

TEST(FoldRenameSubtree, ADeleteStaysAlsoWhereSomethingElseMovesAway) {
  const auto tree = TreeOf({Reindex("/a/g"), Delete("/a/g"), Rename("/a", "/b")});
  EXPECT_EQ((Lines{"[06] /b/g", "[01] /a/g", "[05] /a -> /b", "count=3"}), Deliver(*tree));
  EXPECT_EQ((std::vector<int>{1}), KindsOn(*tree, "/a/g"));
}

TEST(FoldRenameSubtree, ThereIsNoCleanUpAndNoFollowUpBelow) {
  const auto tree = TreeOf({Attrib("/b/f"), Create("/a/f"), Rename("/a", "/b")});
  EXPECT_EQ((Lines{"[03] /b/f", "[02] /b/f", "[05] /a -> /b", "count=3"}), Deliver(*tree)) << "two live on one node";
  EXPECT_EQ((std::vector<int>{3, 2}), KindsOn(*tree, "/b/f"));
}

TEST(FoldRenameSubtree, ADeleteAtTheTargetsPlaceStaysBesideWhatArrives) {
  EXPECT_EQ((Lines{"[01] /b/f", "[02] /b/f", "[05] /a -> /b", "count=3"}),
            Fold({Delete("/b/f"), Create("/a/f"), Rename("/a", "/b")}));
}

TEST(FoldRenameSubtree, CancelledEntriesStayUnderTheOldPath) {
  const auto tree = TreeOf({Create("/a/d/f"), Reindex("/a/d"), Attrib("/a/d/f"), Rename("/a", "/b")});
  EXPECT_EQ((std::vector<int>{0}), KindsOn(*tree, "/a/d/f"));
  EXPECT_EQ((std::vector<int>{3}), KindsOn(*tree, "/b/d/f"));
}

TEST(FoldRenameSubtree, EveryPlaceIsMadeUnderTheNewNameIdleOnesToo) {
  const auto tree = EmptyTree();
  for (const char* path : {"/a/x/y", "/a/z", "/b"}) {
    tree->GetNodeByPath(path);
  }
  Insert(*tree, Rename("/a", "/b"));
  EXPECT_EQ((Lines{"/a/x/y", "/a/x", "/a/z", "/a", "/b/x/y", "/b/x", "/b/z", "/b"}), Places(*tree));
}

TEST(FoldRenameSubtree, ThePlacesAreThereForWhoLooksUpANode) {
  const auto tree = EmptyTree();
  tree->GetNodeByPath("/a/x/y");
  Insert(*tree, Rename("/a", "/b"));
  const auto folder = tree->GetNodeByPath("/b");
  ASSERT_EQ(1U, folder->children.size());
  EXPECT_EQ("/b/x", folder->children[0]->GetPath());
  ASSERT_EQ(1U, folder->children[0]->children.size());
  EXPECT_EQ("/b/x/y", folder->children[0]->children[0]->GetPath());
}

TEST(FoldRenameSubtree, TwiceInARowEndsAtTheLastName) {
  EXPECT_EQ((Lines{"[02] /c/f", "[05] /a -> /c", "[05] /b -> /c", "count=3"}),
            Fold({Create("/a/f"), Rename("/a", "/b"), Rename("/b", "/c")}));
}

TEST(FoldRenameSubtree, ThereAndBackAgain) {
  EXPECT_EQ((Lines{"[02] /a/f", "[05] /a -> /a", "[05] /b -> /a", "count=3"}),
            Fold({Create("/a/f"), Rename("/a", "/b"), Rename("/b", "/a")}));
}

TEST(FoldRenameSubtree, ReachesWhatLiesBelowACancelledFolder) {
  EXPECT_EQ((Lines{"[05] /x -> /e/p/c", "[05] /d -> /e", "[06] /e", "count=5"}),
            Fold({Rename("/x", "/d/p/c"), Create("/d/p"), Reindex("/d"), Rename("/d", "/e")}));
}

TEST(FoldRenameSubtree, LaterEventsMeetWhatWasCarried) {
  EXPECT_EQ((Lines{"[01] /b/f", "[05] /a -> /b", "count=2"}),
            Fold({Create("/a/f"), Rename("/a", "/b"), Delete("/b/f")}));
  EXPECT_EQ((Lines{"[05] /a -> /b", "[06] /b", "count=3"}), Fold({Create("/a/f"), Rename("/a", "/b"), Reindex("/b")}));
}

TEST(FoldRenameSubtree, SiblingsWhoseNamesBeginAlikeStay) {
  EXPECT_EQ((Lines{"[02] /ab/f", "[05] /a -> /b", "count=2"}), Fold({Create("/ab/f"), Rename("/a", "/b")}));
}

TEST(FoldRenameSubtree, OfALargeIdleFolderMovesTheFewThatArePending) {
  constexpr int kIdle = 20'000;
  const auto tree = EmptyTree();
  for (int i = 0; i < kIdle; ++i) {
    tree->GetNodeByPath("/a/sub" + std::to_string(i % 100) + "/" + std::to_string(i));
  }
  Insert(*tree, Create("/a/sub7/7"));
  Insert(*tree, Delete("/a/sub8/8"));
  Insert(*tree, Rename("/a", "/b"));
  EXPECT_EQ((Lines{"[02] /b/sub7/7", "[01] /a/sub8/8", "[05] /a -> /b", "count=3"}), Deliver(*tree));
  EXPECT_EQ(2U * (kIdle + 100 + 1), Places(*tree).size());
}

TEST(FoldRenameOntoItself, CancelsItsPendingDeleteUpdateAndAttributes) {
  for (const std::string& pending : {Delete("/a"), Modify("/a"), Attrib("/a")}) {
    EXPECT_EQ((Lines{"[05] /a -> /a", "count=2"}), Fold({pending, Rename("/a", "/a")})) << pending;
  }
}

TEST(FoldRenameOntoItself, KeepsSwitchesAndFollowsUpAReindex) {
  EXPECT_EQ((Lines{"[04] /a, data={}", "[05] /a -> /a", "count=2"}), Fold({Switches("/a", "{}"), Rename("/a", "/a")}));
  EXPECT_EQ((Lines{"[05] /a -> /a", "[06] /a", "count=3"}), Fold({Reindex("/a"), Rename("/a", "/a")}));
}

TEST(FoldRenameOntoItself, LeavesWhatIsBelow) {
  const auto tree = TreeOf({Create("/a/f"), Delete("/a/g"), Rename("/a", "/a")});
  EXPECT_EQ((Lines{"[02] /a/f", "[01] /a/g", "[05] /a -> /a", "count=3"}), Deliver(*tree));
  EXPECT_EQ((Lines{"/a/f", "/a/g", "/a"}), Places(*tree));
}

TEST(FoldRenameIntoItsOwnSubtree, SubstitutesThePrefixInTheTargetToo) {
  const auto tree = TreeOf({Switches("/a/b", "{}"), Rename("/a", "/a/b")});
  EXPECT_EQ((Lines{"[04] /a/b/b, data={}", "[05] /a -> /a/b", "count=2"}), Deliver(*tree));
  EXPECT_EQ((Lines{"/a/b/b", "/a/b", "/a"}), Places(*tree));
}

TEST(FoldRenameIntoItsOwnSubtree, WhatTheSourceHandedToTheTargetIsCarriedOnWithIt) {
  EXPECT_EQ((Lines{"[04] /a/b/b, data={}", "[05] /a -> /a/b", "count=2"}),
            Fold({Switches("/a", "{}"), Rename("/a", "/a/b")}));
  EXPECT_EQ((Lines{"[01] /a/b", "[05] /a -> /a/b", "count=2"}), Fold({Delete("/a"), Rename("/a", "/a/b")}))
      << "a delete is not carried";
  EXPECT_EQ((Lines{"[05] /a -> /a/b", "[02] /a/b", "count=3"}), Fold({Create("/a"), Rename("/a", "/a/b")}))
      << "follow-up and rename are filed after the carrying";
}

TEST(FoldRenameIntoItsOwnSubtree, CarriesTheSiblingsOfTheTarget) {
  EXPECT_EQ((Lines{"[02] /a/b/f", "[05] /a -> /a/b", "count=2"}),
            Fold({Line(0, "/a/b"), Create("/a/f"), Rename("/a", "/a/b")}));
}

TEST(FoldRenameIntoItsOwnSubtree, CarriesASiblingOlderThanTheTargetTwice) {
  EXPECT_EQ((Lines{"[02] /a/b/b/f", "[05] /a -> /a/b", "count=2"}), Fold({Create("/a/f"), Rename("/a", "/a/b")}))
      << "the walk enters the target after the sibling was carried there, and meets it again";
}

TEST(FoldRenameIntoItsOwnSubtree, CarriesEachOfManyOlderSiblingsTwice) {
  constexpr size_t kSiblings = 2'000;
  Lines lines;
  for (size_t i = 0; i < kSiblings; ++i) {
    lines.push_back(Modify("/a/x" + std::to_string(i)));
  }
  lines.push_back(Rename("/a", "/a/b"));

  const Lines delivered = Fold(lines);

  ASSERT_EQ(kSiblings + 2, delivered.size());
  for (size_t i = 0; i < kSiblings; ++i) {
    ASSERT_EQ("[02] /a/b/b/x" + std::to_string(i), delivered[i]);
  }
}

TEST(FoldRenameIntoItsOwnSubtree, DoublesTheTreeOnlySoFar) {
  Lines lines = {Modify("/a/x")};
  for (int i = 0; i < 23; ++i) {
    lines.push_back(Rename("/a", "/a/" + std::to_string(i)));
  }
  const auto tree = TreeOf(lines);

  size_t places = 0;
  tree->TraverseNodeDescendant(
      tree->GetNodeByPath("/a"), [&](std::shared_ptr<OPNode>) { ++places; }, true);

  EXPECT_GT(places, 1'000U);
  EXPECT_LT(places, 300'000U);
}

TEST(FoldRenameIntoItsOwnSubtree, EndsThoughItsWalkMakesThePlacesItWalks) {
  const auto tree = TreeOf({Create("/a/x"), Create("/a/b/y"), Create("/a/b/c"), Rename("/a", "/a/b/c")});
  EXPECT_EQ("count=4", Deliver(*tree).back());
  EXPECT_LT(Places(*tree).size(), 5'000U);
}

TEST(FoldRenameToItsAncestor, CarriesIntoTheFolderAbove) {
  EXPECT_EQ((Lines{"[02] /a/f", "[05] /a/b -> /a", "count=2"}), Fold({Create("/a/b/f"), Rename("/a/b", "/a")}));
}

TEST(FoldRenameError, ABadOldPathComesBeforeTheCleanUpSoThatNothingChanges) {
  const auto tree = TreeOf({Create("/t")});
  EXPECT_EQ("9999 GetNodeByPath failed, path=/s/", ErrorOf([&] { Insert(*tree, Rename("/s/", "/t")); }));
  EXPECT_EQ((Lines{"[02] /t", "count=1"}), Deliver(*tree));
  EXPECT_EQ((Lines{"/t", "/s"}), Places(*tree)) << "but the nodes on the way are there";
}

TEST(FoldRenameError, AMissingOldPathIsABadOne) {
  const auto tree = EmptyTree();
  EXPECT_EQ("9999 GetNodeByPath failed, path=", ErrorOf([&] { Insert(*tree, Line(0x100, "/t")); }));
  EXPECT_EQ((Lines{"count=0"}), Deliver(*tree));
}

}  // namespace
}  // namespace orbisk::fileindex::test
