// How often a share is compared whose events get lost.
#include "services/indexer/recovery_pace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

namespace fileindexd {
namespace {

using namespace std::chrono_literals;
using Time = RecoveryPace::Time;

constexpr Time kStart{1h};

// Comparisons that take `walk` each, while events are lost each `interval`, `losses` times.
int CountRecoveries(RecoveryPace& pace, RecoveryPace::Duration walk, RecoveryPace::Duration interval, int losses) {
  int recoveries = 0;
  Time now = kStart;
  for (Time loss = kStart; losses > 0; --losses, loss += interval) {
    now = std::max(now, loss);
    if (!pace.Due(now)) {
      pace.NoteRecovery(now, now + walk);
      now += walk;
      ++recoveries;
    }
  }
  return recoveries;
}

TEST(RecoveryPace, TheFirstLossIsMendedAtOnce) {
  EXPECT_FALSE(RecoveryPace(1s, 600s).Due(kStart));
}

TEST(RecoveryPace, TheNextWaitsAsLongAsTheLastOneTookAndThenTwiceAsLongEachTime) {
  RecoveryPace pace(1s, 600s);
  pace.NoteRecovery(kStart, kStart + 30s);
  EXPECT_EQ(pace.Due(kStart + 30s), kStart + 60s);
  EXPECT_FALSE(pace.Due(kStart + 60s));

  pace.NoteRecovery(kStart + 60s, kStart + 90s);
  EXPECT_EQ(pace.Due(kStart + 90s), kStart + 150s);
}

TEST(RecoveryPace, NoWaitIsShorterThanTheLeastOrLongerThanTheMost) {
  RecoveryPace pace(1s, 600s);
  pace.NoteRecovery(kStart, kStart + 1ms);
  EXPECT_EQ(pace.Due(kStart + 1ms), kStart + 1001ms);

  RecoveryPace slow(1s, 600s);
  slow.NoteRecovery(kStart, kStart + 2h);
  EXPECT_EQ(slow.Due(kStart + 2h), kStart + 2h + 600s);
}

TEST(RecoveryPace, AfterATimeWithoutLossesAllIsForgotten) {
  RecoveryPace pace(1s, 600s);
  pace.NoteRecovery(kStart, kStart + 30s);
  pace.NoteRecovery(kStart + 60s, kStart + 90s);

  const Time later = kStart + 90s + 2 * 60s;
  pace.NoteRecovery(later, later + 30s);

  EXPECT_EQ(pace.Due(later + 30s), later + 60s);
}

TEST(RecoveryPace, AThousandLossesInARowAreMendedByFewComparisons) {
  RecoveryPace pace(1s, 600s);

  const int recoveries = CountRecoveries(pace, 1s, 1s, 1'000);

  EXPECT_LE(recoveries, 10) << "1 + 2 + 4 … + 512 s are more than the 1,000";
  EXPECT_GE(recoveries, 8);
}

}  // namespace
}  // namespace fileindexd
