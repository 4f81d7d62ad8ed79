// "fileindexctl pause", "resume" and "status", run as a program with and without an indexing daemon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>

#include "tests/support/indexer_double.h"
#include "tests/support/local_socket.h"
#include "tests/system/fileindexctl_box.h"

namespace orbisk::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr char kNotTold[] =
    "fileindexctl: error 502: stored, but the indexing daemon could not be told and follows when it starts: write "
    "failed, reason=Transport endpoint is not connected";

class PauseCommand : public Box {};

class StoredPause : public PauseCommand {
 protected:
  void SetUp() override {
    PauseCommand::SetUp();
    SkipWithoutIdentities();
  }
};

TEST_F(StoredPause, PausingWithoutEndIsStoredAndTold) {
  const IndexerDouble daemon;

  EXPECT_TRUE(Succeeds(Fileindexctl({"pause"})));

  EXPECT_THAT(daemon.commands(), ElementsAre(R"({"data":{"resume_time":0},"type":"pause"})"));
  EXPECT_EQ(ReadFile(kStatusFile), R"({"resume_time":0})");
  EXPECT_TRUE(Succeeds(Fileindexctl({"status"}), "paused:                without end\nkeep index in memory:  no\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"status", "--json"}),
                       "{\"paused\":true,\"resume_time\":0,\"share\":{},\"vmt_enabled\":false}\n"));
}

TEST_F(StoredPause, PausingForHoursEndsThatMuchLater) {
  const IndexerDouble daemon;
  const long before = time(nullptr);

  EXPECT_TRUE(Succeeds(Fileindexctl({"pause", "2"})));

  const Json::Int64 resume_time = Parse(ReadFile(kStatusFile))["resume_time"].asInt64();
  EXPECT_GE(resume_time, before + 7200);
  EXPECT_LE(resume_time, time(nullptr) + 7200);
  EXPECT_THAT(daemon.commands(),
              ElementsAre(R"({"data":{"resume_time":)" + std::to_string(resume_time) + R"(},"type":"pause"})"));
  EXPECT_THAT(Fileindexctl({"status"}).output,
              MatchesRegex("paused:                until [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8} [A-Z]+\n(.|\n)*"));
}

TEST_F(StoredPause, ResumingEndsThePause) {
  const IndexerDouble daemon;
  ASSERT_TRUE(Succeeds(Fileindexctl({"pause"})));

  EXPECT_TRUE(Succeeds(Fileindexctl({"resume"})));

  ASSERT_EQ(daemon.commands().size(), 2U);
  EXPECT_EQ(daemon.commands()[1], R"({"data":null,"type":"resume"})");
  EXPECT_THAT(Fileindexctl({"status"}).output, HasSubstr("paused:                no\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"status", "--json"}),
                       "{\"paused\":false,\"resume_time\":-1,\"share\":{},\"vmt_enabled\":false}\n"));
}

TEST_F(StoredPause, WithoutADaemonThePauseIsStoredAndTheUserIsTold) {
  unlink("/var/run/fileindexd.sock");

  EXPECT_TRUE(FailsWith(Fileindexctl({"pause"}), kNotTold));

  EXPECT_EQ(ReadFile(kStatusFile), R"({"resume_time":0})");
}

// A daemon that was killed leaves its socket behind; nothing waits for that one.
TEST_F(StoredPause, WithADeadDaemonsSocketTheStateIsStoredAndTheUserIsTold) {
  constexpr char kSocket[] = "/var/run/fileindexd.sock";
  close(ListenAt(kSocket));

  EXPECT_TRUE(FailsWith(Fileindexctl({"pause"}), kNotTold));
  EXPECT_EQ(ReadFile(kStatusFile), R"({"resume_time":0})");
  EXPECT_TRUE(FailsWith(Fileindexctl({"resume"}), kNotTold));
  EXPECT_EQ(ReadFile(kStatusFile), R"({"resume_time":-1})");
  unlink(kSocket);
}

TEST_F(PauseCommand, APauseThatIsOverIsNone) {
  WriteFile(kStatusFile, R"({"resume_time":1000})");

  EXPECT_THAT(Fileindexctl({"status"}).output, HasSubstr("paused:                no\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"status", "--json"}),
                       "{\"paused\":false,\"resume_time\":1000,\"share\":{},\"vmt_enabled\":false}\n"));
}

TEST_F(PauseCommand, StatusNamesTheSharesThatNeedAReindex) {
  AddShare(OnFirst("photo"));
  AddShare(OnSecond("docs"));
  AddShare(OnSecond("music"));
  WriteFile(kStatusFile, R"({"share":{"photo":1,"docs":0,"music":4},"vmt_enabled":true})");

  EXPECT_TRUE(Succeeds(Fileindexctl({"status"}),
                       "paused:                no\n"
                       "keep index in memory:  yes\n"
                       "share music:           flags 4\n"
                       "share photo:           needs a reindex\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"status", "--json"}),
                       "{\"paused\":false,\"resume_time\":-1,\"share\":{\"music\":4,\"photo\":1},"
                       "\"vmt_enabled\":true}\n"));
}

TEST_F(PauseCommand, AStatusFileThatCannotBeReadIsNamedAndKept) {
  const std::string error = std::string("fileindexctl: error 504: Cannot load json: ") + kStatusFile;
  WriteFile(kStatusFile, "{");

  EXPECT_TRUE(FailsWith(Fileindexctl({"status"}), error));
  EXPECT_TRUE(FailsWith(Fileindexctl({"pause"}), error));
  EXPECT_TRUE(FailsWith(Fileindexctl({"resume"}), error));
  EXPECT_EQ(ReadFile(kStatusFile), "{");
}

TEST_F(PauseCommand, AStatusFileThatIsNoObjectIsAnError) {
  WriteFile(kStatusFile, "[]");

  EXPECT_TRUE(FailsWith(Fileindexctl({"status"}), "fileindexctl: error 120: Not an object, data=[]"));
}

TEST_F(PauseCommand, WrongUsageIsStatusTwoAndStoresNothing) {
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"pause", "x"}), "HOURS: not a number from 0: x"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"pause", "--", "-1"}), "HOURS: not a number from 0: -1"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"pause", "010"}), "HOURS: not a number from 0: 010"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"pause", "596524"}), "HOURS: Value 596524 not in range 0 to 596523"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"resume", "now"}), "The following argument was not expected: now"));
  EXPECT_FALSE(std::filesystem::exists(kStatusFile));
}

}  // namespace
}  // namespace orbisk::test
