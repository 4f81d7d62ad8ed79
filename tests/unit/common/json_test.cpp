// JSON text to values and back, and typed reading of members.
#include "orbisk/json.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>
#include <random>

#include "common/check.h"
#include "orbisk/error.h"
#include "tests/support/record_capture.h"
#include "tests/unit/record_match.h"

namespace {

thread_local bool memory_is_short = false;  // the kernel gives no more

}  // namespace

extern "C" void* mmap(void* address, size_t bytes, int protection, int flags, int fd, off_t offset) noexcept {
  if (memory_is_short) {
    errno = ENOMEM;
    return MAP_FAILED;
  }
  return reinterpret_cast<void*>(syscall(SYS_mmap, address, bytes, protection, flags, fd, offset));
}

namespace orbisk {
namespace {

using test::ExpectFailure;
using test::RecordCapture;

Json::Value Parse(const std::string& text) {
  Json::Value value;
  if (!fromString(value, text)) {
    ADD_FAILURE() << "not JSON: " << text;
  }
  return value;
}

// The reason of the Error 120 that reading throws; "none" without one.
template <typename T>
std::string Refusal(const std::string& json, const std::string& key, bool required) {
  T out{};
  try {
    GetJsonValue<T>(out, Parse(json), key, required);
  } catch (const Error& error) {
    EXPECT_EQ(120, error.code());
    return error.what();
  }
  return "none";
}

// What an `out` that started as `before` is after reading.
template <typename T>
T ReadInto(T before, const std::string& json, bool required) {
  GetJsonValue<T>(before, Parse(json), "k", required);
  return before;
}

std::string Brackets(size_t levels) {
  return std::string(levels, '[') + std::string(levels, ']');
}

std::string Changed(const std::string& target, const std::string& changes) {
  Json::Value value = Parse(target);
  JsonApplyChanges(value, Parse(changes));
  return toString(value);
}

TEST(JsonFromString, AcceptsAnyTypeOfRoot) {
  EXPECT_EQ("{\"a\":1}", toString(Parse("{\"a\":1}")));
  EXPECT_EQ("[1,2]", toString(Parse("[1,2]")));
  EXPECT_EQ("7", toString(Parse("7")));
  EXPECT_EQ("\"x\"", toString(Parse("\"x\"")));
  EXPECT_EQ("true", toString(Parse("true")));
  EXPECT_EQ("null", toString(Parse("null")));
}

TEST(JsonFromString, AcceptsWhiteSpaceRoundTheValue) {
  EXPECT_EQ("{\"a\":1}", toString(Parse(" \t\r\n{ \"a\" : 1 }\r\n \t")));
}

TEST(JsonFromString, RefusesBadText) {
  const std::vector<std::string> bad = {"",         " ",          "{",    "}",         "{\"a\"",         "{\"a\":}",
                                        "{\"a\":1", "{\"a\":1,}", "[1,]", "[1,,2]",    "{'a':1}",        "{a:1}",
                                        "\"torn",   "nul",        "NaN",  "Infinity",  "{} x",           "{}{}",
                                        "{},",      "1 2",        "[]]",  "null null", "/* only this */"};
  for (const std::string& text : bad) {
    Json::Value value("untouched");
    EXPECT_FALSE(fromString(value, text)) << text;
    EXPECT_EQ(Json::Value("untouched"), value) << text;
  }
}

TEST(JsonFromString, RefusesANulByteAndWhatFollowsTheValue) {
  Json::Value value;
  EXPECT_FALSE(fromString(value, std::string("{}\0", 3)));
  EXPECT_FALSE(fromString(value, std::string("{}\0{}", 5)));
  EXPECT_FALSE(fromString(value, std::string("{}\0 garbage", 11)));
  EXPECT_FALSE(fromString(value, std::string("\0", 1)));
  EXPECT_FALSE(fromString(value, std::string("\0{}", 3)));
}

TEST(JsonFromString, DropsComments) {
  const Json::Value value = Parse("// before\n{ /* in */ \"a\": 1 } // behind");
  EXPECT_EQ("{\"a\":1}", toString(value));
  EXPECT_FALSE(value.hasComment(Json::commentBefore));
  EXPECT_FALSE(value.hasComment(Json::commentAfterOnSameLine));
  EXPECT_FALSE(value["a"].hasComment(Json::commentBefore));
}

TEST(JsonFromString, RefusesMoreThanAThousandLevelsInsteadOfThrowing) {
  Json::Value value;
  EXPECT_TRUE(fromString(value, Brackets(1000)));
  value = "untouched";
  EXPECT_FALSE(fromString(value, Brackets(1001)));
  EXPECT_FALSE(fromString(value, Brackets(2000)));
  EXPECT_FALSE(fromString(value, std::string(100'000, '[')));
  EXPECT_EQ(Json::Value("untouched"), value);
  EXPECT_TRUE(fromString(value, "[]")) << "the reader goes on after a refusal";
}

TEST(JsonToString, IsOneLineWithSortedKeysAndNoNewlineAtTheEnd) {
  EXPECT_EQ("{\"a\":{\"y\":[1,2,{}],\"z\":null},\"b\":1,\"c\":\"x\"}",
            toString(Parse("{\"c\":\"x\",\"b\":1,\"a\":{\"z\":null,\"y\":[1,2,{}]}}")));
  EXPECT_EQ("null", toString(Json::Value()));
  EXPECT_EQ("[]", toString(Json::Value(Json::arrayValue)));
}

TEST(JsonToString, LargeTextIsWholeAndTakesNoMoreRoomThanItNeeds) {
  Json::Value value;
  std::string expected = "[";
  for (int i = 0; i < 500'000; ++i) {
    value.append(i);
    expected += (i == 0 ? "" : ",") + std::to_string(i);
  }
  expected += "]";

  const std::string text = toString(value);

  EXPECT_TRUE(expected == text);
  EXPECT_EQ(expected.size(), text.capacity());
}

TEST(JsonToString, StringLongerThanAPieceOfALargeTextIsWhole) {
  std::string name(3'333'333, 'x');
  for (size_t i = 0; i < name.size(); i += 1'001) {
    name[i] = static_cast<char>('a' + i % 26);
  }
  Json::Value value;
  value.append("short");
  value.append(name);
  value.append("last");

  EXPECT_TRUE("[\"short\",\"" + name + "\",\"last\"]" == toString(value));
}

TEST(JsonToString, LargeTextIsNeverCutForWantOfMemory) {
  const Json::Value value(std::string(3'333'333, 'x'));
  bool is_told = false;

  memory_is_short = true;
  try {
    toString(value);
  } catch (const std::bad_alloc&) {
    is_told = true;
  }
  memory_is_short = false;

  EXPECT_TRUE(is_told);
}

// A value of any type, nested up to `depth`; strings and names hold any byte.
Json::Value RandomValue(std::mt19937& random, int depth) {
  static constexpr double kReals[] = {0.1, 1.0, -2.5e300, 1e-300, 123456789.123456789, 3.0e17, -0.0};
  const auto text = [&] {
    std::string bytes(random() % 30, 'x');
    for (char& c : bytes) {
      c = random() % 3 == 0 ? static_cast<char>(random() % 256) : c;
    }
    return bytes;
  };
  switch (random() % (depth > 0 ? 9 : 7)) {
    case 0:
      return {};
    case 1:
      return Json::Int64{static_cast<int64_t>(random()) << (random() % 33)} * -1;
    case 2:
      return Json::UInt64{random()} << (random() % 33);
    case 3:
      return kReals[random() % std::size(kReals)];
    case 4:
      return random() % 2 == 0;
    case 5:
    case 6:
      return text();
    case 7: {
      Json::Value array(Json::arrayValue);
      for (size_t i = random() % 40; i > 0; --i) {
        array.append(RandomValue(random, depth - 2));
      }
      return array;
    }
    default: {
      Json::Value object(Json::objectValue);
      for (size_t i = random() % 6; i > 0; --i) {
        object[text()] = RandomValue(random, depth - 1);
      }
      return object;
    }
  }
}

TEST(JsonToString, IsWhatTheJsonLibraryWrites) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  builder["emitUTF8"] = true;
  std::mt19937 random(3);
  for (int round = 0; round < 3'000; ++round) {
    const Json::Value value = RandomValue(random, 4);

    EXPECT_EQ(toString(value), Json::writeString(builder, value));
  }
}

TEST(JsonToString, WritesNumbersThatAreNoneAsTheJsonLibraryDoes) {
  const double infinity = std::numeric_limits<double>::infinity();

  EXPECT_EQ(toString(Json::Value(std::numeric_limits<double>::quiet_NaN())), "null");
  EXPECT_EQ(toString(Json::Value(infinity)), "1e+9999");
  EXPECT_EQ(toString(Json::Value(-infinity)), "-1e+9999");
}

TEST(JsonToString, WritesBytesThatAreNotUtf8Unchanged) {
  const std::string name = "caf\xc3\xa9 \xe2\x80\xa8 \xf0\x9f\x98\x80 \xff\xfe \xc3 \x80 \xed\xa0\x80";
  EXPECT_EQ("\"" + name + "\"", toString(Json::Value(name)));
  EXPECT_EQ("{\"" + name + "\":1}", toString(Parse("{\"" + name + "\":1}")));
}

TEST(JsonToString, EveryByteOfAStringComesBack) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes.push_back(static_cast<char>(byte));
  }
  const std::string text = toString(Json::Value(bytes));
  EXPECT_EQ(std::string::npos, text.find('\n'));
  EXPECT_EQ(bytes, Parse(text).asString());
  EXPECT_NE(std::string::npos, text.find("\x7f\x80\x81")) << "bytes above the control characters stay as they are";
}

TEST(JsonTypes, StringIsWhatConvertsToAString) {
  for (const char* good : {"\"x\"", "\"\"", "5", "-5", "1.5", "true", "null"}) {
    EXPECT_TRUE(isJsonType<std::string>(Parse(good))) << good;
  }
  for (const char* bad : {"[]", "{}", "[1]", "{\"a\":1}"}) {
    EXPECT_FALSE(isJsonType<std::string>(Parse(bad))) << bad;
  }
  EXPECT_EQ("5", asJsonType<std::string>(Parse("5")));
  EXPECT_EQ("true", asJsonType<std::string>(Parse("true")));
}

TEST(JsonTypes, BoolIsWhatConvertsToABoolean) {
  for (const char* good : {"true", "false", "0", "1", "2", "0.5", "null"}) {
    EXPECT_TRUE(isJsonType<bool>(Parse(good))) << good;
  }
  for (const char* bad : {"\"true\"", "\"\"", "[1]", "{\"a\":1}"}) {
    EXPECT_FALSE(isJsonType<bool>(Parse(bad))) << bad;
  }
  EXPECT_TRUE(asJsonType<bool>(Parse("2")));
  EXPECT_FALSE(asJsonType<bool>(Parse("0")));
}

TEST(JsonTypes, IntIsWhatConvertsToA32BitInteger) {
  for (const char* good : {"0", "-2147483648", "2147483647", "1.5", "true", "null"}) {
    EXPECT_TRUE(isJsonType<int>(Parse(good))) << good;
  }
  for (const char* bad : {"2147483648", "-2147483649", "1e10", "\"5\"", "[]", "{\"a\":1}"}) {
    EXPECT_FALSE(isJsonType<int>(Parse(bad))) << bad;
  }
  EXPECT_EQ(1, asJsonType<int>(Parse("1.5")));
  EXPECT_EQ(1, asJsonType<int>(Parse("true")));
  EXPECT_EQ(std::numeric_limits<int>::min(), asJsonType<int>(Parse("-2147483648")));
}

TEST(JsonTypes, UnsignedIntIsWhatConvertsToA32BitUnsignedInteger) {
  for (const char* good : {"0", "4294967295", "1.5", "true", "null"}) {
    EXPECT_TRUE(isJsonType<unsigned int>(Parse(good))) << good;
  }
  for (const char* bad : {"-1", "4294967296", "-0.5e1", "\"5\"", "{\"a\":1}"}) {
    EXPECT_FALSE(isJsonType<unsigned int>(Parse(bad))) << bad;
  }
  EXPECT_EQ(4294967295U, asJsonType<unsigned int>(Parse("4294967295")));
}

TEST(JsonTypes, LongIsAStoredIntegerAndNothingElse) {
  for (const char* good : {"0", "-1", "4294967296", "9223372036854775807", "-9223372036854775808"}) {
    EXPECT_TRUE(isJsonType<long>(Parse(good))) << good;
  }
  for (const char* bad : {"true", "false", "null", "1.0", "1.5", "\"5\"", "[]", "{}"}) {
    EXPECT_FALSE(isJsonType<long>(Parse(bad))) << bad;
  }
  EXPECT_TRUE(isJsonType<long>(Json::Value(5U))) << "stored unsigned";
  EXPECT_EQ(std::numeric_limits<long>::min(), asJsonType<long>(Parse("-9223372036854775808")));
  EXPECT_EQ(std::numeric_limits<long>::max(), asJsonType<long>(Parse("9223372036854775807")));
}

TEST(JsonTypes, AnUnsignedValueAboveTheSignedRangeIsNoLongInsteadOfThrowing) {
  EXPECT_FALSE(isJsonType<long>(Parse("9223372036854775808")));
  EXPECT_FALSE(isJsonType<long>(Parse("18446744073709551615")));
  EXPECT_EQ(3L, ReadInto<long>(3, "{\"k\":18446744073709551615}", false));
  EXPECT_EQ("Not a string, data={\"k\":18446744073709551615}",
            Refusal<long>("{\"k\":18446744073709551615}", "k", true));
}

TEST(JsonTypes, DoubleIsWhatConvertsToAReal) {
  for (const char* good : {"1.5", "1", "-1", "18446744073709551615", "true", "null"}) {
    EXPECT_TRUE(isJsonType<double>(Parse(good))) << good;
  }
  for (const char* bad : {"\"1.5\"", "[1]", "{\"a\":1}"}) {
    EXPECT_FALSE(isJsonType<double>(Parse(bad))) << bad;
  }
  EXPECT_DOUBLE_EQ(1.5, asJsonType<double>(Parse("1.5")));
}

TEST(GetJsonValue, SetsOutToAMemberOfEachType) {
  EXPECT_EQ("x", ReadInto<std::string>("", "{\"k\":\"x\"}", true));
  EXPECT_TRUE(ReadInto<bool>(false, "{\"k\":true}", true));
  EXPECT_EQ(-5, ReadInto<int>(0, "{\"k\":-5}", true));
  EXPECT_EQ(5U, ReadInto<unsigned int>(0, "{\"k\":5}", true));
  EXPECT_EQ(4294967296L, ReadInto<long>(0, "{\"k\":4294967296}", true));
  EXPECT_DOUBLE_EQ(2.5, ReadInto<double>(0, "{\"k\":2.5}", true));
  EXPECT_EQ("x", ReadInto<std::string>("", "{\"k\":\"x\"}", false));
  EXPECT_EQ(-5, ReadInto<int>(0, "{\"k\":-5}", false));
}

TEST(GetJsonValue, ARequiredMemberOfTheWrongTypeIsNotAStringWhateverTheType) {
  const std::string json = "{\"k\":[],\"other\":1}";
  const std::string reason = "Not a string, data={\"k\":[],\"other\":1}";
  EXPECT_EQ(reason, Refusal<std::string>(json, "k", true));
  EXPECT_EQ(reason, Refusal<bool>(json, "k", true));
  EXPECT_EQ(reason, Refusal<int>(json, "k", true));
  EXPECT_EQ(reason, Refusal<unsigned int>(json, "k", true));
  EXPECT_EQ(reason, Refusal<long>(json, "k", true));
  EXPECT_EQ(reason, Refusal<double>(json, "k", true));
  EXPECT_EQ("Not a string, data={\"k\":\"seven\"}", Refusal<int>("{\"k\":\"seven\"}", "k", true));
}

TEST(GetJsonValue, AnOptionalMemberOfTheWrongTypeLeavesOutUnchanged) {
  EXPECT_EQ(3, ReadInto<int>(3, "{\"k\":\"seven\"}", false));
  EXPECT_EQ(3L, ReadInto<long>(3, "{\"k\":true}", false));
  EXPECT_EQ("before", ReadInto<std::string>("before", "{\"k\":{}}", false));
  EXPECT_TRUE(ReadInto<bool>(true, "{\"k\":\"no\"}", false));
  EXPECT_EQ(3U, ReadInto<unsigned int>(3, "{\"k\":-1}", false));
  EXPECT_DOUBLE_EQ(3, ReadInto<double>(3, "{\"k\":\"1\"}", false));
}

TEST(GetJsonValue, AnOptionalMemberThatIsMissingLeavesOutUnchanged) {
  EXPECT_EQ(3, ReadInto<int>(3, "{}", false));
  EXPECT_EQ("before", ReadInto<std::string>("before", "{\"K\":\"x\"}", false));
}

TEST(GetJsonValue, ARequiredMemberThatIsMissingIsNamed) {
  EXPECT_EQ("Missing property: k, data={\"K\":1}", Refusal<int>("{\"K\":1}", "k", true));
  EXPECT_EQ("Missing property: k, data={}", Refusal<Json::Value>("{}", "k", true));
}

TEST(GetJsonValue, WhatIsNoObjectIsRefusedEvenForAnOptionalMember) {
  EXPECT_EQ("Not an object, data=[\"k\"]", Refusal<std::string>("[\"k\"]", "k", false));
  EXPECT_EQ("Not an object, data=null", Refusal<bool>("null", "k", false));
  EXPECT_EQ("Not an object, data=5", Refusal<Json::Value>("5", "k", false));
  EXPECT_EQ("Not an object, data=\"k\"", Refusal<int>("\"k\"", "k", true));
}

TEST(GetJsonValue, ARequiredMemberMayBeNull) {
  EXPECT_EQ("", ReadInto<std::string>("before", "{\"k\":null}", true));
  EXPECT_FALSE(ReadInto<bool>(true, "{\"k\":null}", true));
  EXPECT_EQ(0, ReadInto<int>(3, "{\"k\":null}", true));
  EXPECT_DOUBLE_EQ(0, ReadInto<double>(3, "{\"k\":null}", true));
  EXPECT_EQ("Not a string, data={\"k\":null}", Refusal<long>("{\"k\":null}", "k", true)) << "long is strict";
}

TEST(GetJsonValue, AJsonValueMemberOfAnyTypeIsCopied) {
  for (const char* member : {"null", "1", "\"x\"", "[1,{}]", "{\"a\":{}}", "false"}) {
    const std::string json = std::string("{\"k\":") + member + "}";
    EXPECT_EQ(Parse(member), ReadInto<Json::Value>("before", json, true)) << member;
    EXPECT_EQ(Parse(member), ReadInto<Json::Value>("before", json, false)) << member;
  }
  EXPECT_EQ(Json::Value("before"), ReadInto<Json::Value>("before", "{}", false));
}

TEST(GetJsonValue, AJsonValueMayBeReadIntoItsOwnRecord) {
  Json::Value value = Parse("{\"k\":{\"a\":[1]}}");
  GetJsonValue<Json::Value>(value, value, "k", true);
  EXPECT_EQ("{\"a\":[1]}", toString(value));
}

TEST(GetJsonValue, EachRefusalLeavesOneRecord) {
  const RecordCapture capture;
  errno = 0;
  Refusal<int>("[1]", "k", false);
  Refusal<int>("{\"a\":1}", "k", true);
  Refusal<int>("{\"k\":\"x\"}", "k", true);
  Refusal<Json::Value>("{}", "k", true);
  ReadInto<int>(3, "{\"k\":\"x\"}", false);
  const auto records = capture.records();
  ASSERT_EQ(4U, records.size());
  ExpectFailure(records[0], "json.cpp", "GetJsonValue", "!json.isObject()", "Not an object, data=[1]");
  ExpectFailure(records[1], "json.cpp", "GetJsonValue", "!json.isMember(key)", "Missing property: k, data={\"a\":1}");
  ExpectFailure(records[2], "json.cpp", "GetJsonValue", "!isJsonType<T>(json[key])",
                "Not a string, data={\"k\":\"x\"}");
  ExpectFailure(records[3], "json.cpp", "GetJsonValue", "!json.isMember(key)", "Missing property: k, data={}");
}

TEST(GetJsonValue, ARecordShowsErrnoAndResetsIt) {
  const RecordCapture capture;
  const Json::Value json(Json::arrayValue);
  int out = 0;
  errno = ENOTDIR;
  EXPECT_THROW(GetJsonValue<int>(out, json, "k", true), Error);
  EXPECT_EQ(0, errno);
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "json.cpp", "GetJsonValue", "!json.isObject()", "Not an object, data=[]",
                strerror(ENOTDIR));
}

TEST(JsonApplyChanges, NullRemovesAMember) {
  EXPECT_EQ("{\"y\":2}", Changed("{\"x\":1,\"y\":2}", "{\"x\":null}"));
  EXPECT_EQ("{\"y\":2}", Changed("{\"y\":2}", "{\"x\":null}")) << "an absent member is no error";
}

TEST(JsonApplyChanges, AnObjectIsMergedIntoTheMember) {
  EXPECT_EQ("{\"o\":{\"p\":9,\"q\":2}}", Changed("{\"o\":{\"p\":1,\"q\":2}}", "{\"o\":{\"p\":9}}"));
  EXPECT_EQ("{\"o\":{\"d\":{\"x\":1,\"y\":2},\"q\":2}}",
            Changed("{\"o\":{\"d\":{\"x\":1,\"z\":3},\"q\":2}}", "{\"o\":{\"d\":{\"y\":2,\"z\":null}}}"));
}

TEST(JsonApplyChanges, AnObjectMakesTheMemberAsNeeded) {
  EXPECT_EQ("{\"o\":{\"p\":{\"q\":1}}}", Changed("{}", "{\"o\":{\"p\":{\"q\":1}}}"));
  EXPECT_EQ("{\"o\":{}}", Changed("{}", "{\"o\":{}}"));
  EXPECT_EQ("{\"o\":{}}", Changed("{}", "{\"o\":{\"gone\":null}}"));
}

TEST(JsonApplyChanges, AMemberThatIsNoObjectIsReplacedByOneBeforeMerging) {
  EXPECT_EQ("{\"o\":{\"p\":1}}", Changed("{\"o\":5}", "{\"o\":{\"p\":1}}"));
  EXPECT_EQ("{\"o\":{\"p\":1}}", Changed("{\"o\":[1,2]}", "{\"o\":{\"p\":1}}"));
  EXPECT_EQ("{\"o\":{}}", Changed("{\"o\":\"x\"}", "{\"o\":{}}"));
}

TEST(JsonApplyChanges, ArraysAndScalarsReplaceWhole) {
  EXPECT_EQ("{\"a\":[3]}", Changed("{\"a\":[1,2]}", "{\"a\":[3]}"));
  EXPECT_EQ("{\"a\":[]}", Changed("{\"a\":{\"x\":1}}", "{\"a\":[]}"));
  EXPECT_EQ("{\"a\":false,\"b\":\"x\"}", Changed("{\"a\":{\"x\":1}}", "{\"a\":false,\"b\":\"x\"}"));
  EXPECT_EQ("{\"a\":[{\"x\":null}]}", Changed("{\"a\":1}", "{\"a\":[{\"x\":null}]}")) << "nothing inside is applied";
}

TEST(JsonApplyChanges, ChangesThatAreNoObjectChangeNothing) {
  for (const char* changes : {"null", "5", "\"x\"", "[]", "[{\"a\":1}]", "true"}) {
    EXPECT_EQ("{\"a\":2}", Changed("{\"a\":2}", changes)) << changes;
  }
}

TEST(JsonApplyChanges, RemovesTheMemberWhoseNameHoldsANulByteAndNoOther) {
  Json::Value target = Parse("{\"a\":1,\"a\\u0000b\":2}");
  JsonApplyChanges(target, Parse("{\"a\\u0000b\":null}"));
  EXPECT_EQ("{\"a\":1}", toString(target));
}

TEST(JsonApplyChanges, ANullTargetBecomesAnObject) {
  EXPECT_EQ("{\"a\":1}", Changed("null", "{\"a\":1}"));
}

TEST(AppendData, IsTheWholeTextBehindItsName) {
  EXPECT_EQ(", data={\"a\":[1,\"x\"]}", AppendData(Parse("{\"a\": [1, \"x\"]}")));
  EXPECT_EQ(", data=null", AppendData(Json::Value()));
}

TEST(Vec2JsonArr, HoldsTheStringsInOrder) {
  EXPECT_EQ("[\"b\",\"a\",\"\",\"b\"]", toString(Vec2JsonArr<std::string>({"b", "a", "", "b"})));
}

TEST(Vec2JsonArr, AnEmptyListIsAnEmptyArrayAndNotNull) {
  const Json::Value array = Vec2JsonArr<std::string>({});
  EXPECT_TRUE(array.isArray());
  EXPECT_EQ("[]", toString(array));
}

}  // namespace
}  // namespace orbisk
