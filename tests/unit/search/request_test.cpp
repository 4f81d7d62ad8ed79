// Requests are taken apart as JSON says, without trees for what is not looked at yet.
#include "services/search/request.h"

#include <gtest/gtest.h>
#include <json/writer.h>

#include <functional>
#include <random>

#include "services/base/json_text.h"
#include "services/search/json_scanner.h"
#include "services/search/json_text.h"
#include "services/search/refusal.h"

namespace nimoelasticd {
namespace {

Code CodeOf(const std::function<void()>& work) {
  try {
    work();
  } catch (const Refusal& refusal) {
    return refusal.code();
  }
  return Code{};
}

TEST(Request, SingleCommandIsReadWithItsData) {
  const Request request(R"({"data":{"id":"a"},"command":"commit"})");

  EXPECT_FALSE(request.compound());
  ASSERT_EQ(1U, request.size());
  EXPECT_EQ("commit", request.At(0).name);
  EXPECT_EQ("a", request.At(0).data["id"].asString());
}

TEST(Request, CompoundHasItsCommandsInOrder) {
  const Request request(
      R"( { "x" : 1, "compound" : [ {"command":"a","data":{"s":"],}\\\""}} , {"command":"b","data":{}} ] } )");

  ASSERT_TRUE(request.compound());
  ASSERT_EQ(2U, request.size());
  EXPECT_EQ("a", request.At(0).name);
  EXPECT_EQ("],}\\\"", request.At(0).data["s"].asString());
  EXPECT_EQ("b", request.At(1).name);
}

TEST(Request, NameOfCompoundMayBeWrittenWithEscapes) {
  EXPECT_TRUE(Request(R"({"\u0063ompound":[]})").compound());
}

TEST(Request, BadCommandInACompoundIsRefusedAlone) {
  const Request request(R"({"compound":[{"command":7},{"nothing":{}},{"command":"a","data":[]},tru,
                            {"compound":[]},{"command":"ok","data":{}}]})");

  EXPECT_EQ(Code::kBadMember, CodeOf([&] { request.At(0); }));
  EXPECT_EQ(Code::kBadMember, CodeOf([&] { request.At(1); }));
  EXPECT_EQ(Code::kBadMember, CodeOf([&] { request.At(2); }));
  EXPECT_EQ(Code::kMalformedRequest, CodeOf([&] { request.At(3); }));
  EXPECT_EQ(Code::kMalformedRequest, CodeOf([&] { request.At(4); }));
  EXPECT_EQ("ok", request.At(5).name);
}

TEST(Request, BrokenTextIsMalformed) {
  for (const char* text : {"",
                           " ",
                           "{",
                           "}",
                           "[]",
                           "7",
                           "\"x\"",
                           "{]",
                           "{\"a\"}",
                           "{\"a\":}",
                           "{\"a\":1,}",
                           "{\"a\":1 \"b\":2}",
                           "{a:1}",
                           "{\"a\":\"x}",
                           "{\"a\":[1}",
                           "{\"a\":1}}",
                           "{\"compound\":{}}",
                           "{\"compound\":[,]}",
                           "{\"compound\":[1,]}",
                           "{\"compound\":[1 2]}",
                           "{\"compound\":[{]}",
                           "{\"\\q\":1}",
                           "{\"a\":1,\n}",
                           "{\"compound\":[{},]}"}) {
    EXPECT_EQ(Code::kMalformedRequest, CodeOf([&] { const Request request{std::string(text)}; })) << text;
  }
}

TEST(Request, NestingThatWouldExhaustTheStackIsMalformed) {
  const std::string deep(1'000'000, '[');
  EXPECT_EQ(Code::kMalformedRequest, CodeOf([&] { const Request request("{\"compound\":" + deep); }));

  const Request request("{\"compound\":[" + deep + std::string(1'000'000, ']') + "]}");
  EXPECT_EQ(Code::kMalformedRequest, CodeOf([&] { request.At(0); }));
}

TEST(Request, MembersOfOtherTypesAreRefused) {
  Json::Value data;
  data["s"] = "text";
  data["n"] = 7;
  data["null"] = Json::Value();

  EXPECT_EQ("text", RequireString(data, "s"));
  EXPECT_EQ(7, OptionalInt(data, "n", 1, 0, 7));
  EXPECT_EQ(1, OptionalInt(data, "null", 1, 0, 7));
  EXPECT_EQ(Code::kBadMember, CodeOf([&] { OptionalInt(data, "n", 1, 0, 6); }));
  EXPECT_EQ(Code::kBadMember, CodeOf([&] { OptionalInt(data, "s", 1, 0, 6); }));
  EXPECT_EQ(Code::kBadMember, CodeOf([&] { RequireString(data, "n"); }));
  EXPECT_EQ(Code::kBadMember, CodeOf([&] { RequireString(data, "missing"); }));
  EXPECT_EQ(Code::kBadMember, CodeOf([&] { OptionalBool(data, "n", true); }));
  EXPECT_EQ(Code::kBadMember, CodeOf([&] { RequireObject(data, "s"); }));
  EXPECT_EQ(Code::kBadMember, CodeOf([&] { OptionalStrings(data, "s"); }));
}

TEST(JsonText, BytesComeBackAsTheyWere) {
  std::string bytes;
  for (int c = 0; c < 256; ++c) {
    bytes += static_cast<char>(c);
  }
  Json::Value value;
  value["x"] = bytes;

  EXPECT_EQ(bytes, ReadJson(service::ToText(value))["x"].asString());
  EXPECT_EQ(std::string::npos, service::ToText(value).find('\n'));
}

TEST(JsonText, WhatIsNearlyJsonIsRefused) {
  for (const char* text : {"{} {}", "[1,]", "{\"a\":1,}", "/* c */ {}", "{'a':1}", "[,]", "{\"a\":1,\"a\":2}", "nul"}) {
    EXPECT_EQ(Code::kMalformedRequest, CodeOf([&] { ReadJson(text); })) << text;
  }
}

TEST(JsonText, ZeroByteIsNoEndOfTheText) {
  EXPECT_EQ(Code::kMalformedRequest, CodeOf([] { ReadJson(std::string_view("{}\0", 3)); }));
  EXPECT_EQ(Code::kMalformedRequest, CodeOf([] { ReadJson(std::string_view("{}\0 rubbish", 11)); }));
}

Json::Value RandomValue(std::mt19937& random, int depth) {
  static const std::string kLetters = "ab\"\\{}[],: \n\xff";
  const auto text = [&] {
    std::string result;
    for (size_t i = random() % 6; i > 0; --i) {
      result += kLetters[random() % kLetters.size()];
    }
    return result;
  };
  switch (depth > 3 ? random() % 4 : random() % 6) {
    case 0:
      return static_cast<int>(random());
    case 1:
      return random() % 2 == 0;
    case 2:
      return text();
    case 3:
      return Json::Value();
    case 4: {
      Json::Value array(Json::arrayValue);
      for (size_t i = random() % 5; i > 0; --i) {
        array.append(RandomValue(random, depth + 1));
      }
      return array;
    }
    default: {
      Json::Value object(Json::objectValue);
      for (size_t i = random() % 5; i > 0; --i) {
        object[text()] = RandomValue(random, depth + 1);
      }
      return object;
    }
  }
}

std::string WithBlanks(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = " \t\r";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

TEST(JsonScanner, FindsTheSameValuesAsAParser) {
  std::mt19937 random(3);
  for (int round = 0; round < 3000; ++round) {
    const Json::Value value = RandomValue(random, 0);
    const std::string text = round % 2 == 0 ? service::ToText(value) : WithBlanks(value);
    if (value.isArray()) {
      const std::vector<std::string_view> elements = ScanArray(text);
      ASSERT_EQ(value.size(), elements.size()) << text;
      for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
        ASSERT_EQ(value[i], ReadJson(elements[i])) << text;
      }
    } else if (value.isObject()) {
      const auto members = ScanObject(text);
      ASSERT_EQ(value.size(), members.size()) << text;
      for (const auto& [name, member] : members) {
        ASSERT_EQ(value[ReadJson(name).asString()], ReadJson(member)) << text;
      }
    }
  }
}

}  // namespace
}  // namespace nimoelasticd
