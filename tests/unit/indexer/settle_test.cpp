// When a batch is due.
#include "services/indexer/settle.h"

#include <gtest/gtest.h>

namespace fileindexd {
namespace {

using std::chrono::milliseconds;

class SettleTest : public testing::Test {
 protected:
  // Milliseconds from the first event to when the batch is due; -1 for never.
  long Due() const {
    return settle_.Due() ? std::chrono::duration_cast<milliseconds>(*settle_.Due() - start_).count() : -1;
  }
  void Note(int ms) { settle_.Note(start_ + milliseconds(ms)); }

  Settle::Time start_ = Settle::Time(std::chrono::hours(1));
  Settle settle_{milliseconds(200), milliseconds(2'000)};
};

TEST_F(SettleTest, WithoutAnEventNothingIsDue) {
  EXPECT_EQ(Due(), -1);
}

TEST_F(SettleTest, AnEventAfterQuietIsDueAtOnce) {
  Note(0);
  EXPECT_EQ(Due(), 0);

  settle_.Take();
  EXPECT_EQ(Due(), -1);

  Note(200);
  EXPECT_EQ(Due(), 200);
}

TEST_F(SettleTest, EventsThatKeepComingAreLetSettle) {
  Note(0);
  settle_.Take();

  Note(150);
  EXPECT_EQ(Due(), 350);
  Note(300);
  EXPECT_EQ(Due(), 500);
}

TEST_F(SettleTest, TheyAreNotHeldBackForEver) {
  Note(0);
  settle_.Take();

  for (int ms = 100; ms <= 2'050; ms += 100) {
    Note(ms);
  }

  EXPECT_EQ(Due(), 2'100);
}

TEST_F(SettleTest, WhatIsDueStaysDue) {
  Note(0);
  Note(10);
  EXPECT_EQ(Due(), 0);
}

}  // namespace
}  // namespace fileindexd
