// "fileindexctl queue", run as a program.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"
#include "tests/system/fileindexctl_box.h"

namespace {

using orbisk::test::BuiltProgram;
using orbisk::test::Fileindexctl;
using orbisk::test::Parse;
using orbisk::test::ProcessResult;
using orbisk::test::ReadFile;
using orbisk::test::RunProcess;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

std::vector<std::string> Lines(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

class QueueCommand : public testing::Test {
 protected:
  std::string Queue(const std::string& content) {
    WriteFile(file_, content);
    return file_;
  }

  ProcessResult Ops(const std::string& content) { return Fileindexctl({"queue", "ops", Queue(content)}); }
  ProcessResult OpsJson(const std::string& content) { return Fileindexctl({"queue", "ops", "--json", Queue(content)}); }
  ProcessResult Events(const std::string& content) { return Fileindexctl({"queue", "events", Queue(content)}); }

  TempDir dir_;
  std::string file_ = dir_ / "queue";
};

constexpr char kCreate[] = R"({"event":64,"is_dir":false,"path":"/v/a"})";
constexpr char kModify[] = R"({"event":2,"is_dir":false,"path":"/v/a"})";
constexpr char kRename[] = R"({"event":256,"is_dir":false,"path":"/v/b","path_old":"/v/a"})";
constexpr char kCrashed[] = R"({"event":512,"path":"/v"})";

std::string Text(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += line + "\n";
  }
  return text;
}

TEST_F(QueueCommand, OpsPrintsDeliveredOperationsInOrderAndThenTheCount) {
  const ProcessResult result = Ops(Text({kCreate, kModify, kRename}));

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output, "[05] /v/a -> /v/b, data=null\n[02] /v/b, data=null\ncount=3\n");
}

TEST_F(QueueCommand, OpsOfAnEmptyQueuePrintsCountZeroAlone) {
  EXPECT_EQ(Ops("").output, "count=0\n");
}

TEST_F(QueueCommand, OpsOfACrashedQueuePrintsOneOperationOnTheRoot) {
  EXPECT_EQ(Ops(Text({kCreate, kCrashed, kModify})).output, "[07] , data=null\ncount=1\n");
}

TEST_F(QueueCommand, OpsSkipsMalformedLinesAndKeepsTheirNeighbours) {
  const ProcessResult result = Ops(Text({kCreate, "rubbish", "", R"({"event":4,"path":"/v/x"})"}));

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output, "[02] /v/a, data=null\n[03] /v/x, data=null\ncount=2\n");
}

TEST_F(QueueCommand, CountPrintsTheLastLineAloneAndCountsCancelledOperations) {
  const std::string file = Queue(Text({kCreate, kModify, kRename}));

  EXPECT_EQ(Fileindexctl({"queue", "ops", "--count", file}).output, "count=3\n");
}

TEST_F(QueueCommand, OpsPrintsAPathWithControlBytesOnOneLineAndOtherBytesAsTheyAre) {
  const std::string file = Queue("{\"event\":64,\"path\":\"/v/a\\nb\\tc\\r\\u0001\\\\n\x7f\xff\xc3\xa9\"}\n");

  EXPECT_EQ(Fileindexctl({"queue", "ops", file}).output,
            "[02] /v/a\\nb\\tc\\r\\x01\\n\\x7f\xff\xc3\xa9, data=null\ncount=1\n");
}

TEST_F(QueueCommand, OpsAsJsonIsOneObjectWithTheCountAndEveryOperation) {
  const Json::Value json =
      Parse(OpsJson(Text({kCreate, kRename, R"({"event":131072,"is_dir":true,"path":"/v/d","data":{"audio":true}})"}))
                .output);

  EXPECT_THAT(json.getMemberNames(), ElementsAre("count", "operations"));
  EXPECT_EQ(json["count"], 4);
  ASSERT_EQ(json["operations"].size(), 3u);
  EXPECT_EQ(json["operations"][0], Parse(R"({"op":5,"name":"rename","path":"/v/b","path_old":"/v/a","data":null})"));
  EXPECT_EQ(json["operations"][1], Parse(R"({"op":2,"name":"update","path":"/v/b","path_old":"","data":null})"));
  EXPECT_EQ(json["operations"][2],
            Parse(R"({"op":4,"name":"update_directory","path":"/v/d","path_old":"","data":{"audio":true}})"));
}

TEST_F(QueueCommand, OpsAsJsonOfAnEmptyQueueHasAnEmptyArray) {
  EXPECT_EQ(Parse(OpsJson("").output), Parse(R"({"count":0,"operations":[]})"));
}

TEST_F(QueueCommand, OpsAsJsonNamesEveryKindOfOperation) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"event":128,"path":"/v/a"})", "delete"},
      {kCreate, "update"},
      {R"({"event":4,"path":"/v/a"})", "attributes"},
      {R"({"event":131072,"path":"/v/a"})", "update_directory"},
      {kRename, "rename"},
      {R"({"event":65536,"path":"/v/a"})", "reindex"},
      {kCrashed, "queue_crashed"},
  };
  int number = 1;
  for (const auto& [line, name] : cases) {
    const Json::Value operation = Parse(OpsJson(Text({line})).output)["operations"][0];
    EXPECT_EQ(operation["name"], name);
    EXPECT_EQ(operation["op"], number++);
  }
}

TEST_F(QueueCommand, OpsAsJsonGivesNamesBackByteForByte) {
  const ProcessResult result = OpsJson("{\"event\":64,\"path\":\"/v/a\\nb\xff\"}\n");

  EXPECT_THAT(result.output, HasSubstr("\"path\":\"/v/a\\nb\xff\""));
}

TEST_F(QueueCommand, EventsShowsLineNumberBitsKindAndPath) {
  const ProcessResult result = Events(Text({kCreate, kRename, R"({"event":66,"path":"/v/z"})",
                                            R"({"event":131072,"is_dir":true,"path":"/v/d","data":{"audio":true}})"}));

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.output,
            "1  create  file  /v/a\n"
            "2  rename  file  /v/a -> /v/b\n"
            "3  modify|create  file  /v/z\n"
            "4  update_directory  dir  /v/d  data={\"audio\":true}\n");
}

TEST_F(QueueCommand, EventsNamesEveryBitAndShowsUnknownOnesAsANumber) {
  EXPECT_EQ(Events(Text({R"({"event":197575,"path":"/v/z","path_old":"/v/y"})", R"({"event":0,"path":"/"})"})).output,
            "1  modify|attrib|create|delete|rename|queue_crashed|reindex|update_directory|0x1  file  /v/y -> /v/z\n"
            "2  0x0  file  /\n");
}

TEST_F(QueueCommand, EventsShowsMalformedLinesWithNumberCodeAndReason) {
  const ProcessResult result = Events(Text({kCreate, "rub\tbish", R"({"path":"/v"})", kModify}));

  const std::vector<std::string> lines = Lines(result.output);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[1], "2  malformed  code=906  Malformed event_raw: rub\\tbish");
  EXPECT_THAT(lines[2], StartsWith("3  malformed  code=120  Missing property: "));
  EXPECT_EQ(lines[3], "4  modify  file  /v/a");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.errors, "");
}

TEST_F(QueueCommand, EventsShortensTheReasonForALongMalformedLine) {
  const ProcessResult result = Events(std::string(1 << 20, '[') + "\n" + kCreate);

  const std::vector<std::string> lines = Lines(result.output);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_LT(lines[0].size(), 300u);
  EXPECT_THAT(lines[0], HasSubstr("... (1048597 bytes)"));
  EXPECT_EQ(lines[1], "2  create  file  /v/a");
}

TEST_F(QueueCommand, EventsShowsWhatTheFoldIgnoresAfterACrash) {
  EXPECT_EQ(Lines(Events(Text({kCrashed, kCreate})).output).size(), 2u);
}

TEST_F(QueueCommand, EventsAsJsonPrintsOneObjectForEachLine) {
  const std::string file = Queue(Text({kRename, "rubbish"}));

  const std::vector<std::string> lines = Lines(Fileindexctl({"queue", "events", "--json", file}).output);

  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(Parse(lines[0]), Parse(R"({"line":1,"event":256,"bits":["rename"],"is_dir":false,
                                       "path":"/v/b","path_old":"/v/a","data":null})"));
  EXPECT_EQ(Parse(lines[1]), Parse(R"({"line":2,"malformed":{"code":906,"reason":"Malformed event_raw: rubbish"}})"));
}

TEST_F(QueueCommand, NeverChangesTheFileNorMakesOthers) {
  const std::string content = Text({kCreate, "rubbish", kRename}) + R"({"event":64,"pa)";
  const std::string file = Queue(content);
  ASSERT_EQ(chmod(file.c_str(), 0444), 0);
  struct stat before {};
  stat(file.c_str(), &before);

  Fileindexctl({"queue", "ops", file});
  Fileindexctl({"queue", "ops", "--json", file});
  Fileindexctl({"queue", "events", file});

  struct stat after {};
  stat(file.c_str(), &after);
  EXPECT_EQ(ReadFile(file), content);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  EXPECT_EQ(Lines(RunProcess({"ls", "-A", dir_.path()}).output).size(), 1u);
}

TEST_F(QueueCommand, AMissingFileIsOneLineOnStandardErrorAndStatusOne) {
  const std::string missing = dir_ / "missing";
  for (const std::string command : {"ops", "events"}) {
    const ProcessResult result = Fileindexctl({"queue", command, missing});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "fileindexctl: cannot read " + missing + ": No such file or directory\n");
  }
}

TEST_F(QueueCommand, AFolderIsRefusedRatherThanReadAsAnEmptyQueue) {
  for (const std::string command : {"ops", "events"}) {
    const ProcessResult result = Fileindexctl({"queue", command, dir_.path()});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "fileindexctl: cannot read " + dir_.path() + ": Is a directory\n");
  }
}

TEST_F(QueueCommand, WrongUsageIsStatusTwo) {
  const std::string file = Queue("");
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                    {"queue"},
                                                    {"queue", "ops"},
                                                    {"queue", "ops", file, "more"},
                                                    {"nonsense"},
                                                    {"queue", "ops", "--nonsense", file},
                                                    {"queue", "ops", "--count", "--json", file}}) {
    const ProcessResult result = Fileindexctl(arguments);
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_NE(result.errors, "");
    EXPECT_EQ(result.output, "");
  }
}

TEST_F(QueueCommand, HelpAndVersionAreStatusZero) {
  EXPECT_EQ(Fileindexctl({"--help"}).exit_status, 0);
  EXPECT_THAT(Fileindexctl({"queue", "ops", "--help"}).output, HasSubstr("--count"));
  const ProcessResult version = Fileindexctl({"--version"});
  EXPECT_EQ(version.exit_status, 0);
  EXPECT_THAT(version.output, StartsWith("fileindexctl "));
}

// Runs a shell line in which $0 is the program and $1 the queue file.
ProcessResult Shell(const std::string& line, const std::string& file) {
  return RunProcess({"bash", "-c", line, BuiltProgram("fileindexctl"), file}, std::chrono::seconds(120));
}

std::string ManyLines(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    text += R"({"event":64,"is_dir":false,"path":"/volume1/photo/album/IMG_)" + std::to_string(i) + "\"}\n";
  }
  return text;
}

TEST_F(QueueCommand, AReaderThatLeavesEarlyIsNoFailure) {
  const std::string file = Queue(ManyLines(20'000));

  const ProcessResult ended_by_signal = Shell(R"("$0" queue ops "$1" | head -1; echo ${PIPESTATUS[0]})", file);
  const ProcessResult signal_ignored =
      Shell(R"(trap '' PIPE; "$0" queue events "$1" | head -1; echo ${PIPESTATUS[0]})", file);

  EXPECT_EQ(ended_by_signal.output, "[02] /volume1/photo/album/IMG_0, data=null\n141\n");
  EXPECT_EQ(signal_ignored.output, "1  create  file  /volume1/photo/album/IMG_0\n0\n");
  EXPECT_EQ(ended_by_signal.errors + signal_ignored.errors, "");
}

TEST_F(QueueCommand, AFullDiskIsAFailure) {
  const ProcessResult result = Shell(R"("$0" queue ops "$1" >/dev/full)", Queue(Text({kCreate})));

  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.errors, "fileindexctl: cannot write to standard output: No space left on device\n");
}

TEST_F(QueueCommand, ReadsStandardInputThroughAPipe) {
  const ProcessResult result = Shell(R"(cat "$1" | "$0" queue ops /dev/stdin)", Queue(Text({kCreate})));

  EXPECT_EQ(result.output, "[02] /v/a, data=null\ncount=1\n");
}

TEST_F(QueueCommand, EventsOfAMillionLinesNeedConstantMemory) {
  const std::string file = Queue(ManyLines(1'000'000));

  // 60 MB of address space; the file alone has 68 MB. Sanitizers reserve terabytes of it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__clang__)
  const std::string limit;
#else
  const std::string limit = "ulimit -v 60000; ";
#endif
  const ProcessResult result = Shell(limit + R"("$0" queue events "$1" | tail -1)", file);

  EXPECT_EQ(result.output, "1000000  create  file  /volume1/photo/album/IMG_999999\n");
}

}  // namespace
