// When files that stay open are due.
#include "services/monitor/open_writers.h"

#include <gtest/gtest.h>

namespace nimotifyd {
namespace {

using Writers = OpenWriters<std::string, int, std::hash<std::string>>;
using std::chrono::milliseconds;

constexpr milliseconds kPeriod{5000};
const Clock::time_point kStart{};

TEST(OpenWritersTest, FileIsDueOnePeriodAfterTheFirstWrite) {
  Writers writers(kPeriod);
  writers.Written("k", 1, "name", kStart);
  writers.Written("k", 1, "name", kStart + milliseconds(4000));

  EXPECT_TRUE(writers.TakeDue(kStart + milliseconds(4999)).empty());
  const auto due = writers.TakeDue(kStart + milliseconds(5000));

  ASSERT_EQ(due.size(), 1U);
  EXPECT_EQ(due[0].folder, 1);
  EXPECT_EQ(due[0].name, "name");
}

TEST(OpenWritersTest, FileIsDueAgainOnlyIfItIsWrittenToAgain) {
  Writers writers(kPeriod);
  writers.Written("k", 1, "name", kStart);
  writers.TakeDue(kStart + kPeriod);

  EXPECT_FALSE(writers.next_due());
  writers.Written("k", 1, "name", kStart + kPeriod);
  EXPECT_EQ(writers.next_due(), kStart + 2 * kPeriod);
}

TEST(OpenWritersTest, ClosedFileIsNotDue) {
  Writers writers(kPeriod);
  writers.Written("k", 1, "name", kStart);
  writers.Erase("k");

  EXPECT_FALSE(writers.next_due());
  EXPECT_TRUE(writers.TakeDue(kStart + kPeriod).empty());
}

TEST(OpenWritersTest, FileWrittenAgainAfterItsCloseStartsANewPeriod) {
  Writers writers(kPeriod);
  writers.Written("k", 1, "name", kStart);
  writers.Erase("k");
  writers.Written("k", 1, "name", kStart + milliseconds(1000));

  EXPECT_TRUE(writers.TakeDue(kStart + kPeriod).empty());
  EXPECT_EQ(writers.TakeDue(kStart + kPeriod + milliseconds(1000)).size(), 1U);
}

TEST(OpenWritersTest, RenamedFileIsReportedUnderItsNewName) {
  Writers writers(kPeriod);
  writers.Written("k", 1, "old", kStart);
  writers.Renamed("k", 2, "new");
  writers.Renamed("unknown", 2, "new");

  const auto due = writers.TakeDue(kStart + kPeriod);
  ASSERT_EQ(due.size(), 1U);
  EXPECT_EQ(due[0].folder, 2);
  EXPECT_EQ(due[0].name, "new");
}

TEST(OpenWritersTest, NothingWrittenIsNothingDue) {
  Writers writers(kPeriod);
  EXPECT_FALSE(writers.next_due());
  EXPECT_TRUE(writers.TakeDue(Clock::time_point::max()).empty());
}

}  // namespace
}  // namespace nimotifyd
