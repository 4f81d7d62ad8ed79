// Events that get lost again and again: the whole share is compared, but not all the time.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/util.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

class IndexerLosses : public IndexerBox {
 protected:
  // As the monitor says it.
  void LoseEvents() const { fileindex::AddCustomEvent(fileindex::EVENT_QUEUE_CRASHED, Docs(), "", Json::Value()); }
  static int Recoveries() { return StatusOf()["recoveries"].asInt(); }
  static bool Waiting() { return StatusOf()["state"] == "waiting" && StatusOf()["backlog"] == 0; }
  void LoseOnce() const {
    const int before = Recoveries();
    LoseEvents();
    ASSERT_TRUE(Eventually([&] { return Recoveries() == before + 1 && IsIdle(); }));
  }
};

TEST_F(IndexerLosses, AThousandOfThemCostFewComparisonsAndOtherChangesGoOn) {
  StartWithOneFile({"--recovery-pause-ms", "4000"});
  LoseOnce();
  const int before = Recoveries();
  const auto start = std::chrono::steady_clock::now();

  for (int i = 0; i < 1'000; ++i) {
    LoseEvents();
    if (i % 100 == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  }
  // A pause each, and the next one is longer; on a slow machine more than one goes by.
  const auto pauses = (std::chrono::steady_clock::now() - start) / std::chrono::seconds(4);
  EXPECT_LE(Recoveries(), before + 1 + pauses);
  WriteFile(Docs("b.txt"), "heron");
  EXPECT_TRUE(Eventually([this] { return InIndex().count(Docs("b.txt")) == 1; }));

  EXPECT_TRUE(Eventually([&] { return Recoveries() > before && IsIdle(); }, std::chrono::minutes(2)));
  EXPECT_TRUE(BecomesEqual());
}

TEST_F(IndexerLosses, AComparisonThatWasPutOffIsDoneByTheNextDaemon) {
  const std::vector<std::string> for_longer_than_the_test = {"--recovery-pause-ms", "60000"};
  StartWithOneFile();
  ASSERT_EQ(StopIndexer(), 0);
  StartIndexer(for_longer_than_the_test);  // which does not know of comparisons before
  LoseOnce();
  KillMonitor();
  WriteFile(Docs("unseen.txt"), "dipper");
  LoseEvents();
  ASSERT_TRUE(Eventually(Waiting));
  const IndexedTree before = InIndex();
  ASSERT_EQ(before.count(Docs("a.txt")), 1U);
  ASSERT_EQ(before.count(Docs("unseen.txt")), 0U);

  KillIndexer();
  StartIndexer(for_longer_than_the_test);

  EXPECT_TRUE(BecomesEqual());
}

}  // namespace
}  // namespace orbisk::test
