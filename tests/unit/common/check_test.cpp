// The records of failed checks: form, place, priority, and what becomes of errno.
#include "common/check.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/record_capture.h"
#include "tests/support/record_tail.h"

namespace orbisk {
namespace {

using test::Record;
using test::RecordCapture;
using test::RecordTail;

constexpr char kFile[] = "check_test.cpp";

void ThrowIf(bool failed, const std::string& reason) {
  ORBISK_CHECK(failed, 502, reason);
}

void ThrowIfNegative(int value) {
  ORBISK_CHECK(0 > value, 502, "negative, reason=" + GetErrnoStr());
}

void ThrowWithText(bool failed) {
  ORBISK_CHECK_TEXT(failed, "!folders.toFile(kPath)", 505, "unwritable");
}

void ThrowAtLine(bool failed) {
  ORBISK_CHECK_AT(42, failed, 502, "at a line");
}

bool FailIf(bool failed) {
  return ORBISK_FAILED(failed);
}

bool FailWithText(bool failed) {
  return ORBISK_FAILED_TEXT(failed, "any text");
}

bool FailAtLine(bool failed) {
  return ORBISK_FAILED_AT(52, failed);
}

int SetsErrno(int error) {
  errno = error;
  return -1;
}

TEST(Check, ThrowsTheCodeAndReasonItNames) {
  const RecordCapture capture;
  errno = 0;
  try {
    ThrowIf(true, "because");
    FAIL() << "nothing thrown";
  } catch (const Error& error) {
    EXPECT_EQ(502, error.code());
    EXPECT_STREQ("because", error.what());
  }
}

TEST(Check, DoesNothingWhenTheConditionDoesNotHold) {
  const RecordCapture capture;
  errno = EBUSY;
  EXPECT_NO_THROW(ThrowIf(false, "because"));
  EXPECT_FALSE(FailIf(false));
  EXPECT_TRUE(capture.records().empty());
  EXPECT_EQ(EBUSY, errno);
}

TEST(Check, WritesOneRecordOfPriorityThree) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_THROW(ThrowIf(true, "because"), Error);
  EXPECT_TRUE(FailIf(true));
  ASSERT_EQ(2U, capture.records().size());
  EXPECT_EQ(3, capture.records()[0].priority);
  EXPECT_EQ(3, capture.records()[1].priority);
}

TEST(Check, WithoutErrnoTheRecordEndsAfterTheReason) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_THROW(ThrowIf(true, "because"), Error);
  const Record record = capture.records().at(0);
  EXPECT_EQ("%s:%d (%d, %u) (%s) Failed [%s], reason: %s", record.format);
  EXPECT_EQ("Failed [failed], reason: because", RecordTail(record, kFile, "ThrowIf"));
}

TEST(Check, WithErrnoTheRecordShowsItAndErrnoIsZeroAfterwards) {
  const RecordCapture capture;
  errno = ENOENT;
  EXPECT_THROW(ThrowIf(true, "because"), Error);
  EXPECT_EQ(0, errno);
  const Record record = capture.records().at(0);
  EXPECT_EQ("%s:%d (%d, %u) (%s) Failed [%s], reason: %s [err: %m]", record.format);
  EXPECT_EQ("Failed [failed], reason: because [err: No such file or directory]", RecordTail(record, kFile, "ThrowIf"));
}

TEST(Check, AnEmptyReasonKeepsTheFormWithAReason) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_THROW(ThrowIf(true, ""), Error);
  EXPECT_EQ("Failed [failed], reason: ", RecordTail(capture.records().at(0), kFile, "ThrowIf"));
}

TEST(Check, TheReasonMayContainPercentSigns) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_THROW(ThrowIf(true, "%s%n"), Error);
  EXPECT_EQ("Failed [failed], reason: %s%n", RecordTail(capture.records().at(0), kFile, "ThrowIf"));
}

TEST(Check, ReasonAndRecordSeeTheErrnoOfTheCondition) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_THROW(ThrowIfNegative(SetsErrno(EACCES)), Error);
  EXPECT_EQ("Failed [0 > value], reason: negative, reason=Permission denied [err: Permission denied]",
            RecordTail(capture.records().at(0), kFile, "ThrowIfNegative"));
}

TEST(Check, TheConditionIsPrintedAsWrittenAlsoWhereItNamesMacros) {
  const RecordCapture capture;
  errno = 0;
  int error = EINTR;
  EXPECT_TRUE(ORBISK_FAILED(EINTR == error));
  EXPECT_EQ("Failed [EINTR == error]", RecordTail(capture.records().at(0), kFile, "TestBody"));
}

TEST(Check, WithoutExceptionTheRecordHasNoReason) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_TRUE(FailIf(true));
  errno = EIO;
  EXPECT_TRUE(FailIf(true));
  EXPECT_EQ(0, errno);
  ASSERT_EQ(2U, capture.records().size());
  EXPECT_EQ("%s:%d (%d, %u) (%s) Failed [%s]", capture.records()[0].format);
  EXPECT_EQ("Failed [failed]", RecordTail(capture.records()[0], kFile, "FailIf"));
  EXPECT_EQ("%s:%d (%d, %u) (%s) Failed [%s] [err: %m]", capture.records()[1].format);
  EXPECT_EQ("Failed [failed] [err: Input/output error]", RecordTail(capture.records()[1], kFile, "FailIf"));
}

TEST(Check, AGivenTextStandsInForTheCondition) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_THROW(ThrowWithText(true), Error);
  EXPECT_TRUE(FailWithText(true));
  EXPECT_EQ("Failed [!folders.toFile(kPath)], reason: unwritable",
            RecordTail(capture.records().at(0), kFile, "ThrowWithText"));
  EXPECT_EQ("Failed [any text]", RecordTail(capture.records().at(1), kFile, "FailWithText"));
}

TEST(Check, AGivenLineIsPrintedInsteadOfTheRealOne) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_THROW(ThrowAtLine(true), Error);
  EXPECT_TRUE(FailAtLine(true));
  EXPECT_EQ(0U, capture.texts().at(0).find("check_test.cpp:42 ("));
  EXPECT_EQ(0U, capture.texts().at(1).find("check_test.cpp:52 ("));
}

TEST(Check, OtherwiseTheRecordNamesTheRealLine) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_TRUE(ORBISK_FAILED(capture.records().empty()));
  const int line = __LINE__ - 1;
  EXPECT_EQ(0U, capture.texts().at(0).find("check_test.cpp:" + std::to_string(line) + " ("));
}

TEST(Record, CarriesATextOfItsOwnBehindThePrefix) {
  const RecordCapture capture;
  errno = 0;
  ORBISK_RECORD(ORBISK_SOURCE, "ProcessDir failed on %s", "/a");
  errno = EPERM;
  ORBISK_RECORD(ORBISK_SOURCE, "ProcessDir failed on %s", "/a");
  EXPECT_EQ(0, errno);
  EXPECT_EQ("%s:%d (%d, %u) (%s) ProcessDir failed on %s", capture.records().at(0).format);
  EXPECT_EQ("%s:%d (%d, %u) (%s) ProcessDir failed on %s [err: %m]", capture.records().at(1).format);
  EXPECT_EQ("ProcessDir failed on /a [err: Operation not permitted]",
            RecordTail(capture.records().at(1), kFile, "TestBody"));
}

TEST(Note, CarriesFileAndLineOnlyAtPriorityThreeAndLeavesErrnoAlone) {
  const RecordCapture capture;
  errno = EPERM;
  ORBISK_NOTE("Queue crashed: %s", "/q");
  const int line = __LINE__ - 1;
  EXPECT_EQ(EPERM, errno);
  const Record record = capture.records().at(0);
  EXPECT_EQ(3, record.priority);
  EXPECT_EQ("%s:%d Queue crashed: %s", record.format);
  EXPECT_EQ("check_test.cpp:" + std::to_string(line) + " Queue crashed: /q", record.text);
}

#undef ORBISK_RECORD_FILE
#define ORBISK_RECORD_FILE "another.cpp"

TEST(Records, OfAFileThatCarriesOnAnotherNameThatOne) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_TRUE(ORBISK_FAILED(1 > 0));
  EXPECT_TRUE(ORBISK_FAILED_AT(42, 1 > 0));
  ORBISK_NOTE("said");
  ORBISK_RECORD(ORBISK_SOURCE, "told");

  ASSERT_EQ(4U, capture.records().size());
  for (const std::string& text : capture.texts()) {
    EXPECT_EQ(0U, text.find("another.cpp:")) << text;
  }
}

}  // namespace
}  // namespace orbisk
