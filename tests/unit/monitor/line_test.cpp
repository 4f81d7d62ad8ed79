// Queue lines against the JSON library that their readers use.
#include "services/monitor/line.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <random>

namespace nimotifyd {
namespace {

Json::Value Parse(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors << text;
  return value;
}

std::string Escaped(std::string_view text) {
  std::string out;
  AppendEscaped(out, text);
  return out;
}

TEST(LineTest, LineHoldsTheEventTheKindAndThePath) {
  std::string line;
  AppendLine(line, kCreate, false, {"/v/s", "f"});
  EXPECT_EQ(line, "{\"event\":64,\"is_dir\":false,\"path\":\"/v/s/f\"}\n");
}

TEST(LineTest, LineOfTheFolderItselfHasNoNameBehindIt) {
  std::string line;
  AppendLine(line, kAttrib, true, {"/v/s", ""});
  AppendLine(line, kAttrib, true, {"", ""});
  EXPECT_EQ(line,
            "{\"event\":4,\"is_dir\":true,\"path\":\"/v/s\"}\n"
            "{\"event\":4,\"is_dir\":true,\"path\":\"/\"}\n");
}

TEST(LineTest, RenameHoldsBothPaths) {
  std::string line;
  AppendRenameLine(line, true, {"/v/a", "x"}, {"/v/b", "y"});
  EXPECT_EQ(line, "{\"event\":256,\"is_dir\":true,\"path\":\"/v/b/y\",\"path_old\":\"/v/a/x\"}\n");
}

TEST(LineTest, LinesAreAppended) {
  std::string lines = "before\n";
  AppendLine(lines, kDelete, false, {"/a", "b"});
  EXPECT_EQ(lines.substr(0, 7), "before\n");
}

TEST(LineTest, ControlBytesQuotesAndBackslashesAreEscaped) {
  EXPECT_EQ(Escaped("a\nb"), "a\\nb");
  EXPECT_EQ(Escaped("\b\f\r\t"), "\\b\\f\\r\\t");
  EXPECT_EQ(Escaped("\x01\x1f"), "\\u0001\\u001f");
  EXPECT_EQ(Escaped("\"\\"), "\\\"\\\\");
}

TEST(LineTest, BytesThatAreNoTextStayAsTheyAre) {
  EXPECT_EQ(Escaped("\xff\x80\x7f\xc3"), "\xff\x80\x7f\xc3");
}

TEST(LineTest, RandomBytesComeBackThroughTheJsonLibrary) {
  std::mt19937 random(7);
  for (int round = 0; round < 20'000; ++round) {
    std::string name;
    for (auto length = random() % 12 + 1; length > 0; --length) {
      const char byte = static_cast<char>(random() % 256);
      name += byte == '\0' || byte == '/' ? 'x' : byte;
    }
    std::string line;
    AppendLine(line, kModify, false, {"/v", name});
    ASSERT_EQ(line.find('\n'), line.size() - 1);
    ASSERT_EQ(Parse(line)["path"].asString(), "/v/" + name);
  }
}

}  // namespace
}  // namespace nimotifyd
