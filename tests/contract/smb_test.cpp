// What nimo/smb.h promises of every box: nothing but a switch that says what it was set to.
#include "nimo/smb.h"

#include <gtest/gtest.h>

#include "nimo/error.h"

namespace orbisk::test {
namespace {

TEST(Spotlight, IsWhatItWasSetTo) {
  const int before = NIMOSMBIsEnableSpotlight();
  if (NIMOSMBSetSpotlight(1) < 0) {
    EXPECT_NE(0, NLIBCErrGet());
    EXPECT_EQ(before, NIMOSMBIsEnableSpotlight()) << "no such server, or it cannot be changed";
    return;
  }
  EXPECT_NE(0, NIMOSMBIsEnableSpotlight());
  EXPECT_LE(0, NIMOSMBSetSpotlight(0));
  EXPECT_EQ(0, NIMOSMBIsEnableSpotlight());
}

TEST(Spotlight, IsOnOrOff) {
  EXPECT_GT(0, NIMOSMBSetSpotlight(2));
}

}  // namespace
}  // namespace orbisk::test
