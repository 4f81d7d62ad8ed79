// JSON text of daemons.
#include "services/base/json_text.h"

#include <gtest/gtest.h>

namespace service {
namespace {

std::string Nested(size_t levels) {
  return std::string(levels, '[') + std::string(levels, ']');
}

TEST(JsonText, IsOneLineWithSortedKeysAndBytesAsTheyAre) {
  Json::Value value;
  value["b"] = "caf\xe9\n";
  value["a"] = 1;

  EXPECT_EQ(ToText(value), "{\"a\":1,\"b\":\"caf\xe9\\n\"}");
}

TEST(JsonText, BytesComeBackAsTheyWere) {
  std::string bytes;
  for (int byte = 1; byte < 256; ++byte) {
    bytes += static_cast<char>(byte);
  }

  EXPECT_EQ(FromText(ToText(Json::Value(bytes)))->asString(), bytes);
}

TEST(JsonText, ReadsPlainValuesToo) {
  EXPECT_EQ(FromText("7"), Json::Value(7));
}

TEST(JsonText, RefusesWhatIsNearlyJsonAndSaysWhy) {
  for (const std::string text : {"", "{", "{} {}", "{}x", "// c\n{}", "{\"a\":1,\"a\":2}", "{'a':1}"}) {
    std::string problem;
    EXPECT_FALSE(FromText(text, kUsualNesting, &problem)) << text;
    EXPECT_NE(problem, "") << text;
  }
}

TEST(JsonText, ZeroByteIsNoEndOfTheText) {
  EXPECT_FALSE(FromText(std::string_view("{}\0", 3)));
  EXPECT_FALSE(FromText(std::string_view("{}\0 rubbish", 11)));
}

TEST(JsonText, RefusesWhatIsNestedDeeperThanAsked) {
  EXPECT_TRUE(FromText(Nested(8), 10));
  EXPECT_FALSE(FromText(Nested(12), 10));
  EXPECT_FALSE(FromText(Nested(100'000)));
}

}  // namespace
}  // namespace service
