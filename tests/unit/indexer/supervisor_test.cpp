// What the supervisor answers on a box without an indexed share. Workers at work are the system tests' matter.
#include "services/indexer/supervisor.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>

#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/indexer/loop.h"

namespace fileindexd {
namespace {

namespace fs = std::filesystem;
using orbisk::test::WriteFile;

constexpr char kConfiguration[] = "/var/packages/Orbisk/etc";

class SupervisorTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { orbisk::test::EnterPrivateMounts({kConfiguration, "/etc/nimo"}); }
  ~SupervisorTest() override { fs::remove(std::string(kConfiguration) + "/fileindex.status"); }

  static Json::Value Message(const char* type, const char* share = nullptr) {
    Json::Value message;
    message["type"] = type;
    if (share != nullptr) {
      message["data"]["share_name"] = share;
    }
    return message;
  }
  // The answer, which has to come at once.
  Json::Value AnswerTo(const Json::Value& message) {
    Json::Value answer;
    int answers = 0;
    supervisor_.Handle(message, [&](const Json::Value& given) {
      answer = given;
      ++answers;
    });
    EXPECT_EQ(1, answers);
    return answer;
  }
  static void WritePause(long until) {
    WriteFile(std::string(kConfiguration) + "/fileindex.status", R"({"resume_time":)" + std::to_string(until) + "}");
  }

  Loop loop_;
  const SupervisorSettings settings_{};
  Supervisor supervisor_{loop_.context(), settings_};
};

TEST_F(SupervisorTest, WithoutAConfigurationThereIsNothingToTell) {
  supervisor_.Start();

  const Json::Value data = AnswerTo(Message("status"))["data"];

  EXPECT_FALSE(data["paused"].asBool());
  EXPECT_EQ(-1, data["resume_time"].asInt());
  EXPECT_EQ(0U, data["shares"].size());
  EXPECT_FALSE(supervisor_.IsAwaited());
}

TEST_F(SupervisorTest, WhatIsNoCommandIsRefusedByName) {
  for (const char* const type : {"explode", ""}) {
    const Json::Value answer = AnswerTo(Message(type));
    EXPECT_FALSE(answer["success"].asBool()) << type;
    EXPECT_EQ(std::string("unknown command: ") + type, answer["error"]["msg"].asString());
  }
  for (const char* const type : {"worker_create", "worker_delete"}) {
    const Json::Value answer = AnswerTo(Message(type));
    EXPECT_FALSE(answer["success"].asBool()) << type;
    EXPECT_EQ(std::string("the command names no share: ") + type, answer["error"]["msg"].asString());
  }
  for (const char* const key : {"type", "data"}) {
    Json::Value message = Message("worker_create", "photo");
    message[key] = 7;
    EXPECT_FALSE(AnswerTo(message)["success"].asBool()) << key;
  }
  EXPECT_FALSE(AnswerTo(Json::Value(7))["success"].asBool());
}

TEST_F(SupervisorTest, DeletingAWorkerThatIsNotThereIsAnsweredAtOnceAndRemembered) {
  supervisor_.Start();

  EXPECT_TRUE(AnswerTo(Message("worker_delete", "photo"))["success"].asBool());

  const Json::Value shares = AnswerTo(Message("status"))["data"]["shares"];
  ASSERT_EQ(1U, shares.size());
  EXPECT_EQ("photo", shares[0]["share"].asString());
  EXPECT_EQ("deleted", shares[0]["state"].asString());
  EXPECT_TRUE(AnswerTo(Message("worker_create", "photo"))["success"].asBool());
  EXPECT_EQ(0U, AnswerTo(Message("status"))["data"]["shares"].size());
}

TEST_F(SupervisorTest, APauseIsReadWhenItIsToldAndEndsByItself) {
  supervisor_.Start();
  const auto is_paused = [&] { return AnswerTo(Message("status"))["data"]["paused"].asBool(); };
  const long end = static_cast<long>(time(nullptr)) + 2;
  WritePause(end);

  EXPECT_TRUE(AnswerTo(Message("pause"))["success"].asBool());

  EXPECT_TRUE(is_paused());
  EXPECT_EQ(end, AnswerTo(Message("status"))["data"]["resume_time"].asInt64());
  EXPECT_TRUE(loop_.RunUntil([&] { return !is_paused(); }));
  EXPECT_GE(time(nullptr), end);
}

TEST_F(SupervisorTest, APauseThatIsOnlyWrittenIsReadToo) {
  supervisor_.Start();

  WritePause(0);

  EXPECT_TRUE(loop_.RunUntil([&] { return AnswerTo(Message("status"))["data"]["paused"].asBool(); }));
  EXPECT_EQ(0, AnswerTo(Message("status"))["data"]["resume_time"].asInt());
}

}  // namespace
}  // namespace fileindexd
