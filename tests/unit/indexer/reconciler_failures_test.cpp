// Files without their content: who is on the list, and who is read again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "services/indexer/pass.h"
#include "services/indexer/reconciler.h"
#include "tests/unit/indexer/failing_statx.h"
#include "tests/unit/indexer/reconciler_box.h"

namespace fileindexd {
namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class ReconcilerFailures : public ReconcilerBox {
 protected:
  std::vector<std::string> Failed() { return progress_.failures().PathsIn(dir_.path()); }
  // "a.txt" is on the list; "b.txt" is well.
  void Fail() {
    Write("x/a.txt", "one");
    Write("x/b.txt", "two");
    index_.unreadable = {At("x/a.txt")};
    Build();
    ASSERT_THAT(Failed(), ElementsAre(At("x/a.txt")));
  }
};

TEST_F(ReconcilerFailures, AMendedFileLeavesTheList) {
  Fail();
  Write("x/a.txt", "mended");
  index_.unreadable.clear();

  Fresh().Update(At("x/a.txt"), false);

  EXPECT_THAT(Failed(), IsEmpty());
}

TEST_F(ReconcilerFailures, AFileThatFailsFiveTimesIsOne) {
  Fail();

  for (int i = 0; i < 5; ++i) {
    Fresh().Update(At("x/a.txt"), false);
  }

  EXPECT_EQ(progress_.ToJson()["failed"].asUInt(), 1U);
}

TEST_F(ReconcilerFailures, ADeletedFileLeavesTheListHoweverOneHearsOfIt) {
  for (const bool by_event : {true, false}) {
    Fail();
    fs::remove(At("x/a.txt"));

    by_event ? Fresh().Update(At("x/a.txt"), false) : Tree(dir_.path());

    EXPECT_THAT(Failed(), IsEmpty()) << by_event;
  }
}

TEST_F(ReconcilerFailures, AFileWithoutADocumentLeavesTheListWhenItGoes) {
  Write("a.txt", "one");
  index_.refused = {At("a.txt")};
  Build();
  ASSERT_THAT(Failed(), ElementsAre(At("a.txt")));
  fs::remove(At("a.txt"));

  Tree(dir_.path());

  EXPECT_THAT(Failed(), IsEmpty());
}

TEST_F(ReconcilerFailures, ARenamedFileIsOnTheListUnderItsNewNameAndNotReadAgain) {
  Fail();
  fs::rename(At("x"), At("z"));
  Reconciler& reconciler = Fresh();

  reconciler.Move(At("x"), At("z"));
  reconciler.Tree(At("x"));
  reconciler.Tree(At("z"));

  EXPECT_THAT(Failed(), ElementsAre(At("z/a.txt")));
  EXPECT_THAT(index_.calls, ElementsAre("move " + At("x") + " " + At("z"), "attributes " + At("z")));
}

TEST_F(ReconcilerFailures, AFileThatFailedButIsNotOnTheListIsReadAgain) {
  Fail();
  progress_.failures().Forgive(At("x/a.txt"));  // as if the list was lost
  index_.calls.clear();

  Tree(dir_.path());

  EXPECT_THAT(index_.calls, Contains("read " + At("x/a.txt")));
  EXPECT_THAT(Failed(), ElementsAre(At("x/a.txt")));
}

TEST_F(ReconcilerFailures, WhatFoundNoRoomOnTheListIsLeftAloneUntilThereIsRoomOrItIsToBeTriedAnyway) {
  Fail();
  progress_.failures().Forgive(At("x/a.txt"));
  for (int i = 0; i < 10'000; ++i) {
    progress_.failures().Add("/elsewhere/" + std::to_string(i), "died");
  }
  index_.calls.clear();

  Tree(dir_.path());
  EXPECT_THAT(index_.calls, IsEmpty());

  Fresh().retry_unlisted = true;
  reconciler_->Tree(dir_.path());
  EXPECT_THAT(index_.calls, Contains("read " + At("x/a.txt")));

  progress_.failures().Forgive(At("x/a.txt"));
  index_.calls.clear();
  Tree(dir_.path());
  EXPECT_THAT(index_.calls, Contains("read " + At("x/a.txt")));
  EXPECT_THAT(Failed(), ElementsAre(At("x/a.txt")));
}

TEST_F(ReconcilerFailures, NewPermissionsOfAFailedFileDoNotHaveItReadAndItStaysFailed) {
  Fail();
  fs::permissions(At("x/a.txt"), fs::perms::owner_read);

  Tree(dir_.path());
  EXPECT_THAT(index_.calls, ElementsAre("attributes " + At("x/a.txt")));

  index_.calls.clear();
  Tree(dir_.path());
  EXPECT_THAT(index_.calls, IsEmpty());
  progress_.failures().Forgive(At("x/a.txt"));
  Tree(dir_.path());
  EXPECT_THAT(index_.calls, Contains("read " + At("x/a.txt")));
}

TEST_F(ReconcilerFailures, WhatIsTakenAnewIsReadThoughNothingChanged) {
  Fail();
  index_.unreadable.clear();
  Pass pass(dir_.path());
  pass.TakeAnew(At("x/a.txt"));
  Reconciler& reconciler = Fresh();

  pass.Apply(reconciler, progress_, true);

  EXPECT_THAT(index_.calls, ElementsAre("read " + At("x/a.txt")));
  EXPECT_EQ(Texts(), DiskTexts());
  EXPECT_THAT(Failed(), IsEmpty());
}

TEST_F(ReconcilerFailures, AFailureThatNobodyIsConcernedWithAnyMoreLeavesTheList) {
  Fail();
  policy_ = Policy(Policy::Folders{{At("y"), {}}});

  Tree(dir_.path());

  EXPECT_THAT(Failed(), IsEmpty());
}

TEST_F(ReconcilerFailures, ThoseOfAPausedFolderStay) {
  Fail();
  policy_ = Policy(Policy::Folders{{dir_.path(), {}}, {At("x"), {true, true, true, true, true}}});
  fs::remove(At("x/a.txt"));

  Tree(dir_.path());

  EXPECT_THAT(Failed(), ElementsAre(At("x/a.txt")));
}

TEST_F(ReconcilerFailures, WhatTheFileSystemSaidNothingOfIsWellWhenItSpeaksAgain) {
  Write("a.txt", "one");
  Build();
  {
    const FailingStatx failing(EIO, At("a.txt"));
    Tree(dir_.path());
  }
  ASSERT_THAT(Failed(), ElementsAre(At("a.txt")));

  Tree(dir_.path());

  EXPECT_THAT(Failed(), IsEmpty());
}

}  // namespace
}  // namespace fileindexd
