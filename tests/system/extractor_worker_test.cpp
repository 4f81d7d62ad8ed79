// Workers that stall, die, lie or grow old, and what the daemon does about it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <set>
#include <thread>

#include "services/base/json_text.h"
#include "tests/support/temp_dir.h"
#include "tests/system/extractor_support.h"

namespace orbisk::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDied = 3;
constexpr int kDeadline = 4;
constexpr int kRefused = 6;

class ExtractorWorker : public testing::Test {
 protected:
  bool IsServed() { return box_.Do("plain words")["data"]["NIMOMDTextContent"] == "plain words"; }

  pid_t OnlyWorker() {
    const Json::Value workers = box_.Status()["workers"];
    return workers.size() == 1 ? workers[0].asInt() : 0;
  }

  ExtractorBox box_;
};

class StallingDeed : public ExtractorWorker, public testing::WithParamInterface<const char*> {};

TEST_P(StallingDeed, IsEndedAtTheDeadline) {
  box_.Start({"--deadline", "0.3", "--workers", "1"});
  const auto start = Clock::now();

  const Json::Value answer = box_.Do(GetParam());

  EXPECT_EQ(answer["error"]["code"], kDeadline) << answer;
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(300));
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  EXPECT_TRUE(IsServed());
}

INSTANTIATE_TEST_SUITE_P(Hostile, StallingDeed, testing::Values("stall", "spin", "half_reply"),
                         [](const auto& one) { return std::string(one.param); });

class GarblingDeed : public ExtractorWorker, public testing::WithParamInterface<const char*> {};

TEST_P(GarblingDeed, EndsTheWorkerAtOnce) {
  box_.Start({"--workers", "1"});
  const auto start = Clock::now();

  const Json::Value answer = box_.Do(GetParam());

  EXPECT_EQ(answer["error"]["code"], kRefused) << answer;
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  EXPECT_TRUE(IsServed());
}

INSTANTIATE_TEST_SUITE_P(Hostile, GarblingDeed, testing::Values("endless_reply", "garbled_reply"),
                         [](const auto& one) { return std::string(one.param); });

TEST_F(ExtractorWorker, ThatClosesItsChannelIsEnded) {
  box_.Start({"--workers", "1"});

  const Json::Value answer = box_.Do("hang_up");

  EXPECT_EQ(answer["error"]["code"], kDied) << answer;
  EXPECT_TRUE(IsServed());
}

TEST_F(ExtractorWorker, ThatSpeaksOutOfTurnIsNotAskedAgain) {
  box_.Start({"--workers", "1"});
  ASSERT_TRUE(IsServed());
  const pid_t worker = OnlyWorker();

  box_.Do("reply_twice");

  EXPECT_TRUE(Eventually([&] { return OnlyWorker() != worker; }, std::chrono::seconds(5)));
  EXPECT_FALSE(box_.Do("plain words")["data"].isMember("NIMOMDTitle"));
}

TEST_F(ExtractorWorker, ReadsManyFiles) {
  box_.Start({"--workers", "1"});

  const std::string first = box_.Do("process")["data"]["NIMOMDTitle"].asString();
  const std::string second = box_.Do("process")["data"]["NIMOMDTitle"].asString();

  EXPECT_NE(first, "");
  EXPECT_EQ(first, second);
}

TEST_F(ExtractorWorker, IsReplacedAfterItsShareOfFiles) {
  box_.Start({"--workers", "1", "--files-per-worker", "3"});

  std::multiset<std::string> processes;
  for (int i = 0; i < 9; ++i) {
    processes.insert(box_.Do("process")["data"]["NIMOMDTitle"].asString());
  }

  const std::set<std::string> different(processes.begin(), processes.end());
  EXPECT_EQ(different.size(), 3U);
  for (const std::string& process : different) {
    EXPECT_EQ(processes.count(process), 3U);
  }
}

TEST_F(ExtractorWorker, IsReplacedAfterUsingUpItsMemory) {
  if (EXTRACTOR_SHADOW_MEMORY != 0) {
    GTEST_SKIP() << "a worker with a sanitizer has no bound on memory";
  }
  box_.Start({"--workers", "1", "--memory", "64"});
  const std::string first = box_.Do("process")["data"]["NIMOMDTitle"].asString();

  box_.Do("allocate");

  EXPECT_NE(box_.Do("process")["data"]["NIMOMDTitle"].asString(), first);
}

TEST_F(ExtractorWorker, BrokenContentIsNoFailureAndKeepsTheAttributes) {
  box_.Start({"--workers", "1"});

  const Json::Value answer = box_.Do("broken");

  EXPECT_TRUE(answer["success"].asBool());
  EXPECT_EQ(answer["data"]["NIMOMDFSName"], "file1");
  EXPECT_FALSE(answer["data"].isMember("NIMOMDTextContent"));
  EXPECT_EQ(answer["broken"], "this content is broken");
  const Json::Value status = box_.Status();
  EXPECT_EQ(status["failures"]["broken"], 1);
  EXPECT_EQ(status["latest_failures"][0]["path"], box_ / "file1");
  EXPECT_EQ(status["latest_failures"][0]["message"], "this content is broken");
}

TEST_F(ExtractorWorker, IsNotGivenAKilledFileAgainUntilTheFileChanges) {
  box_.Start({"--workers", "1"});
  WriteFile(box_ / "bad", "crash");
  box_.Parse(box_ / "bad");

  const Json::Value again = box_.Parse(box_ / "bad");
  const Json::Value status = box_.Status();
  WriteFile(box_ / "bad", "mended");
  const Json::Value mended = box_.Parse(box_ / "bad");

  EXPECT_EQ(again["error"]["code"], kDied);
  EXPECT_EQ(status["failures"]["died"], 1);
  EXPECT_EQ(status["failures"]["known"], 1);
  EXPECT_EQ(mended["data"]["NIMOMDTextContent"], "mended");
}

TEST_F(ExtractorWorker, TellsAttributesOfAFileThatKilledItsReader) {
  box_.Start({"--workers", "1"});
  WriteFile(box_ / "bad", "crash");
  box_.Parse(box_ / "bad");

  const Json::Value answer = box_.Parse(box_ / "bad", false);

  EXPECT_EQ(answer["data"]["NIMOMDFSSize"], 5);
}

TEST_F(ExtractorWorker, ThatIsKilledInWork50TimesFailsThoseFilesAlone) {
  box_.Start({"--workers", "1"});
  WriteFile(box_ / "slow", "sleep_ms 20000");
  for (int i = 0; i < 50; ++i) {
    ExtractorClient client(box_.socket());
    client.Send(ParseText(box_ / "slow"));
    ASSERT_TRUE(Eventually([&] { return box_.Status()["in_work"].size() == 1; })) << "round " << i;
    const Json::Value work = box_.Status()["in_work"][0];
    EXPECT_EQ(work["path"], box_ / "slow");

    kill(work["worker"].asInt(), SIGKILL);

    const auto answer = service::FromText(client.Receive());
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ((*answer)["error"]["code"], kDied);
    ASSERT_TRUE(IsServed()) << "round " << i;
  }
  // The file was not to blame.
  const Json::Value status = box_.Status();
  EXPECT_EQ(status["failures"]["killed"], 50);
  EXPECT_EQ(status["known_failures"], 0);
}

TEST_F(ExtractorWorker, ThatIsKilledIdle50TimesFailsNoFile) {
  box_.Start({"--workers", "1"});
  ASSERT_TRUE(IsServed());
  for (int i = 0; i < 50; ++i) {
    const pid_t worker = OnlyWorker();
    ASSERT_GT(worker, 0);

    kill(worker, SIGKILL);
    ASSERT_TRUE(Eventually([&] { return OnlyWorker() != worker; }));

    ASSERT_TRUE(IsServed()) << "round " << i;
  }
  EXPECT_TRUE(box_.Status()["failures"].empty());
}

TEST_F(ExtractorWorker, SurvivesTheProcessThatItIsForkedFrom) {
  box_.Start({"--workers", "1"});
  WriteFile(box_ / "slow", "sleep_ms 20000");
  for (int i = 0; i < 10; ++i) {
    const ProcessResult children = RunProcess({"ps", "-o", "pid=", "--ppid", std::to_string(box_.daemon().pid())});
    const pid_t nursery = std::stoi(children.output);
    ExtractorClient client(box_.socket());
    client.Send(ParseText(box_ / "slow"));
    ASSERT_TRUE(Eventually([&] { return box_.Status()["in_work"].size() == 1; }));
    const pid_t worker = OnlyWorker();

    kill(nursery, SIGKILL);

    const auto answer = service::FromText(client.Receive());
    EXPECT_EQ((*answer)["error"]["code"], kDied);
    EXPECT_TRUE(Eventually([&] { return !IsRunning(worker); }));
    ASSERT_TRUE(IsServed()) << "round " << i;
  }
}

TEST_F(ExtractorWorker, DiesWithTheDaemonEvenWhenItHasJustBeenBorn) {
  for (int i = 0; i < 20; ++i) {
    WriteFile(box_ / "slow", "stall");  // anew, because a daemon learns from how the one before it ended
    box_.Start({"--workers", "1"});
    ExtractorClient client(box_.socket());
    client.Send(ParseText(box_ / "slow"));
    ASSERT_TRUE(Eventually([&] { return box_.Status()["in_work"].size() == 1; }));
    const pid_t worker = OnlyWorker();

    box_.daemon().Kill(SIGKILL);
    box_.daemon().Wait(std::chrono::seconds(5));

    ASSERT_TRUE(Eventually([&] { return !IsRunning(worker); })) << "round " << i;
  }
}

TEST_F(ExtractorWorker, OthersGoOnWhileOneStalls) {
  box_.Start({"--workers", "2"});
  WriteFile(box_ / "slow", "sleep_ms 20000");
  ExtractorClient stalled(box_.socket());
  stalled.Send(ParseText(box_ / "slow"));

  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(IsServed());
  }
}

TEST_F(ExtractorWorker, TakesWaitingFilesInTurn) {
  box_.Start({"--workers", "1"});
  WriteFile(box_ / "slow", "sleep_ms 100");
  std::vector<std::unique_ptr<ExtractorClient>> clients;
  for (int i = 0; i < 20; ++i) {
    clients.push_back(std::make_unique<ExtractorClient>(box_.socket()));
    clients.back()->Send(ParseText(box_ / "slow"));
  }
  EXPECT_TRUE(Eventually([&] { return box_.Status()["waiting"].asInt() > 0; }));
  EXPECT_EQ(box_.Status()["workers"].size(), 1U);

  for (const auto& client : clients) {
    const auto answer = service::FromText(client->Receive());
    ASSERT_TRUE(answer.has_value());
    EXPECT_TRUE((*answer)["success"].asBool());
  }
}

TEST_F(ExtractorWorker, CutsTextAtTheBoundAndSaysSo) {
  box_.Start({"--workers", "1", "--text-bytes", "1024"});

  const Json::Value whole = box_.Do(std::string(1024, 'a'));
  const Json::Value cut = box_.Do(std::string(1025, 'a'));

  EXPECT_FALSE(whole.isMember("cut"));
  EXPECT_FALSE(whole["data"].isMember("NIMOMDCoverage"));
  EXPECT_EQ(cut["cut"], true);
  EXPECT_EQ(cut["data"]["NIMOMDCoverage"], "the beginning of the text");
  EXPECT_EQ(cut["data"]["NIMOMDTextContent"].asString().size(), 1024U);
}

TEST_F(ExtractorWorker, ReturnsFourMebibytesOfTheWorstText) {
  box_.Start({"--workers", "1"});
  const std::string worst(size_t{4} << 20, '\x01');

  const Json::Value answer = box_.Do(worst);

  EXPECT_TRUE(answer["data"]["NIMOMDTextContent"].asString() == worst);
}

TEST_F(ExtractorWorker, ThatCannotBePreparedKeepsTheDaemonFromStarting) {
  Subprocess daemon(box_.Command({}), {"HOSTILE_PREPARE_FAILS=1"});

  const ProcessResult result = daemon.Wait(std::chrono::seconds(20));

  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.errors, testing::HasSubstr("the readers' data is missing"));
}

}  // namespace
}  // namespace orbisk::test
