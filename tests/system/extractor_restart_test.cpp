// What a daemon knows of the contents that the one before it met.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>

#include "services/base/json_text.h"
#include "tests/support/temp_dir.h"
#include "tests/system/extractor_support.h"

namespace orbisk::test {
namespace {

constexpr int kDied = 3;
constexpr char kSlow[] = "sleep_ms 30000";

class ExtractorRestart : public testing::Test {
 protected:
  void Kill() {
    box_.daemon().Kill(SIGKILL);
    box_.daemon().Wait(std::chrono::seconds(5));
  }

  // Kills the daemon while it has `path` in work.
  void KillOver(const std::string& path) {
    ExtractorClient client(box_.socket());
    client.Send(ParseText(path));
    ASSERT_TRUE(Eventually([&] {
      const Json::Value work = box_.Status()["in_work"];
      return work.size() == 1 && work[0]["path"] == path;
    }));
    Kill();
  }

  ExtractorBox box_;
};

TEST_F(ExtractorRestart, KeepsAFileFromKillingAnotherReader) {
  box_.Start({"--workers", "1"});
  WriteFile(box_ / "bad", "crash");
  box_.Parse(box_ / "bad");
  Kill();
  box_.Start({"--workers", "1"});

  const Json::Value answer = box_.Parse(box_ / "bad");

  EXPECT_EQ(answer["error"]["code"], kDied);
  EXPECT_THAT(answer["error"]["msg"].asString(), testing::HasSubstr("before"));
  const Json::Value status = box_.Status();
  EXPECT_EQ(status["failures"]["known"], 1);
  EXPECT_FALSE(status["failures"].isMember("died"));
  EXPECT_TRUE(status["workers"].empty());
}

TEST_F(ExtractorRestart, LetsAFileBeReadThatHasChanged) {
  box_.Start();
  WriteFile(box_ / "bad", "crash");
  box_.Parse(box_ / "bad");
  box_.Stop();
  WriteFile(box_ / "bad", "mended");

  box_.Start();

  EXPECT_EQ(box_.Parse(box_ / "bad")["data"]["NIMOMDTextContent"], "mended");
}

TEST_F(ExtractorRestart, LetsADaemonWithOtherBoundsTryAgain) {
  box_.Start({"--deadline", "0.2"});
  WriteFile(box_ / "slow", "sleep_ms 400");
  ASSERT_FALSE(box_.Parse(box_ / "slow")["success"].asBool());
  box_.Stop();

  box_.Start({"--deadline", "20"});

  EXPECT_TRUE(box_.Parse(box_ / "slow")["success"].asBool());
}

TEST_F(ExtractorRestart, LetsAnotherProgramTryAgain) {
  box_.Start();
  WriteFile(box_ / "bad", "crash");
  box_.Parse(box_ / "bad");
  box_.Stop();
  const std::string newer = box_ / "newer";
  std::filesystem::copy_file(ProgramBeside("hostile_extractor"), newer);

  box_.StartProgram(newer);
  box_.Parse(box_ / "bad");

  EXPECT_EQ(box_.Status()["failures"]["died"], 1);
}

TEST_F(ExtractorRestart, FailsAFileOverWhichTheDaemonEndedTwice) {
  WriteFile(box_ / "slow", kSlow);
  for (int i = 0; i < 2; ++i) {
    box_.Start();
    KillOver(box_ / "slow");
  }
  box_.Start();

  const Json::Value answer = box_.Parse(box_ / "slow");

  EXPECT_EQ(answer["error"]["code"], kDied);
  EXPECT_THAT(answer["error"]["msg"].asString(), testing::HasSubstr("ended twice"));
}

TEST_F(ExtractorRestart, ReadsASuspectOnceMoreWithNoOtherFileInWork) {
  WriteFile(box_ / "suspect", "hold");
  WriteFile(box_ / "other", "plain words");
  box_.Start({"--workers", "2"});
  KillOver(box_ / "suspect");
  box_.Start({"--workers", "2"});
  ASSERT_EQ(box_.Status()["suspects"], 1);
  ExtractorClient suspect(box_.socket());
  ExtractorClient other(box_.socket());
  suspect.Send(ParseText(box_ / "suspect"));
  ASSERT_TRUE(Eventually([&] { return box_.Status()["in_work"].size() == 1; }));

  other.Send(ParseText(box_ / "other"));

  ASSERT_TRUE(Eventually([&] { return box_.Status()["waiting"] == 1; }));
  EXPECT_EQ(box_.Status()["in_work"][0]["path"], box_ / "suspect");
  WriteFile(box_ / "suspect", "hold no more");
  EXPECT_TRUE((*service::FromText(suspect.Receive()))["success"].asBool());
  EXPECT_TRUE((*service::FromText(other.Receive()))["success"].asBool());
  EXPECT_EQ(box_.Status()["suspects"], 0);
}

TEST_F(ExtractorRestart, SuspectsNothingAfterAStopThatWasAskedFor) {
  WriteFile(box_ / "slow", kSlow);
  box_.Start();
  ExtractorClient client(box_.socket());
  client.Send(ParseText(box_ / "slow"));
  ASSERT_TRUE(Eventually([&] { return box_.Status()["in_work"].size() == 1; }));
  box_.Stop();

  box_.Start();

  EXPECT_EQ(box_.Status()["suspects"], 0);
}

TEST_F(ExtractorRestart, WorksWhereNothingCanBeKept) {
  WriteFile(box_.state_folder(), "a file, no folder");

  box_.Start();

  EXPECT_EQ(box_.Do("plain words")["data"]["NIMOMDTextContent"], "plain words");
  EXPECT_EQ(box_.Do("crash")["error"]["code"], kDied);
  EXPECT_THAT(box_.Stop().errors, testing::HasSubstr("failures_not_kept"));
}

}  // namespace
}  // namespace orbisk::test
