// The exception type and its texts.
#include "orbisk/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <type_traits>

namespace orbisk {
namespace {

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

TEST(Error, CaughtAsAStandardExceptionSaysTheReasonAlone) {
  try {
    throw Error(Code(120), "Missing share");
  } catch (const std::exception& error) {
    EXPECT_STREQ("Missing share", error.what());
  }
}

TEST(Error, ACopyHoldsTheSame) {
  const Error original(Code(506), "open failed");
  Error copy(original);
  EXPECT_STREQ("open failed", copy.what());
  EXPECT_STREQ("Orbisk error, code=506, reason=[open failed]", copy.std::runtime_error::what());
  copy = Error(Code(801));
  EXPECT_STREQ("", copy.what());
  EXPECT_EQ(801, copy.code());
}

TEST(Error, CodesAreThirtyTwoBitNumbersOfAnyValue) {
  static_assert(std::is_same_v<std::int32_t, std::underlying_type_t<Error::ErrorCode>>);
  EXPECT_EQ(-7, Error(Code(-7)).code());
  EXPECT_EQ(2147483647, Error(static_cast<Error::ErrorCode>(2147483647)).code());
  EXPECT_EQ("Orbisk error, code=-7", ErrorString(Code(-7), ""));
}

TEST(ErrorString, AddsNoBracketForAnEmptyReason) {
  EXPECT_EQ("Orbisk error, code=913", ErrorString(Code(913), ""));
  EXPECT_EQ("Orbisk error, code=913, reason=[x]", ErrorString(Code(913), "x"));
}

TEST(GetErrnoStr, GivesTheSystemsText) {
  errno = ENOENT;
  EXPECT_EQ("No such file or directory", GetErrnoStr());
  EXPECT_EQ("Permission denied", GetErrnoStr(EACCES));
  EXPECT_EQ(strerror(99999), GetErrnoStr(99999));
}

}  // namespace
}  // namespace orbisk
