// How events fold on one path and below it: the rule table cell by cell, several bits in one line, reindexes, crashes.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <sstream>

#include "orbisk/error.h"
#include "orbisk/json.h"
#include "tests/support/record_capture.h"
#include "tests/unit/fileindex/queue_lines.h"
#include "tests/unit/record_match.h"

namespace orbisk::fileindex::test {
namespace {

using Lines = std::vector<std::string>;
using orbisk::test::RecordCapture;

// The table. What arrives, what was pending, what comes of it.

constexpr const char* kPendingData = R"({"audio":true,"mine":7})";
constexpr const char* kIncomingData = R"({"foreign":1,"video":true})";
constexpr const char* kMergedData =
    R"({"audio":true,"basic":false,"document":false,"mine":7,"photo":false,"video":true})";

struct Cause {
  const char* name;
  int mask;
  bool is_dir;
  int kind;    // of the operation that it files
  int column;  // of the table
};

constexpr std::array<Cause, 8> kCauses = {{{"Create", 0x40, false, 2, 0},
                                           {"Modify", 0x2, false, 2, 1},
                                           {"Attrib", 0x4, false, 3, 2},
                                           {"Delete", 0x80, false, 1, 3},
                                           {"UpdateDirectory", 0x20000, false, 4, 4},
                                           {"Reindex", 0x10000, false, 6, 5},
                                           {"CreateOfADirectory", 0x40, true, 6, 5},
                                           {"DeleteOfADirectory", 0x80, true, 6, 5}}};

struct Outcome {
  int pending_kind;
  const char* pending_data;
  bool filed;  // the incoming one stands beside the pending one
};

constexpr Outcome Keep(int kind) {
  return {kind, kPendingData, true};
}
constexpr Outcome Drop(int kind) {
  return {kind, kPendingData, false};
}
constexpr Outcome Become(int kind) {
  return {kind, kPendingData, false};
}
constexpr Outcome kTakeData = {4, kIncomingData, false};
constexpr Outcome kMergeData = {4, kMergedData, false};

// Rows: kind pending, from 1. Columns: create, modify, attributes, delete, update directory, reindex.
constexpr std::array<std::array<Outcome, 6>, 7> kTable = {{
    {{Become(2), Drop(1), Drop(1), Drop(1), Drop(1), Drop(1)}},
    {{Drop(2), Drop(2), Drop(2), Become(1), kTakeData, Become(6)}},
    {{Become(2), Become(2), Drop(3), Become(1), kTakeData, Become(6)}},
    {{Drop(4), Drop(4), Drop(4), Keep(4), kMergeData, Become(6)}},
    {{Keep(5), Keep(5), Keep(5), Keep(5), Keep(5), Keep(5)}},
    {{Drop(6), Drop(6), Drop(6), Keep(6), Drop(6), Drop(6)}},
    {{Keep(7), Keep(7), Keep(7), Keep(7), Keep(7), Keep(7)}},
}};

struct Cell {
  int pending_kind;
  Cause cause;
};

std::vector<Cell> AllCells() {
  std::vector<Cell> cells;
  for (int kind = 1; kind <= 7; ++kind) {
    for (const Cause& cause : kCauses) {
      cells.push_back({kind, cause});
    }
  }
  return cells;
}

void PrintTo(const Cell& cell, std::ostream* stream) {
  *stream << "kind " << cell.pending_kind << " meets " << cell.cause.name;
}

std::string NameOf(const testing::TestParamInfo<Cell>& info) {
  static constexpr std::array<const char*, 8> kKinds = {"",       "Delete",  "Update", "Attributes", "UpdateDirectory",
                                                        "Rename", "Reindex", "Crashed"};
  return std::string("Pending") + kKinds[static_cast<size_t>(info.param.pending_kind)] + "Meets" +
         info.param.cause.name;
}

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(fromString(value, text)) << text;
  return value;
}

std::string Printed(int kind, const std::string& data) {
  return "[0" + std::to_string(kind) + "] " + (kind == 5 ? "/old -> " : "") + "/d, data=" + data;
}

class RuleTable : public testing::TestWithParam<Cell> {};

TEST_P(RuleTable, IsFollowed) {
  const auto [pending_kind, cause] = GetParam();
  const Outcome& outcome = kTable[static_cast<size_t>(pending_kind - 1)][static_cast<size_t>(cause.column)];
  const auto tree = TreeOf({Create("/d")});
  const std::shared_ptr<OPNode> node = tree->GetNodeByPath("/d");
  const std::shared_ptr<OP> pending = node->ops.at(0);
  pending->op = static_cast<FileIndexOP>(pending_kind);
  pending->path = pending_kind == 5 ? "/old" : "";
  pending->data = Parse(kPendingData);

  Json::Value line = Parse(Line(cause.mask, "/d", cause.is_dir));
  line["data"] = Parse(kIncomingData);
  Insert(*tree, toString(line));

  EXPECT_EQ(outcome.pending_kind, pending->op);
  EXPECT_EQ(outcome.pending_data, toString(pending->data));
  EXPECT_EQ(pending, node->ops[0]);
  ASSERT_EQ(outcome.filed ? 2U : 1U, node->ops.size());
  std::vector<std::string> expected = {Printed(outcome.pending_kind, outcome.pending_data)};
  if (outcome.filed) {
    EXPECT_EQ(cause.kind, node->ops[1]->op);
    EXPECT_EQ(node, node->ops[1]->node);
    EXPECT_EQ("", node->ops[1]->path);
    expected.push_back(cause.kind == 4 ? Printed(4, kIncomingData) : "[0" + std::to_string(cause.kind) + "] /d");
  }
  expected.push_back("count=" + std::to_string(node->ops.size()));
  EXPECT_EQ(expected, Deliver(*tree));
}

INSTANTIATE_TEST_SUITE_P(All, RuleTable, testing::ValuesIn(AllCells()), NameOf);

TEST(RuleTable, AnEmptyNodeFilesTheKindOfEachEvent) {
  for (const Cause& cause : kCauses) {
    const auto tree = TreeOf({Line(cause.mask, "/d", cause.is_dir)});
    EXPECT_EQ((Lines{"[0" + std::to_string(cause.kind) + "] /d", "count=1"}), Deliver(*tree)) << cause.name;
    EXPECT_EQ(1U, tree->GetNodeByPath("/d")->ops.size());
  }
}

// Pairs of lines.

TEST(FoldTwoLines, CreateThenModifyIsOneUpdate) {
  EXPECT_EQ((Lines{"[02] /f", "count=1"}), Fold({Create("/f"), Modify("/f")}));
}

TEST(FoldTwoLines, DeleteThenCreateRevivesTheDeleteAsAnUpdate) {
  EXPECT_EQ((Lines{"[02] /f", "count=1"}), Fold({Delete("/f"), Create("/f")}));
}

TEST(FoldTwoLines, CreateThenDeleteIsADelete) {
  EXPECT_EQ((Lines{"[01] /f", "count=1"}), Fold({Create("/f"), Delete("/f")}));
}

TEST(FoldTwoLines, DeleteThenModifyStaysADelete) {
  EXPECT_EQ((Lines{"[01] /f", "count=1"}), Fold({Delete("/f"), Modify("/f")}));
}

TEST(FoldTwoLines, AttributesAndModifyAreOneUpdateInEitherOrder) {
  EXPECT_EQ((Lines{"[02] /f", "count=1"}), Fold({Attrib("/f"), Modify("/f")}));
  EXPECT_EQ((Lines{"[02] /f", "count=1"}), Fold({Modify("/f"), Attrib("/f")}));
}

TEST(FoldTwoLines, TwoUpdatesOfSwitchesAreMerged) {
  EXPECT_EQ(
      (Lines{R"([04] /d, data={"audio":true,"basic":false,"document":false,"photo":false,"video":true})", "count=1"}),
      Fold({Switches("/d", R"({"audio":true})"), Switches("/d", R"({"video":true})")}));
}

TEST(FoldTwoLines, ALoneUpdateOfSwitchesIsDeliveredRaw) {
  EXPECT_EQ((Lines{R"([04] /d, data={"audio":1,"other":[2]})", "count=1"}),
            Fold({Switches("/d", R"({"audio":1,"other":[2]})")}));
  EXPECT_EQ((Lines{"[04] /d, data=[1]", "count=1"}), Fold({Switches("/d", "[1]")}));
  EXPECT_EQ((Lines{"[04] /d", "count=1"}), Fold({Switches("/d", "null")}));
}

TEST(FoldTwoLines, SwitchesReplaceTheDataOfAnUpdateOutright) {
  EXPECT_EQ((Lines{R"([04] /d, data={"audio":1})", "count=1"}), Fold({Modify("/d"), Switches("/d", R"({"audio":1})")}));
  EXPECT_EQ((Lines{"[04] /d, data=5", "count=1"}), Fold({Attrib("/d"), Switches("/d", "5")}));
}

TEST(FoldTwoLines, AReindexOfAnUpdateOfSwitchesKeepsItsData) {
  EXPECT_EQ((Lines{R"([06] /d, data={"audio":true})", "count=1"}),
            Fold({Switches("/d", R"({"audio":true})"), Reindex("/d")}));
}

TEST(FoldTwoLines, ADeleteBesideSwitchesOrAReindexIsDeliveredToo) {
  EXPECT_EQ((Lines{R"([04] /d, data={})", "[01] /d", "count=2"}), Fold({Switches("/d", "{}"), Delete("/d")}));
  EXPECT_EQ((Lines{"[06] /d", "[01] /d", "count=2"}), Fold({Reindex("/d"), Delete("/d")}));
}

TEST(FoldTwoLines, EventsOnDifferentPathsDoNotMeet) {
  EXPECT_EQ((Lines{"[02] /f", "[01] /F", "[03] /f/g", "count=3"}), Fold({Create("/f"), Delete("/F"), Attrib("/f/g")}));
}

TEST(FoldTwoLines, MergingSwitchesThatAreNoObjectIsAnErrorAndLeavesThePendingOnes) {
  for (const char* data : {"null", "[]", "true"}) {
    const auto tree = TreeOf({Switches("/d", R"({"audio":1})")});
    EXPECT_EQ("120 Not an object, data=" + std::string(data), ErrorOf([&] { Insert(*tree, Switches("/d", data)); }));
    EXPECT_EQ((Lines{R"([04] /d, data={"audio":1})", "count=1"}), Deliver(*tree));
  }
}

TEST(FoldTwoLines, MergingIntoSwitchesThatWereNoObjectStartsFromAnEmptyOne) {
  EXPECT_EQ(
      (Lines{R"([04] /d, data={"audio":false,"basic":false,"document":false,"photo":false,"video":true})", "count=1"}),
      Fold({Switches("/d", "[1]"), Switches("/d", R"({"video":1})")}));
}

// A rename of the folder brings a second pending operation to the node: attributes, then update.
Lines AttributesAndUpdateOn(const std::string& folder) {
  return {Attrib(folder + "/f"), Modify("/from/f"), Rename("/from", folder)};
}

TEST(FoldTwoLines, SeveralPendingOperationsChangeInOneVisit) {
  Lines lines = AttributesAndUpdateOn("/d");
  lines.push_back(Delete("/d/f"));
  EXPECT_EQ((Lines{"[01] /d/f", "[01] /d/f", "[05] /from -> /d", "count=3"}), Fold(lines))
      << "the visit goes on after the first of them cancelled the incoming one";
  lines.push_back(Create("/d/f"));
  EXPECT_EQ((Lines{"[02] /d/f", "[02] /d/f", "[05] /from -> /d", "count=3"}), Fold(lines));
}

TEST(FoldTwoLines, OneOfSeveralPendingOperationsIsEnoughToDrop) {
  Lines lines = AttributesAndUpdateOn("/d");
  lines.push_back(Modify("/d/f"));
  EXPECT_EQ((Lines{"[02] /d/f", "[02] /d/f", "[05] /from -> /d", "count=3"}), Fold(lines));
}

// Several bits in one line: one operation that meets itself.

TEST(FoldOneLine, AnyTwoOfCreateAttributesModifyDeleteAnnihilate) {
  for (const int mask : {0x42, 0x44, 0xC0, 0x6, 0x84, 0x82}) {
    EXPECT_EQ((Lines{"count=1"}), Fold({Line(mask, "/f")})) << std::hex << mask;
  }
}

TEST(FoldOneLine, ThreeOrFourOfThemAnnihilateToo) {
  for (const int mask : {0x46, 0xC2, 0xC4, 0x86, 0xC6}) {
    EXPECT_EQ((Lines{"count=1"}), Fold({Line(mask, "/f")})) << std::hex << mask;
  }
}

TEST(FoldOneLine, CreateAndDeleteOfADirectoryAnnihilate) {
  EXPECT_EQ((Lines{"count=1"}), Fold({Line(0xC0, "/d", true)}));
}

TEST(FoldOneLine, TwoReasonsToReindexAnnihilate) {
  EXPECT_EQ((Lines{"count=1"}), Fold({Line(0x10040, "/d", true)}));
  EXPECT_EQ((Lines{"count=1"}), Fold({Line(0x10080, "/d", true)}));
}

TEST(FoldOneLine, CreateOfADirectoryAndModifyAnnihilate) {
  EXPECT_EQ((Lines{"count=1"}), Fold({Line(0x42, "/d", true)}));
}

TEST(FoldOneLine, ReindexAndUpdateDirectoryAnnihilate) {
  EXPECT_EQ((Lines{"count=1"}), Fold({Switches("/d", R"({"audio":true})", 0x10000)}));
}

TEST(FoldOneLine, RenameAndReindexAnnihilate) {
  EXPECT_EQ((Lines{"count=1"}), Fold({Rename("/a", "/b", 0x10000)}));
}

TEST(FoldOneLine, RenameAndReindexTurnTheFollowUpIntoAReindex) {
  EXPECT_EQ((Lines{"[06] /b", "count=3"}), Fold({Create("/a"), Rename("/a", "/b", 0x10000)}));
}

TEST(FoldOneLine, RenameAndUpdateDirectoryAnnihilate) {
  Json::Value line = Parse(Switches("/b", R"({"audio":true})", 0x100));
  line["path_old"] = "/a";
  EXPECT_EQ((Lines{"count=1"}), Fold({toString(line)}));
}

TEST(FoldOneLine, AnEarlierBitAndARenameAreFiledDeliveredAndCountedTwice) {
  for (const int bit : {0x40, 0x4, 0x2, 0x80}) {
    EXPECT_EQ((Lines{"[05] /a -> /b", "[05] /a -> /b", "count=2"}), Fold({Rename("/a", "/b", bit)})) << std::hex << bit;
  }
}

TEST(FoldOneLine, ARenameRevivesWhatEarlierBitsCancelled) {
  EXPECT_EQ((Lines{"[05] /a -> /b", "[05] /a -> /b", "count=2"}), Fold({Rename("/a", "/b", 0x42)}));
}

TEST(FoldOneLine, AnEarlierBitARenameAndAReindexAnnihilateThoughFiledTwice) {
  EXPECT_EQ((Lines{"count=2"}), Fold({Rename("/a", "/b", 0x40 | 0x10000)}));
  EXPECT_EQ((Lines{"count=2"}), Fold({Rename("/a", "/b", 0x42 | 0x10000)}));
}

TEST(FoldOneLine, ABitThatAPendingOperationDroppedIsRevivedByTheRename) {
  // The modify is dropped by the pending delete, which the rename then clears away.
  EXPECT_EQ((Lines{"[05] /a -> /b", "count=2"}), Fold({Delete("/b"), Rename("/a", "/b", 0x2)}));
}

TEST(FoldOneLine, ARevivedOperationOnABusyNodeIsDeliveredAfterALaterRename) {
  // Create and modify cancel one another on /b, the rename brings it back, and the folder's rename carries it.
  EXPECT_EQ((Lines{"[05] /x -> /e/b", "[05] /x -> /e/b", "[05] /d -> /e", "count=3"}),
            Fold({Rename("/x", "/d/b", 0x42), Rename("/d", "/e")}));
}

TEST(FoldOneLine, BitsTakeEffectInAFixedOrder) {
  // On a pending delete: create revives it, then delete deletes it again.
  EXPECT_EQ((Lines{"[01] /f", "count=1"}), Fold({Delete("/f"), Line(0xC0, "/f")}));
  // Attributes come before modify: the pending attributes become an update, not the other way round.
  EXPECT_EQ((Lines{"[02] /f", "count=1"}), Fold({Attrib("/f"), Line(0x6, "/f")}));
  // Reindex comes before the switches, which a pending reindex drops.
  EXPECT_EQ((Lines{"[06] /f", "count=1"}), Fold({Create("/f"), Switches("/f", R"({"audio":true})", 0x10000)}));
}

TEST(FoldOneLine, AMaskWithNoneOfTheBitsFilesNothing) {
  for (const int mask : {0x0, 0x1, 0x8, 0x400, 0x40000}) {
    const auto tree = TreeOf({Line(mask, "/a/f")});
    EXPECT_EQ((Lines{"count=0"}), Deliver(*tree)) << mask;
    EXPECT_EQ((Lines{"/a/f", "/a"}), Places(*tree)) << "but the path is looked up";
  }
}

TEST(FoldOneLine, UnknownBitsBesideKnownOnesAreIgnored) {
  EXPECT_EQ((Lines{"[02] /f", "count=1"}), Fold({Line(0x40 | 0x1 | 0x400, "/f")}));
}

TEST(FoldOneLine, DataWithoutTheSwitchesBitIsNotTaken) {
  EXPECT_EQ((Lines{"[06] /d", "count=1"}), Fold({R"({"event":65536,"path":"/d","data":{"audio":true}})"}));
}

// Errors in the middle of a line.

TEST(FoldError, ABadPathFilesNothing) {
  const auto tree = EmptyTree();
  EXPECT_EQ("9999 GetNodeByPath failed, path=/a/", ErrorOf([&] { Insert(*tree, Create("/a/")); }));
  EXPECT_EQ((Lines{"count=0"}), Deliver(*tree));
}

TEST(FoldError, ABadOldPathLeavesWhatEarlierBitsFiled) {
  const auto tree = EmptyTree();
  EXPECT_EQ("9999 GetNodeByPath failed, path=", ErrorOf([&] { Insert(*tree, Rename("", "/f", 0x40)); }));
  EXPECT_EQ((Lines{"[02] /f", "count=1"}), Deliver(*tree));
}

TEST(FoldError, ABadOldPathSkipsLaterBitsTheCrashBitIncluded) {
  const auto tree = EmptyTree();
  EXPECT_THROW(Insert(*tree, Rename("bad", "/f", 0x10000 | 0x200)), Error);
  EXPECT_EQ((Lines{"count=0"}), Deliver(*tree));
}

TEST(FoldError, ABadMergeSkipsTheCrashBit) {
  const auto tree = TreeOf({Switches("/d", "{}")});
  EXPECT_THROW(Insert(*tree, Switches("/d", "null", 0x200)), Error);
  EXPECT_EQ((Lines{"[04] /d, data={}", "count=1"}), Deliver(*tree));
}

TEST(FoldError, AnOperationThatFailsToMergeIntoItselfStaysAsItStands) {
  Json::Value line = Parse(Switches("/b", "[7]", 0x100));
  line["path_old"] = "/a";
  const auto tree = EmptyTree();
  EXPECT_EQ("120 Not an object, data=[7]", ErrorOf([&] { Insert(*tree, toString(line)); }));
  EXPECT_EQ((Lines{"[04] /b, data=[7]", "count=1"}), Deliver(*tree)) << "filed as a rename, now switches";
}

TEST(FoldError, WhatFailedInTheMiddleStillTakesPartInLaterFolds) {
  Json::Value line = Parse(Switches("/d/b", "[7]", 0x100));
  line["path_old"] = "/a";
  const auto tree = EmptyTree();
  EXPECT_THROW(Insert(*tree, toString(line)), Error);
  Insert(*tree, Rename("/d", "/e"));
  EXPECT_EQ((Lines{"[04] /e/b, data=[7]", "[05] /d -> /e", "count=2"}), Deliver(*tree));
}

TEST(FoldError, AnOperationRevivedByAFailureWhereARenameCarriedItIsStillFound) {
  // The create is carried to /a/b/b by the rename, cancelled by the reindex, revived by the switches that fail.
  Json::Value line = Parse(Switches("/a/b", "[7]", 0x40 | 0x100 | 0x10000));
  line["path_old"] = "/a";
  const auto tree = EmptyTree();
  EXPECT_EQ("120 Not an object, data=[7]", ErrorOf([&] { Insert(*tree, toString(line)); }));
  EXPECT_EQ((Lines{"[04] /a/b/b, data=[7]", "[04] /a/b/b, data=[7]", "count=2"}), Deliver(*tree));
  Insert(*tree, Reindex("/a/b"));
  EXPECT_EQ((Lines{"count=2"}), Deliver(*tree));
}

// Reindex.

TEST(FoldReindex, CancelsWhatIsPendingBelowExceptRenames) {
  EXPECT_EQ((Lines{"[05] /x -> /d/r", "[06] /d", "count=8"}),
            Fold({Create("/d/f"), Delete("/d/g"), Attrib("/d/h"), Switches("/d/s", "{}"), Reindex("/d/i/j"),
                  Rename("/x", "/d/r"), Create("/d/f2/deep/er"), Reindex("/d")}));
}

TEST(FoldReindex, FollowUpsOfRenamesBelowDoNotSurvive) {
  EXPECT_EQ((Lines{"[05] /x -> /d/r", "[06] /d", "count=4"}),
            Fold({Create("/x"), Rename("/x", "/d/r"), Reindex("/d")}));
}

TEST(FoldReindex, LeavesNeighboursAndAncestorsAlone) {
  EXPECT_EQ((Lines{"[02] /d", "[02] /d/ab", "[06] /d/a", "count=3"}),
            Fold({Create("/d"), Create("/d/ab"), Reindex("/d/a")}));
}

TEST(FoldReindex, CancelsBelowEvenWhenItIsDroppedItself) {
  EXPECT_EQ((Lines{"[01] /d", "count=2"}), Fold({Delete("/d"), Create("/d/f"), Reindex("/d")}));
  EXPECT_EQ((Lines{"[06] /d", "count=2"}), Fold({Reindex("/d"), Create("/d/f"), Reindex("/d")}));
}

TEST(FoldReindex, APendingReindexDoesNotSuppressLaterEventsBelow) {
  EXPECT_EQ((Lines{"[06] /d", "[02] /d/f", "count=2"}), Fold({Reindex("/d"), Create("/d/f")}));
}

TEST(FoldReindex, DeleteOfADirectoryIsAReindexAndNeverADelete) {
  EXPECT_EQ((Lines{"[06] /d", "count=1"}), Fold({DeleteFolder("/d")}));
  EXPECT_EQ((Lines{"[06] /d", "count=2"}), Fold({Create("/d/f"), DeleteFolder("/d")}));
}

TEST(FoldReindex, ADirectoryDeletedAndMadeAgainIsOneReindex) {
  EXPECT_EQ((Lines{"[06] /d", "count=1"}), Fold({DeleteFolder("/d"), CreateFolder("/d")}));
}

TEST(FoldReindex, APendingDeleteOnTheDirectoryDropsIt) {
  EXPECT_EQ((Lines{"[01] /d", "count=1"}), Fold({Delete("/d"), CreateFolder("/d")}))
      << "a folder whose delete came without is_dir stays deleted";
}

TEST(FoldReindex, WhatItCancelledBelowNoLongerReacts) {
  EXPECT_EQ((Lines{"[06] /d", "[03] /d/f", "count=3"}), Fold({Create("/d/f"), Reindex("/d"), Attrib("/d/f")}));
}

TEST(FoldReindex, SeveralPendingOperationsAllBecomeReindexes) {
  Lines lines = AttributesAndUpdateOn("/d");
  lines.push_back(Reindex("/d/f"));
  EXPECT_EQ((Lines{"[06] /d/f", "[06] /d/f", "[05] /from -> /d", "count=3"}), Fold(lines));
}

// Crash.

TEST(FoldCrash, DeliversOneOperationOnTheRootAndReturnsOne) {
  const auto tree = TreeOf({Create("/a"), Create("/b"), Crash(), Create("/c")});
  std::vector<std::shared_ptr<OP>> delivered;
  EXPECT_EQ(1, tree->ProcessOP([&](const std::shared_ptr<OP>& op) { delivered.push_back(op); }));
  ASSERT_EQ(1U, delivered.size());
  EXPECT_EQ(OP_QUEUE_CRASHED, delivered[0]->op);
  EXPECT_EQ("", delivered[0]->node->GetPath());
  EXPECT_EQ(nullptr, delivered[0]->node->parent);
  EXPECT_EQ("", delivered[0]->path);
  EXPECT_TRUE(delivered[0]->data.isNull());
}

TEST(FoldCrash, LastsAsLongAsTheTree) {
  const auto tree = TreeOf({Crash()});
  EXPECT_EQ((Lines{"[07] ", "count=1"}), Deliver(*tree));
  Insert(*tree, Create("/a"));
  EXPECT_EQ((Lines{"[07] ", "count=1"}), Deliver(*tree));
}

TEST(FoldCrash, TheBitCountsBesideOthers) {
  EXPECT_EQ((Lines{"[07] ", "count=1"}), Fold({Line(0x240, "/f")}));
}

TEST(FoldCrash, EachDeliveryLeavesOneRecord) {
  const QueueFile queue(Join({Crash()}));
  OPTree tree(queue.path());
  const RecordCapture capture;
  errno = ENOENT;
  Deliver(tree);
  Deliver(tree);
  const auto records = capture.records();
  ASSERT_EQ(2U, records.size());
  for (const auto& record : records) {
    EXPECT_EQ(3, record.priority);
    EXPECT_EQ("%s:%d Queue crashed: %s", record.format);
    EXPECT_EQ("optree.cpp:N Queue crashed: " + queue.path(), orbisk::test::WithoutLine(record.text));
  }
}

TEST(FoldCrash, AnExceptionOfTheConsumerComesOut) {
  EXPECT_THROW(TreeOf({Crash()})->ProcessOP([](const std::shared_ptr<OP>&) { throw std::runtime_error("full"); }),
               std::runtime_error);
}

// Many events.

TEST(FoldMany, TenThousandSavesByRenameOverOneFileDeliverEachRenameOnce) {
  constexpr int kSaves = 10'000;
  const auto tree = EmptyTree();
  for (int i = 0; i < kSaves; ++i) {
    Insert(*tree, Create("/d/tmp"));
    Insert(*tree, Modify("/d/tmp"));
    Insert(*tree, Rename("/d/tmp", "/d/file"));
  }
  const std::vector<std::string> delivered = Deliver(*tree);
  ASSERT_EQ(kSaves + 2U, delivered.size()) << "every rename, the last save's update, the count";
  EXPECT_EQ(kSaves, std::count(delivered.begin(), delivered.end(), "[05] /d/tmp -> /d/file"));
  EXPECT_EQ("[02] /d/file", delivered[kSaves]) << "the follow-up comes last";
  EXPECT_EQ("count=" + std::to_string(3 * kSaves), delivered.back());
}

TEST(FoldMany, AFlatFolderOfManyFilesIsDeliveredInOrder) {
  constexpr int kFiles = 50'000;
  const auto tree = EmptyTree();
  for (int i = 0; i < kFiles; ++i) {
    Insert(*tree, Create("/d/" + std::to_string(i)));
  }
  for (int i = 0; i < kFiles; i += 2) {
    Insert(*tree, Delete("/d/" + std::to_string(i)));
  }
  const std::vector<std::string> delivered = Deliver(*tree);
  ASSERT_EQ(kFiles + 1U, delivered.size());
  EXPECT_EQ("[01] /d/0", delivered[0]);
  EXPECT_EQ("[02] /d/1", delivered[1]);
  EXPECT_EQ("[02] /d/49999", delivered[kFiles - 1]);
}

}  // namespace
}  // namespace orbisk::fileindex::test
