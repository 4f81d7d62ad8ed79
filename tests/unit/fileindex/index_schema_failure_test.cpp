// What callers get where the texts of the index's schema are no JSON. Texts that are broken stand in for the library's.
#include "fileindex/index_schema.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "orbisk/fileindex/elastic_control.h"
#include "tests/support/record_capture.h"
#include "tests/unit/error_of.h"

namespace orbisk::fileindex::elastic {

const char kIndexMappings[] = "{";
const char kIndexEventHandler[] = "lib_path";

namespace {

using orbisk::test::ErrorOf;
using orbisk::test::RecordCapture;
using testing::HasSubstr;

TEST(IndexSchemaFailure, BrokenMappingsAreError502EveryTime) {
  const RecordCapture log;

  EXPECT_EQ("502 ", ErrorOf(GetFileIndexMappings));
  EXPECT_EQ("502 ", ErrorOf(GetFileIndexMappings));

  ASSERT_EQ(2U, log.texts().size());
  EXPECT_THAT(log.texts()[1], HasSubstr("(GetFileIndexMappings) Failed [!ret.fromString(mappings)], reason: "));
}

TEST(IndexSchemaFailure, ABrokenEventHandlerIsError502) {
  const RecordCapture log;

  EXPECT_EQ("502 ", ErrorOf(GetFileIndexEventHandler));

  ASSERT_EQ(1U, log.texts().size());
  EXPECT_THAT(log.texts()[0],
              HasSubstr("(GetFileIndexEventHandler) Failed [!ret.fromString(event_handler)], reason: "));
}

}  // namespace
}  // namespace orbisk::fileindex::elastic
