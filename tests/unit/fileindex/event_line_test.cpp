// The quick reader of event lines against the JSON road, on plain lines, odd lines and damaged ones.
#include "fileindex/event_line.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "orbisk/error.h"
#include "orbisk/json.h"
#include "tests/unit/fileindex/queue_lines.h"

namespace orbisk::fileindex::test {
namespace {

using std::string_literals::operator""s;

// What the JSON parser and the typed readers make of a line.
std::string ByJson(const std::string& line) {
  Json::Value record;
  if (!fromString(record, line)) {
    return "906";
  }
  int event = 0;
  bool is_dir = false;
  std::string path;
  std::string path_old;
  Json::Value data;
  try {
    GetJsonValue(event, record, "event", true);
    GetJsonValue(is_dir, record, "is_dir", false);
    GetJsonValue(path, record, "path", true);
    GetJsonValue(path_old, record, "path_old", false);
    GetJsonValue(data, record, "data", false);
  } catch (const Error& error) {
    return std::to_string(error.code());
  }
  std::ostringstream text;
  text << event << (is_dir ? " folder " : " file ") << path << "|" << path_old << "|" << toString(data);
  return text.str();
}

std::string Text(const Event& event) {
  std::ostringstream text;
  text << event.event << (event.is_dir ? " folder " : " file ") << event.path << "|" << event.path_old << "|"
       << toString(event.data);
  return text.str();
}

std::string ByEvent(const std::string& line) {
  try {
    return Text(Event(line));
  } catch (const Error& error) {
    return std::to_string(error.code());
  }
}

bool IsPlain(const std::string& line) {
  Event event(Create("/spare"));
  return ReadPlainEvent(line, event);
}

const std::vector<std::string>& PlainLines() {
  static const std::vector<std::string> lines = {
      R"({"event":64,"path":"/a"})",
      R"({"data":null,"event":64,"is_dir":false,"path":"/volume1/s/file.txt","path_old":""})",
      R"({"event":256,"is_dir":true,"path":"/new","path_old":"/old"})",
      R"({"path_old":"/old","path":"/new","is_dir":false,"event":256})",
      R"({"event":0,"path":""})",
      R"({"event":999999999,"path":"/a"})",
      "{\"event\":2,\"path\":\"/caf\xc3\xa9/\xff\xfe\"}",
      "{\"event\":2,\"path\":\"/tab\there\"}",
      R"({"event":2,"event":4,"path":"/first","path":"/second","is_dir":true,"is_dir":false})",
      R"({"event":2,"path":"/a,b:{}[]"})",
  };
  return lines;
}

const std::vector<std::string>& OddLines() {
  static const std::vector<std::string> lines = {
      "",
      "{",
      "{}",
      "{,}",
      "null",
      R"({"event":64})",
      R"({"path":"/a"})",
      R"({"event":64,"path":"/a",})",
      R"({"event":64,,"path":"/a"})",
      R"({,"event":64,"path":"/a"})",
      R"({"event":64"path":"/a"})",
      R"({"event":64,"path":"/a"}})",
      R"({"event":64,"path":"/a"} )",
      R"( {"event":64,"path":"/a"})",
      R"({"event": 64,"path":"/a"})",
      "{\"event\":64,\"path\":\"/a\"}\r",
      R"({"event":-64,"path":"/a"})",
      R"({"event":+64,"path":"/a"})",
      R"({"event":064,"path":"/a"})",
      R"({"event":00,"path":"/a"})",
      R"({"event":64.0,"path":"/a"})",
      R"({"event":6e1,"path":"/a"})",
      R"({"event":6x,"path":"/a"})",
      R"({"event":,"path":"/a"})",
      R"({"event":2147483647,"path":"/a"})",
      R"({"event":2147483648,"path":"/a"})",
      R"({"event":1000000000,"path":"/a"})",
      R"({"event":0000000000000064,"path":"/a"})",
      R"({"event":"64","path":"/a"})",
      R"({"event":true,"path":"/a"})",
      R"({"event":null,"path":"/a"})",
      R"({"event":64,"path":null})",
      R"({"event":64,"path":7})",
      R"({"event":64,"path":"/a\"b"})",
      R"({"event":64,"path":"/a\\"})",
      R"({"event":64,"path":"/a\u00e9\ud83d\ude00"})",
      R"({"event":64,"path":"/a\q"})",
      R"({"event":64,"path":"/a\)",
      R"({"event":64,"path":"/a)",
      R"({"event":64,"path":"/a","is_dir":1})",
      R"({"event":64,"path":"/a","is_dir":"true"})",
      R"({"event":64,"path":"/a","is_dir":True})",
      R"({"event":64,"path":"/a","is_dir":truex})",
      R"({"event":64,"path":"/a","is_dir":null})",
      R"({"event":64,"path":"/a","path_old":null})",
      R"({"event":64,"path":"/a","path_old":[]})",
      R"({"event":64,"path":"/a","is_dir":true,"is_dir":"x"})",
      R"({"event":64,"path":"/a","is_dir":true,"other":1,"is_dir":"x"})",
      R"({"event":64,"path":"/a","path_old":"/o","path_old":{}})",
      R"({"event":64,"path":"/a","data":{"audio":true}})",
      R"({"event":64,"path":"/a","data":{},"data":null})",
      R"({"event":64,"path":"/a","data":nullx})",
      R"({"event":64,"path":"/a","other":1})",
      R"({"Event":64,"path":"/a"})",
      R"({"ev\u0065nt":64,"path":"/a"})",
      R"({"event":64,"path":"/a"}/* c */)",
      R"(/* c */{"event":64,"path":"/a"})",
      R"({/* c */"event":64,"path":"/a"})",
      "\xef\xbb\xbf{\"event\":64,\"path\":\"/a\"}",
      "{\"event\":64,\"path\":\"/a\0b\"}"s,
      "{\"event\":64,\"path\":\"/a\"}\0"s,
      "\0{\"event\":64,\"path\":\"/a\"}"s,
      "[{\"event\":64,\"path\":\"/a\"}]",
      R"({"event":64,"path":"/a"}{"event":64,"path":"/b"})",
  };
  return lines;
}

TEST(EventLine, PlainLinesTakeTheQuickRoadAndReadTheSame) {
  for (const std::string& line : PlainLines()) {
    EXPECT_TRUE(IsPlain(line)) << line;
    EXPECT_EQ(ByJson(line), ByEvent(line)) << line;
  }
}

TEST(EventLine, WhatTheLineWritersMakeIsPlain) {
  for (const std::string& line : {Create("/a"), Modify("/a"), Attrib("/a"), Delete("/a"), CreateFolder("/a"),
                                  DeleteFolder("/a"), Reindex("/a"), Rename("/a", "/b"), Crash()}) {
    EXPECT_TRUE(IsPlain(line)) << line;
  }
}

TEST(EventLine, OddLinesReadAsTheParserReadsThem) {
  for (const std::string& line : OddLines()) {
    EXPECT_EQ(ByJson(line), ByEvent(line)) << line;
  }
}

TEST(EventLine, EveryByteInANameReadsAsTheParserReadsIt) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string line = std::string("{\"event\":64,\"path\":\"/a") + static_cast<char>(byte) + "b\"}";
    EXPECT_EQ(ByJson(line), ByEvent(line)) << byte;
  }
}

TEST(EventLine, ALineCutAnywhereReadsAsTheParserReadsIt) {
  for (const std::string& line : PlainLines()) {
    for (size_t length = 0; length <= line.size(); ++length) {
      EXPECT_EQ(ByJson(line.substr(0, length)), ByEvent(line.substr(0, length))) << line.substr(0, length);
    }
  }
}

TEST(EventLine, ARefusedLineLeavesNothingOfItselfInTheEvent) {
  // The quick reader gets past the mask and the flag before it gives up.
  const Event event(R"({"event":64,"is_dir":true,"path":"/a","other":1,"is_dir":"no"})");
  EXPECT_FALSE(event.is_dir);
}

class Damage {
 public:
  explicit Damage(unsigned seed) : random_(seed) {}

  std::string Next() {
    std::string line = Pick();
    for (size_t changes = 1 + Below(3); changes > 0; --changes) {
      Change(line);
    }
    return line;
  }

 private:
  size_t Below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random_); }

  const std::string& Pick() {
    const auto& lines = Below(3) == 0 ? OddLines() : PlainLines();
    return lines[Below(lines.size())];
  }

  void Change(std::string& line) {
    static const std::string kSyntax = "{}[]\":,\\/ \t\r0123456789-+.etrufalsn\0\xff"s;
    static const std::vector<std::string> kPieces = {"\"event\":",
                                                     "\"is_dir\":true",
                                                     "\"is_dir\":false,",
                                                     ",\"path\":\"/p\"",
                                                     "\"path_old\":\"\",",
                                                     "\"data\":null",
                                                     ",\"is_dir\":[]",
                                                     "null",
                                                     "true",
                                                     "\\u0041",
                                                     "1234567890",
                                                     "}",
                                                     "\"data\":{\"a\":1},"};
    const size_t at = Below(line.size() + 1);
    switch (Below(5)) {
      case 0:
        line.insert(at, 1, kSyntax[Below(kSyntax.size())]);
        break;
      case 1:
        line.erase(at, 1 + Below(4));
        break;
      case 2:
        line.insert(at, kPieces[Below(kPieces.size())]);
        break;
      case 3: {
        const std::string& other = Pick();
        line = line.substr(0, at) + other.substr(Below(other.size() + 1));
        break;
      }
      default:
        if (at < line.size()) {
          line[at] = static_cast<char>(Below(256));
        }
    }
  }

  std::mt19937 random_;
};

TEST(EventLine, DamagedLinesReadAsTheParserReadsThem) {
  constexpr int kLines = 100'000;
  Damage damage(20'261);
  int quick = 0;
  int good = 0;
  for (int i = 0; i < kLines; ++i) {
    const std::string line = damage.Next();
    const std::string expected = ByJson(line);
    ASSERT_EQ(expected, ByEvent(line)) << "line " << i << ": " << line;
    quick += IsPlain(line) ? 1 : 0;
    good += expected.size() > 4 ? 1 : 0;
  }
  EXPECT_GT(quick, kLines / 50) << "the damage leaves lines for the quick road";
  EXPECT_GT(good, quick) << "and good ones for the other";
}

}  // namespace
}  // namespace orbisk::fileindex::test
