// "fileindexctl daemon" and "failures", run as a program against the real indexing daemon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <thread>
#include <utility>

#include "tests/support/local_socket.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

constexpr char kSocket[] = "/var/run/fileindexd.sock";

// Gives the same answer to every command, at the indexing daemon's socket.
class CannedDaemon {
 public:
  explicit CannedDaemon(std::string answer)
      : answer_(std::move(answer)), listener_(ListenAt(kSocket)), thread_([this] { Run(); }) {}
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
    for (int client = -1; (client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(client)) {
      std::uint64_t bytes = 0;
      recv(client, &bytes, sizeof(bytes), MSG_WAITALL);
      std::string command(bytes, '\0');
      recv(client, command.data(), command.size(), MSG_WAITALL);
      bytes = answer_.size();
      send(client, &bytes, sizeof(bytes), MSG_NOSIGNAL);
      send(client, answer_.data(), answer_.size(), MSG_NOSIGNAL);
    }
  }

  const std::string answer_;
  const int listener_;
  std::thread thread_;
};

class DaemonCommand : public IndexerBox {
 protected:
  static bool HasState(const std::string& state) {
    const Json::Value status = Parse(Fileindexctl({"daemon", "status", "--json"}).output);
    return status["shares"].size() == 1 && status["shares"][0]["state"] == state;
  }
};

TEST_F(DaemonCommand, StatusTellsWhatEachShareIsAt) {
  WriteFile(Docs("a.txt"), "kingfisher");
  StartIndexer();
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "reindex", "/docs"})));
  ASSERT_TRUE(BecomesEqual());
  ASSERT_TRUE(Eventually([] { return HasState("idle"); }));

  const ProcessResult status = Fileindexctl({"daemon", "status"});

  EXPECT_EQ(status.exit_status, 0);
  EXPECT_THAT(status.output, MatchesRegex("SHARE +STATE +DONE +TO DO +PER SECOND +FAILED +FILE +PROBLEM\n"
                                          "docs +idle +[1-9][0-9]* +0 +[0-9]+ +0 +- +-\n"
                                          "paused: no\n"));
}

TEST_F(DaemonCommand, PauseAndResumeReachTheDaemon) {
  SkipWithoutIdentities();
  StartIndexer();

  EXPECT_TRUE(Succeeds(Fileindexctl({"daemon", "pause", "1"})));
  EXPECT_THAT(Fileindexctl({"daemon", "status"}).output, HasSubstr("\npaused: yes\n"));
  EXPECT_THAT(ReadFile(kStatusFile), HasSubstr("\"resume_time\":"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"daemon", "resume"})));

  EXPECT_THAT(Fileindexctl({"daemon", "status"}).output, HasSubstr("\npaused: no\n"));
}

class CannedCommand : public Box {};

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
}

TEST_F(CannedCommand, StatusShowsWhatIsWrongAndWhatIsInWork) {
  const CannedDaemon daemon(
      R"({"data":{"paused":true,"shares":[{"done":5,"failed":2,"file":"/v/docs/a","problem":"","rate":12.6,)"
      R"("share":"docs","state":"working","to_do":7},)"
      R"({"problem":"there is no such share","share":"gone","state":"offline"}]},"success":true})");

  EXPECT_TRUE(Succeeds(Fileindexctl({"daemon", "status"}),
                       "SHARE  STATE    DONE  TO DO  PER SECOND  FAILED  FILE       PROBLEM\n"
                       "docs   working  5     7      13          2       /v/docs/a  -\n"
                       "gone   offline  -     -      -           -       -          there is no such share\n"
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
