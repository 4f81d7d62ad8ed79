// The exception type, its texts and the records of failed checks.
#include <gtest/gtest.h>

#include "common/check.h"
#include "orbisk/error.h"
#include "tests/support/record_capture.h"

namespace orbisk {
namespace {

using test::RecordCapture;

TEST(Error, WhatIsTheBareReason) {
  const Error error(Code(913), "x");
  EXPECT_STREQ("x", error.what());
  EXPECT_EQ(913, error.code());
  EXPECT_EQ("x", error.reason());
  EXPECT_STREQ("Orbisk error, code=913, reason=[x]", error.std::runtime_error::what());
}

TEST(Error, WithoutReasonWhatIsEmptyAndTheBaseHoldsTheCode) {
  const Error error(Code(504));
  EXPECT_STREQ("", error.what());
  EXPECT_STREQ("Orbisk error, code=504", error.std::runtime_error::what());
}

}  // namespace
}  // namespace orbisk
