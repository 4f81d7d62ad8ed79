// What nimo/quota.h promises.
#include "nimo/quota.h"

#include <gtest/gtest.h>

#include <climits>

#include "nimo/error.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

TEST(Quota, HasRoomForNothingAndForLittle) {
  const TempDir dir;
  EXPECT_NE(0, NIMOQuotaIsEnough(0, dir.path().c_str(), 0));
  EXPECT_NE(0, NIMOQuotaIsEnough(0, dir.path().c_str(), 1));
}

TEST(Quota, HasNoRoomForMoreThanAnyVolumeHolds) {
  const TempDir dir;
  EXPECT_EQ(0, NIMOQuotaIsEnough(0, dir.path().c_str(), ULLONG_MAX));
  EXPECT_EQ(NIMO_ERR_VOLUME_FULL, NLIBCErrGet());
}

TEST(Quota, ThatCannotBeAskedIsNoShortage) {
  EXPECT_EQ(0, NIMOQuotaIsEnough(0, nullptr, 1));
  EXPECT_NE(NIMO_ERR_VOLUME_FULL, NLIBCErrGet());
  EXPECT_NE(NIMO_ERR_QUOTA_EXCEEDED, NLIBCErrGet());
}

}  // namespace
}  // namespace orbisk::test
