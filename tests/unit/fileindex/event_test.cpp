// Event lines: what is read, what is refused, and the records of refusals.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "orbisk/error.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/json.h"
#include "tests/support/record_capture.h"
#include "tests/unit/fileindex/queue_lines.h"
#include "tests/unit/record_match.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::ExpectFailure;
using orbisk::test::RecordCapture;

std::string RefusalOf(const std::string& line) {
  return ErrorOf([&] { const Event event(line); });
}

TEST(Event, ReadsAllMembers) {
  const Event event(R"({"event":256,"is_dir":true,"path":"/v/new","path_old":"/v/old","data":{"audio":true}})");
  EXPECT_EQ(0x100, event.event);
  EXPECT_TRUE(event.is_dir);
  EXPECT_EQ("/v/new", event.path);
  EXPECT_EQ("/v/old", event.path_old);
  EXPECT_EQ("{\"audio\":true}", toString(event.data));
}

TEST(Event, OptionalMembersThatAreMissingAreEmptyFalseAndNull) {
  for (const char* line : {R"({"event":64,"path":"/v"})", R"( {"event":64,"path":"/v"} )"}) {
    const Event event{std::string(line)};
    EXPECT_FALSE(event.is_dir) << line;
    EXPECT_EQ("", event.path_old) << line;
    EXPECT_TRUE(event.data.isNull()) << line;
  }
}

TEST(Event, OptionalMembersOfTheWrongTypeCountAsMissing) {
  const Event event(R"({"event":64,"path":"/v","is_dir":"true","path_old":["x"],"data":[1]})");
  EXPECT_FALSE(event.is_dir);
  EXPECT_EQ("", event.path_old);
  EXPECT_EQ("[1]", toString(event.data)) << "data may be of any type";
}

TEST(Event, ConvertibleMembersAreConverted) {
  const Event event(R"({"event":64.9,"path":5,"is_dir":1,"path_old":true})");
  EXPECT_EQ(64, event.event);
  EXPECT_EQ("5", event.path);
  EXPECT_TRUE(event.is_dir);
  EXPECT_EQ("true", event.path_old);
  EXPECT_EQ(0, Event(R"({"event":null,"path":null})").event);
  EXPECT_EQ("", Event(R"({"event":null,"path":null})").path);
}

TEST(Event, SeveralBitsStayOneMask) {
  EXPECT_EQ(0x42, Event(R"({"event":66,"path":"/v"})").event);
  EXPECT_EQ(-1, Event(R"({"event":-1,"path":"/v"})").event);
}

TEST(Event, OtherMembersAreIgnored) {
  const Event event(R"({"event":2,"path":"/v","Path":"/x","extra":{"path":"/y"}})");
  EXPECT_EQ("/v", event.path);
}

TEST(Event, WhiteSpaceRoundAGoodObjectIsNoFault) {
  for (const std::string& line :
       {std::string("{\"event\":2,\"path\":\"/v\"}\r"), std::string(" \t{\"event\" : 2 ,\r \"path\": \"/v\"}  "),
        std::string("\t") + Modify("/v")}) {
    EXPECT_EQ("/v", Event(line).path) << line;
  }
}

TEST(Event, BytesOfPathsArePreserved) {
  std::string name = "/";
  for (int byte = 1; byte < 256; ++byte) {
    name.push_back(static_cast<char>(byte));
  }
  EXPECT_EQ(name, Event(Modify(name)).path);
  EXPECT_EQ("/\xff\xfe", Event("{\"event\":2,\"path\":\"/\xff\xfe\"}").path);
  EXPECT_EQ("/a\"b\\c\n\xc3\xa9", Event("{\"event\":2,\"path\":\"/a\\\"b\\\\c\\n\\u00e9\"}").path);
}

TEST(Event, ALineThatIsNotJsonIsRefusedWithItsText) {
  for (const std::string line :
       {"", " ", "{", "{\"event\":64,\"path\":\"/v\"", "nonsense", "{\"event\":64,\"path\":\"/v\"} x",
        "{\"event\":64,\"path\":\"/v\"}{\"event\":64,\"path\":\"/w\"}", "{\"event\":64,\"path\":\"/v\"},"}) {
    EXPECT_EQ("906 Malformed event_raw: " + line, RefusalOf(line));
  }
}

TEST(Event, NestingBeyondTheParsersLimitIsAMalformedLine) {
  const std::string line =
      "{\"event\":2,\"path\":\"/v\",\"data\":" + std::string(2000, '[') + std::string(2000, ']') + "}";
  EXPECT_EQ("906 Malformed event_raw: " + line, RefusalOf(line));
}

TEST(Event, AMissingOrWrongMandatoryMemberIsTheReadersError) {
  EXPECT_EQ("120 Missing property: event, data={\"path\":\"/v\"}", RefusalOf(R"({"path":"/v"})"));
  EXPECT_EQ("120 Missing property: path, data={\"event\":64}", RefusalOf(R"({"event":64})"));
  EXPECT_EQ("120 Not a string, data={\"event\":\"64\",\"path\":\"/v\"}", RefusalOf(R"({"event":"64","path":"/v"})"));
  EXPECT_EQ("120 Not a string, data={\"event\":64,\"path\":{}}", RefusalOf(R"({"event":64,"path":{}})"));
  EXPECT_EQ("120 Missing property: event, data={}", RefusalOf("{}")) << "the event is read first";
}

TEST(Event, ARootThatIsNoObjectIsTheReadersError) {
  EXPECT_EQ("120 Not an object, data=[]", RefusalOf("[]"));
  EXPECT_EQ("120 Not an object, data=null", RefusalOf("null"));
  EXPECT_EQ("120 Not an object, data=7", RefusalOf("7"));
}

TEST(Event, AMaskBeyond32BitsIsRefused) {
  EXPECT_EQ("120 Not a string, data={\"event\":2147483648,\"path\":\"/v\"}",
            RefusalOf(R"({"event":2147483648,"path":"/v"})"));
  EXPECT_EQ(2147483647, Event(R"({"event":2147483647,"path":"/v"})").event);
  EXPECT_EQ("120", RefusalOf(R"({"event":18446744073709551616,"path":"/v"})").substr(0, 3));
}

TEST(Event, AMalformedLineLeavesTheRecordOfTheCheck) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_THROW(Event("{torn"), Error);
  errno = EBADF;
  EXPECT_THROW(Event("{torn"), Error);
  EXPECT_EQ(0, errno);
  const auto records = capture.records();
  ASSERT_EQ(2U, records.size());
  ExpectFailure(records[0], "op.cpp", "Event", "!data.fromString(event_raw)", "Malformed event_raw: {torn");
  ExpectFailure(records[1], "op.cpp", "Event", "!data.fromString(event_raw)", "Malformed event_raw: {torn",
                strerror(EBADF));
}

TEST(Event, TheBitsHaveTheNumbersOfTheQueueFormat) {
  EXPECT_EQ(0x2, EVENT_MODIFY);
  EXPECT_EQ(0x4, EVENT_ATTRIB);
  EXPECT_EQ(0x40, EVENT_CREATE);
  EXPECT_EQ(0x80, EVENT_DELETE);
  EXPECT_EQ(0x100, EVENT_RENAME);
  EXPECT_EQ(0x200, EVENT_QUEUE_CRASHED);
  EXPECT_EQ(0x10000, EVENT_REINDEX);
  EXPECT_EQ(0x20000, EVENT_UPDATE_DIRECTORY);
}

}  // namespace
}  // namespace orbisk::fileindex::test
