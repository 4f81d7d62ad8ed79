// Which paths are recorded, and how many.
#include "services/monitor/said_once.h"

#include <gtest/gtest.h>

namespace nimotifyd {
namespace {

TEST(SaidOnceTest, EachPathIsSaidOnce) {
  SaidOnce said(10);

  EXPECT_EQ(said.Ask("/a"), SaidOnce::Answer::kSay);
  EXPECT_EQ(said.Ask("/b"), SaidOnce::Answer::kSay);
  EXPECT_EQ(said.Ask("/a"), SaidOnce::Answer::kKeepQuiet);
}

TEST(SaidOnceTest, LastOneSaidIsToldApartAndNothingFollows) {
  SaidOnce said(2);

  EXPECT_EQ(said.Ask("/a"), SaidOnce::Answer::kSay);
  EXPECT_EQ(said.Ask("/b"), SaidOnce::Answer::kSayLast);
  EXPECT_EQ(said.Ask("/c"), SaidOnce::Answer::kKeepQuiet);
}

}  // namespace
}  // namespace nimotifyd
