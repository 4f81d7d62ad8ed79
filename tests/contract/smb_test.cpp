// What nimo/smb.h promises of every box: nothing but a switch that says what it was set to.
#include "nimo/smb.h"

#include <gtest/gtest.h>

#include "nimo/error.h"
#include "tests/contract/platform_under_test.h"

namespace orbisk::test {
namespace {

class Spotlight : public testing::Test {
 protected:
  void SetUp() override {
    if (!ReplaceSamba()) {
      GTEST_SKIP() << "private mounts are not allowed here";
    }
  }
};

TEST_F(Spotlight, IsWhatItWasSetTo) {
  EXPECT_EQ(0, NIMOSMBIsEnableSpotlight());

  EXPECT_LE(0, NIMOSMBSetSpotlight(1));
  EXPECT_NE(0, NIMOSMBIsEnableSpotlight());

  EXPECT_LE(0, NIMOSMBSetSpotlight(0));
  EXPECT_EQ(0, NIMOSMBIsEnableSpotlight());
}

TEST_F(Spotlight, IsOnOrOffAndStaysAsItWasOtherwise) {
  ASSERT_LE(0, NIMOSMBSetSpotlight(1));

  EXPECT_GT(0, NIMOSMBSetSpotlight(2));

  EXPECT_NE(0, NLIBCErrGet());
  EXPECT_NE(0, NIMOSMBIsEnableSpotlight());
}

}  // namespace
}  // namespace orbisk::test
