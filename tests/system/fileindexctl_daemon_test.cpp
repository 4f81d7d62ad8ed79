// "fileindexctl daemon" and "failures", run as a program against the real indexing daemon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/local_socket.h"
#include "tests/system/indexer_box.h"
#include "tests/system/terminal.h"

namespace orbisk::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr char kSocket[] = "/var/run/fileindexd.sock";

// Gives one answer after the other, and the last one for ever, at the indexing daemon's socket.
class CannedDaemon {
 public:
  explicit CannedDaemon(const std::string& answer) : CannedDaemon(std::vector{answer}) {}
  explicit CannedDaemon(std::vector<std::string> answers)
      : answers_(std::move(answers)), listener_(ListenAt(kSocket)), thread_([this] { Run(); }) {}
  ~CannedDaemon() {
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    close(listener_);
    unlink(kSocket);
  }
  CannedDaemon(const CannedDaemon&) = delete;
  CannedDaemon& operator=(const CannedDaemon&) = delete;

 private:
  void Run() const {
    size_t next = 0;
    for (int client = -1; (client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(client)) {
      std::uint64_t bytes = 0;
      recv(client, &bytes, sizeof(bytes), MSG_WAITALL);
      std::string command(bytes, '\0');
      recv(client, command.data(), command.size(), MSG_WAITALL);
      const std::string& answer = answers_[std::min(next++, answers_.size() - 1)];
      bytes = answer.size();
      send(client, &bytes, sizeof(bytes), MSG_NOSIGNAL);
      send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
    }
  }

  const std::vector<std::string> answers_;
  const int listener_;
  std::thread thread_;
};

// `text` is run with fileindexctl as "$0".
ProcessResult Shell(const std::string& text) {
  return RunProcess({"bash", "-c", text, BuiltProgram("fileindexctl")}, std::chrono::seconds(120));
}

// Whether `word` is set in bold in one of these sections of the manual.
bool IsInManual(const std::string& word, const std::vector<std::string>& sections) {
  std::ifstream page(std::string(MANUAL_FOLDER) + "/fileindexctl.1");
  bool is_inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line.rfind(".S", 0) == 0) {
      is_inside =
          std::find(sections.begin(), sections.end(), line.substr(std::min<size_t>(4, line.size()))) != sections.end();
    } else if (is_inside && std::regex_search(line, std::regex("^\\.R?BR? (\\( )?" + word + "( |$)"))) {
      return true;
    }
  }
  return false;
}

class DaemonCommand : public IndexerBox {};

TEST_F(DaemonCommand, StatusTellsWhatEachShareIsAt) {
  WriteFile(Docs("a.txt"), "kingfisher");
  StartIndexer();
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "reindex", "/docs"})));
  ASSERT_TRUE(BecomesEqual());
  ASSERT_TRUE(Eventually(IsIdle));

  const ProcessResult status = Fileindexctl({"daemon", "status"});

  EXPECT_EQ(status.exit_status, 0);
  EXPECT_THAT(status.output, MatchesRegex("SHARE +STATE +DONE +TO DO +PER SECOND +TIME LEFT +FAILED +FILE +PROBLEM\n"
                                          "docs +idle +[1-9][0-9]* +0 +[0-9]+ +- +0 +- +-\n"
                                          "paused: no\n"));
}

TEST_F(DaemonCommand, WatchingEndsWithTheDaemon) {
  StartIndexer();
  Subprocess watch({BuiltProgram("fileindexctl"), "status", "--watch"});
  watch.ReadLine(std::chrono::seconds(30));

  KillIndexer();

  const ProcessResult result = watch.Wait(std::chrono::seconds(60));
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.errors, MatchesRegex("fileindexctl: error 502: the indexing daemon [^\n]+\n"));
}

TEST_F(DaemonCommand, AnAnswerThatCannotBeWrittenIsAFailure) {
  StartIndexer();
  for (const char* const command : {"daemon status", "status --watch", "search heron", "search heron --json",
                                    "failures", "status", "--version", "folder --help"}) {
    const ProcessResult result = Shell("\"$0\" " + std::string(command) + " >/dev/full");

    EXPECT_EQ(result.exit_status, 1) << command;
    EXPECT_EQ(result.errors, "fileindexctl: cannot write to standard output: No space left on device\n") << command;
  }
}

TEST_F(DaemonCommand, TheManualNamesTheMembersOfAnswers) {
  WriteFile(Docs("a.txt"), "kingfisher");
  StartIndexer();
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "reindex", "/docs"})));
  ASSERT_TRUE(BecomesEqual());
  const Json::Value share = Parse(Fileindexctl({"daemon", "status", "--json"}).output)["shares"][0];
  const Json::Value found = Parse(Fileindexctl({"search", "kingfisher", "--json"}).output);
  ASSERT_EQ(found["hits"].size(), 1U);

  for (const std::string& member : share.getMemberNames()) {
    EXPECT_TRUE(IsInManual(member, {"status", "daemon status"})) << member;
  }
  for (const Json::Value& answer : {found, found["hits"][0]}) {
    for (const std::string& member : answer.getMemberNames()) {
      EXPECT_TRUE(IsInManual(member, {"search QUERY..."})) << member;
    }
  }
  for (const char* const member : {"more", "left_out", "incomplete", "repairing", "cut"}) {  // only if there is cause
    EXPECT_TRUE(IsInManual(member, {"search QUERY..."})) << member;
  }
}

TEST_F(DaemonCommand, PauseAndResumeReachTheDaemon) {
  SkipWithoutIdentities();
  if (IsSkipped()) {
    return;
  }
  StartIndexer();

  EXPECT_TRUE(Succeeds(Fileindexctl({"daemon", "pause", "1"})));
  EXPECT_THAT(Fileindexctl({"daemon", "status"}).output, HasSubstr("\npaused: yes\n"));
  EXPECT_THAT(ReadFile(kStatusFile), HasSubstr("\"resume_time\":"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"daemon", "resume"})));

  EXPECT_THAT(Fileindexctl({"daemon", "status"}).output, HasSubstr("\npaused: no\n"));
}

TEST_F(DaemonCommand, WatchingEndsWhenWhatWaitsIsIndexed) {
  SkipWithoutIdentities();
  if (IsSkipped()) {
    return;
  }
  AddShare(OnFirst("music"));
  for (int i = 0; i < 300; ++i) {
    WriteFile(OnFirst("music/" + std::to_string(i) + ".txt"), "kingfisher");
  }
  StartIndexer();
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/music"})));

  const ProcessResult watched = Fileindexctl({"status", "--watch", "--until-done"});

  EXPECT_EQ(watched.exit_status, 0) << watched.errors;
  EXPECT_EQ(InIndex("music"), OnDisk("music"));
  EXPECT_THAT(watched.output, MatchesRegex("(.|\n)*music: idle, 30[0-9]+ of 30[0-9]+\n(.|\n)*"));
}

TEST_F(DaemonCommand, WatchingSaysWhatCannotBeIndexed) {
  WriteFolders({Entry("/docs", "all"), Entry("/docs/gone", "gone")});
  StartIndexer();

  const ProcessResult watched = Fileindexctl({"status", "--watch", "--until-done"});

  EXPECT_EQ(watched.exit_status, 1);
  EXPECT_EQ(watched.errors, "fileindexctl: the rest is done, but this cannot be indexed: /docs/gone\n");
}

class CannedCommand : public Box {
 protected:
  static std::string Status(const std::string& shares, bool paused = false) {
    return std::string(R"({"data":{"paused":)") + (paused ? "true" : "false") + R"(,"shares":[)" + shares +
           R"(]},"success":true})";
  }
  static std::string Share(const std::string& name, const std::string& state, int done, int to_do,
                           const std::string& file = "") {
    return R"({"done":)" + std::to_string(done) + R"(,"failed":)" + std::to_string(done / 4) +
           R"(,"failures":[{"path":"/x","reason":"y"}],"file":")" + file + R"(","problem":"","rate":12.6,"share":")" +
           name + R"(","state":")" + state + R"(","to_do":)" + std::to_string(to_do) + "}";
  }
  static std::string AtTerminal(const std::string& command) {
    Subprocess terminal(
        {"script", "-qec", "stty cols 60 rows 6; " + BuiltProgram("fileindexctl") + " " + command, "/dev/null"},
        {"TERM=xterm"});
    return terminal.Wait(std::chrono::seconds(60)).output;
  }
};

TEST_F(CannedCommand, WatchingPrintsALineForEachChange) {
  const CannedDaemon daemon({Status(Share("docs", "working", 1, 3, "/v/a") + "," + Share("photo", "idle", 0, 0)),
                             Status(Share("docs", "working", 1, 3, "/v/b") + "," + Share("photo", "idle", 0, 0)),
                             Status(Share("docs", "working", 4, 1, "/v/c") + "," + Share("photo", "idle", 0, 0)),
                             Status(Share("docs", "idle", 5, 0) + "," + Share("photo", "idle", 0, 0))});

  EXPECT_TRUE(Succeeds(Fileindexctl({"status", "--watch", "--until-done"}),
                       "docs: working, 1 of 4, 13 per second, /v/a\n"
                       "photo: idle, 0 of 0\n"
                       "docs: working, 4 of 5, 13 per second, 1 failed, /v/c\n"
                       "docs: idle, 5 of 5, 1 failed\n"));
}

TEST_F(CannedCommand, WatchingForProgramsPrintsAnObjectForEachChange) {
  const CannedDaemon daemon({Status(Share("docs", "working", 1, 3)), Status(Share("docs", "idle", 4, 0))});

  const ProcessResult watched = Fileindexctl({"status", "--watch", "--until-done", "--json"});

  EXPECT_EQ(watched.exit_status, 0);
  std::istringstream lines(watched.output);
  std::string line;
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_EQ(Parse(line)["to_do"], 3);
  EXPECT_EQ(Parse(line)["paused"], false);
  EXPECT_FALSE(Parse(line).isMember("failures"));
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_EQ(Parse(line)["state"], "idle");
  EXPECT_FALSE(std::getline(lines, line));
}

TEST_F(CannedCommand, WatchingAtATerminalDrawsABarForEachShareAnew) {
  const CannedDaemon daemon(
      {Status(Share("docs", "working", 5, 5, "/volume1/docs/a very long name of a folder/and of a file.pdf")),
       Status(Share("docs", "idle", 10, 0))});

  const std::string drawn = AtTerminal("status --watch --until-done");

  EXPECT_THAT(drawn, HasSubstr("\rdocs  [##########..........]  50%  working, 5 of 10, 13 per\x1b[K"));
  EXPECT_THAT(drawn, HasSubstr("\r      ...ocs/a very long name of a folder/and of a file.pdf\x1b[K"));
  EXPECT_THAT(drawn, HasSubstr("\x1b[2A\rdocs  [####################] 100%  idle, 10 of 10, 2 failed\x1b[K"));
}

TEST_F(CannedCommand, WatchingIsInterruptedBelowThePicture) {
  const CannedDaemon daemon(Status(Share("docs", "working", 5, 5, "/volume1/docs/a.pdf")));
  Terminal terminal("status --watch");
  ASSERT_TRUE(terminal.Shows("a.pdf")) << terminal.Screen();

  terminal.Type(Terminal::kInterrupt);

  EXPECT_EQ(terminal.Wait().exit_status, 128 + SIGINT);
  EXPECT_THAT(terminal.Screen(), EndsWith("\x1b[K\r\n\x1b[J^C"));
}

TEST_F(CannedCommand, WatchingEndsWhenNobodyReadsItAnyMore) {
  std::vector<std::string> changes;
  for (int i = 0; i < 2000; ++i) {
    changes.push_back(Status(Share("docs", "working", i, 2000 - i)));
  }
  const CannedDaemon daemon(changes);

  const ProcessResult signal_ignored =
      Shell("trap '' PIPE; \"$0\" status --watch | head -1 >/dev/null; echo ${PIPESTATUS[0]}");
  const ProcessResult ended_by_signal = Shell("\"$0\" status --watch | head -1 >/dev/null; echo ${PIPESTATUS[0]}");

  EXPECT_TRUE(Succeeds(signal_ignored, "0\n"));
  EXPECT_TRUE(Succeeds(ended_by_signal, "141\n"));
}

TEST_F(CannedCommand, ADaemonThatIsSilentForAMinuteIsGivenUp) {
  const std::pair<const char*, std::vector<std::string>> commands[] = {
      {"error 502: the indexing daemon", {"daemon", "status"}},
      {"error 502: the indexing daemon", {"status", "--watch"}},
      {"error 913: the search daemon", {"search", "heron"}},
      {"error 913: the search daemon", {"index", "list"}}};
  const int indexer = ListenAt(kSocket);
  const int search = ListenAt("/var/run/nimoelasticd.sock");
  std::vector<std::unique_ptr<Subprocess>> running;
  for (auto [start, arguments] : commands) {
    arguments.insert(arguments.begin(), BuiltProgram("fileindexctl"));
    running.push_back(std::make_unique<Subprocess>(arguments));
  }

  for (size_t i = 0; i < running.size(); ++i) {
    EXPECT_TRUE(FailsWith(running[i]->Wait(std::chrono::seconds(180)),
                          std::string("fileindexctl: ") + commands[i].first + " gave no answer within a minute"));
  }
  for (const int listener : {indexer, search}) {
    close(listener);
  }
  unlink(kSocket);
  unlink("/var/run/nimoelasticd.sock");
}

TEST_F(CannedCommand, WatchingManySharesShowsThoseThatHaveWorkFirst) {
  const CannedDaemon daemon(Status(Share("a", "idle", 0, 0) + "," + Share("b", "idle", 0, 0) + "," +
                                   Share("c", "idle", 0, 0) + "," + Share("d", "idle", 0, 0) + "," +
                                   Share("e", "idle", 0, 0) + "," + Share("f", "deleted", 5, 5)));

  const std::string drawn = AtTerminal("status --watch --until-done");

  EXPECT_THAT(drawn, MatchesRegex("\rf  .*\n\ra  .*\n\rb  .*\n\rand 3 more shares(.|\n)*"));
}

TEST_F(CannedCommand, WatchingDoesNotEndWhileIndexingIsPausedOrAShareFails) {
  const CannedDaemon daemon({Status(Share("docs", "paused", 0, 0), true), Status(Share("docs", "failing", 1, 0)),
                             Status(Share("docs", "offline", 2, 0)), Status(Share("docs", "idle", 3, 0))});

  EXPECT_TRUE(Succeeds(Fileindexctl({"status", "--watch", "--until-done"}),
                       "docs: paused, 0 of 0, 13 per second\n"
                       "docs: failing, 1 of 1, 13 per second\n"
                       "docs: offline, 2 of 2, 13 per second\n"
                       "docs: idle, 3 of 3\n"));
}

TEST_F(CannedCommand, WatchingOneShareTakesOneThatIsIndexed) {
  AddShare(OnFirst("photo"));
  WriteFolders({Entry("/photo", "all")});
  const CannedDaemon daemon(Status(Share("docs", "working", 1, 3) + "," + Share("photo", "idle", 0, 0)));

  EXPECT_TRUE(
      Succeeds(Fileindexctl({"status", "--watch", "--until-done", "--share", "photo"}), "photo: idle, 0 of 0\n"));
  for (const std::string name : {"films", ""}) {
    EXPECT_TRUE(FailsWith(Fileindexctl({"status", "--watch", "--until-done", "--share", name}),
                          "fileindexctl: no folder of this share is indexed: " + name));
  }
  EXPECT_EQ(Fileindexctl({"status", "--until-done"}).exit_status, 2);
}

TEST_F(CannedCommand, FailuresNameTheFilesAndTheReasons) {
  const CannedDaemon daemon(
      R"({"data":{"shares":[{"failures":[{"path":"/v/docs/a\nb.pdf","reason":"it takes too long"}],"share":"docs"},)"
      R"({"failures":[{"path":"/v/photo/c.jpg","reason":"gone"}],"share":"photo"},)"
      R"({"share":"music","state":"deleted"}]},"success":true})");

  EXPECT_TRUE(Succeeds(Fileindexctl({"failures"}),
                       "SHARE  PATH              REASON\n"
                       "docs   /v/docs/a\\nb.pdf  it takes too long\n"
                       "photo  /v/photo/c.jpg    gone\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"failures", "--share", "photo", "--json"}),
                       "[{\"path\":\"/v/photo/c.jpg\",\"reason\":\"gone\",\"share\":\"photo\"}]\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"failures", "--share", "music"}), "SHARE  PATH  REASON\n"));
  for (const std::string name : {"phto", ""}) {
    EXPECT_TRUE(FailsWith(Fileindexctl({"failures", "--share", name}),
                          "fileindexctl: no folder of this share is indexed: " + name));
  }
  AddShare(OnFirst("films"));
  WriteFolders({Entry("/films", "all")});
  EXPECT_TRUE(Succeeds(Fileindexctl({"failures", "--share", "films"}), "SHARE  PATH  REASON\n"));
}

TEST_F(CannedCommand, FailuresAreCountedByReason) {
  const CannedDaemon daemon(R"({"data":{"shares":[{"reasons":{"died":2,"it takes too long":10},"share":"docs"},)"
                            R"({"share":"music","state":"deleted"}]},"success":true})");

  EXPECT_TRUE(Succeeds(Fileindexctl({"failures", "--count"}),
                       "SHARE  FILES  REASON\n"
                       "docs   2      died\n"
                       "docs   10     it takes too long\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"failures", "--count", "--json"}),
                       "[{\"files\":2,\"reason\":\"died\",\"share\":\"docs\"},"
                       "{\"files\":10,\"reason\":\"it takes too long\",\"share\":\"docs\"}]\n"));
}

TEST_F(CannedCommand, WatchingSaysHowLongItTakesInTheUnitThatOneWouldSay) {
  const auto working = [](const std::string& seconds) {
    return Status(R"({"done":1,"failed":0,"file":"","problem":"","rate":2,"seconds_left":)" + seconds +
                  R"(,"share":"docs","state":"working","to_do":)" + (seconds == "null" ? "1" : seconds) + "}");
  };
  const CannedDaemon daemon({working("null"), working("119"), working("120"), working("7199"), working("7200"),
                             Status(Share("docs", "idle", 1, 0))});

  EXPECT_TRUE(Succeeds(Fileindexctl({"status", "--watch", "--until-done"}),
                       "docs: working, 1 of 2, 2 per second\n"
                       "docs: working, 1 of 120, 2 per second, 119 s left\n"
                       "docs: working, 1 of 121, 2 per second, 2 min left\n"
                       "docs: working, 1 of 7200, 2 per second, 119 min left\n"
                       "docs: working, 1 of 7201, 2 per second, 2 h left\n"
                       "docs: idle, 1 of 1\n"));
}

TEST_F(CannedCommand, StatusShowsWhatIsWrongAndWhatIsInWork) {
  const CannedDaemon daemon(
      R"({"data":{"paused":true,"shares":[{"done":5,"failed":2,"file":"/v/docs/a","problem":"","rate":12.6,)"
      R"("seconds_left":130,"share":"docs","state":"working","to_do":7},)"
      R"({"problem":"there is no such share","share":"gone","state":"offline"}]},"success":true})");

  EXPECT_TRUE(Succeeds(Fileindexctl({"daemon", "status"}),
                       "SHARE  STATE    DONE  TO DO  PER SECOND  TIME LEFT  FAILED  FILE       PROBLEM\n"
                       "docs   working  5     7      13          2 min      2       /v/docs/a  -\n"
                       "gone   offline  -     -      -           -          -       -          there is no such share\n"
                       "paused: yes\n"));
}

TEST_F(CannedCommand, ARefusalAndNonsenseAreErrors) {
  {
    const CannedDaemon daemon(R"({"error":{"msg":"unknown command: status"},"success":false})");
    EXPECT_TRUE(FailsWith(Fileindexctl({"daemon", "status"}),
                          "fileindexctl: error 502: the indexing daemon refused: unknown command: status"));
  }
  const CannedDaemon daemon("[1,2]");
  EXPECT_TRUE(
      FailsWith(Fileindexctl({"failures"}), "fileindexctl: error 502: the indexing daemon gave no proper response"));
}

}  // namespace
}  // namespace orbisk::test
