// How the limit of watches follows what the kernel refuses.
#include "services/monitor/watch_budget.h"

#include <gtest/gtest.h>

namespace nimotifyd {
namespace {

TEST(WatchBudgetTest, WatchesAreAllowedUpToTheLimit) {
  const WatchBudget budget(3, 10);

  EXPECT_TRUE(budget.Allows(2));
  EXPECT_FALSE(budget.Allows(3));
}

TEST(WatchBudgetTest, RefusalLeavesAShareOfTheHeldWatchesFree) {
  WatchBudget budget(1000, 10);

  budget.Refused(50);

  EXPECT_EQ(budget.limit(), 45U);
}

TEST(WatchBudgetTest, ReserveIsAtLeastOneWatch) {
  WatchBudget budget(1000, 10);

  budget.Refused(3);

  EXPECT_EQ(budget.limit(), 2U);
}

TEST(WatchBudgetTest, RefusalOfTheFirstWatchAllowsNone) {
  WatchBudget budget(1000, 10);

  budget.Refused(0);

  EXPECT_FALSE(budget.Allows(0));
}

TEST(WatchBudgetTest, WithoutAReserveWhatIsHeldIsKept) {
  WatchBudget budget(1000, 0);

  budget.Refused(50);

  EXPECT_EQ(budget.limit(), 50U);
}

TEST(WatchBudgetTest, LaterRefusalsNeverRaiseTheLimit) {
  WatchBudget budget(1000, 10);
  budget.Refused(50);

  budget.Refused(900);

  EXPECT_EQ(budget.limit(), 45U);
}

TEST(WatchBudgetTest, ResetBringsTheConfiguredLimitBack) {
  WatchBudget budget(1000, 10);
  budget.Refused(50);

  budget.Reset();

  EXPECT_EQ(budget.limit(), 1000U);
}

}  // namespace
}  // namespace nimotifyd
