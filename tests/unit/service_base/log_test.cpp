// Records stay one line whatever goes into them.
#include "services/base/log.h"

#include <gtest/gtest.h>

#include "tests/support/record_capture.h"

namespace service {
namespace {

using orbisk::test::RecordCapture;

TEST(LogRecord, IsWrittenOnceWhenItGoes) {
  const RecordCapture log;
  {
    Record record(LOG_WARNING, "queue_blocked");
    record.Add("lines", 3);
    EXPECT_TRUE(log.records().empty());
  }

  ASSERT_EQ(log.records().size(), 1U);
  EXPECT_EQ(log.records()[0].priority, LOG_WARNING);
  EXPECT_EQ(log.records()[0].text, "event=queue_blocked lines=3");
}

TEST(LogRecord, QuotesWhatWouldBreakTheLineOrThePairs) {
  const RecordCapture log;

  Record(LOG_INFO, "e").Add("a", "plain/path").Add("b", "two words").Add("c", "x=\"\\").Add("d", "\n\x01").Add("e", "");

  EXPECT_EQ(log.texts().at(0), R"(event=e a=plain/path b="two words" c="x=\"\\" d="\x0a\x01" e="")");
}

TEST(LogRecord, TakesAPercentSignAsItIs) {
  const RecordCapture log;

  Record(LOG_INFO, "e").Add("name", "100%s");

  EXPECT_EQ(log.texts().at(0), "event=e name=100%s");
}

TEST(LogRecord, TellsAnErrorNumberInWords) {
  const RecordCapture log;

  Record(LOG_INFO, "e").AddErrno("reason", ENOENT);

  EXPECT_EQ(log.texts().at(0), "event=e reason=\"No such file or directory\"");
}

}  // namespace
}  // namespace service
