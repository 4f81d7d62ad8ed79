// The search daemon's channel: what is sent, which answers are errors, and every wait.
#include "orbisk/comm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <thread>

#include "orbisk/error.h"
#include "orbisk/json.h"
#include "tests/support/fake_box.h"
#include "tests/support/fake_daemon_connection.h"
#include "tests/support/fake_time.h"
#include "tests/support/private_mounts.h"
#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/error_of.h"

namespace orbisk {
namespace {

using test::ErrorOf;
using test::FakeConnections;
using test::FakePlatform;
using test::FakeTime;
using test::RecordCapture;
using test::Wait;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

// An error of a kind that the library does not throw itself.
class FurtherError : public Error {
 public:
  using Error::Error;
};

constexpr char kSocket[] = "/run/nimoelasticd.sock";

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(fromString(value, text)) << text;
  return value;
}

const Json::Value& Commit() {
  static const Json::Value request = Parsed(R"({"command":"commit","data":{"id":"fileindex_photo"}})");
  return request;
}

class Comm : public testing::Test {
 protected:
  static void SetUpTestSuite() { test::EnterPrivateMounts({"/run"}); }

  Comm() { test::WriteFile(kSocket, ""); }

  std::string ErrorOfExchange(const Json::Value& request = Commit()) {
    return ErrorOf([&] { SendRequestImpl(res_, request); });
  }
  std::string ErrorOfRequest(const Json::Value& request = Commit()) {
    return ErrorOf([&] { SendRequest(res_, request); });
  }

  std::vector<uint64_t> WaitedSeconds() const {
    std::vector<uint64_t> seconds;
    for (const Wait& wait : time_.waits()) {
      EXPECT_EQ("sleep", wait.function);
      seconds.push_back(wait.microseconds / 1'000'000);
    }
    return seconds;
  }

  const FakePlatform platform_;
  FakeTime time_;
  const RecordCapture log_;
  Json::Value res_;
};

TEST_F(Comm, SendsTheRequestAsOneLineOfJsonToTheSocketAndClosesTheConnection) {
  FakeConnections().Reply(R"({"success":true,"data":[1]})");

  SendRequestImpl(res_, Commit());

  EXPECT_THAT(FakeConnections().requests(), ElementsAre(toString(Commit())));
  EXPECT_THAT(FakeConnections().connect.calls().front().arguments, ElementsAre("/var/run/nimoelasticd.sock", "86400"));
  EXPECT_EQ(R"({"data":[1],"success":true})", toString(res_));
  EXPECT_EQ(0, FakeConnections().open());
  EXPECT_THAT(WaitedSeconds(), IsEmpty());
  EXPECT_THAT(log_.texts(), IsEmpty());
}

TEST_F(Comm, AnExchangeSendsARequestOfAnyType) {
  for (const char* const text : {"7", "[1]", "null", R"("commit")"}) {
    FakeConnections().Reply(R"({"success":false,"error":{"code":1400,"msg":"m"}})");
    FakeConnections().Reply(R"({"success":true,"has_fail":true,"data":[{"success":false}]})");

    EXPECT_EQ("none", ErrorOfRequest(Parsed(text)));

    EXPECT_EQ(text, FakeConnections().requests().back());
    EXPECT_THAT(log_.texts().back(), EndsWith("is busy. Command: , db: "));
  }
}

TEST_F(Comm, ThreadsHaveAConnectionEach) {
  constexpr size_t kThreads = 4;
  constexpr size_t kExchanges = 50;
  std::vector<std::thread> threads;
  for (size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([] {
      for (size_t exchange = 0; exchange < kExchanges; ++exchange) {
        SendRequest(Commit());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_THAT(FakeConnections().connect.calls(), SizeIs(kThreads * kExchanges));
  EXPECT_EQ(std::vector<std::string>(kThreads * kExchanges, toString(Commit())), FakeConnections().requests());
  EXPECT_EQ(0, FakeConnections().open());
}

TEST_F(Comm, WaitsUntilTheSocketAppears) {
  std::filesystem::remove(kSocket);
  time_.OnWait([this](size_t nth) {
    EXPECT_THAT(log_.texts(), SizeIs(nth));
    if (nth == 3) {
      test::WriteFile(kSocket, "");
    }
  });

  EXPECT_EQ("none", ErrorOfExchange());

  EXPECT_THAT(WaitedSeconds(), ElementsAre(1, 1, 1));
  ASSERT_THAT(log_.texts(), SizeIs(3));
  EXPECT_THAT(log_.texts()[0], testing::MatchesRegex("comm.cpp:[0-9]+ elastic socket is not ready, retry ... 1"));
  EXPECT_EQ("%s:%d elastic socket is not ready, retry ... %d", log_.records()[0].format);
  EXPECT_EQ(3, log_.records()[0].priority);
}

TEST_F(Comm, ConnectsAllTheSameAtTheThirtySecondMissingSocket) {
  std::filesystem::remove(kSocket);
  FakeConnections().connect.FailAlways();

  EXPECT_EQ("913 Connect failed", ErrorOfExchange());

  EXPECT_EQ(std::vector<uint64_t>(31, 1), WaitedSeconds());
  ASSERT_THAT(log_.texts(), SizeIs(32));
  EXPECT_THAT(log_.texts()[30], EndsWith("retry ... 31"));
  EXPECT_THAT(log_.texts()[31],
              HasSubstr("(SendRequestImpl) Failed [!conn.Connect(kElasticdConnectTimeout)], reason: Connect failed"));
}

TEST_F(Comm, ARefusedMessageIsNoSuccess) {
  FakeConnections().send.FailAlways();

  EXPECT_EQ("913 Send failed", ErrorOfExchange());

  EXPECT_THAT(log_.texts().back(), HasSubstr("Failed [!conn.Send(req.toString())], reason: Send failed"));
  EXPECT_EQ(0, FakeConnections().open());
}

TEST_F(Comm, AnAnswerThatIsNoResponseIsShownAsFarAsItCame) {
  const std::vector<std::pair<std::string, std::string>> table = {
      {"", "null"},
      {"rubbish", "null"},
      {"[1]", "[1]"},
      {"7", "7"},
      {"\"success\"", "\"success\""},
      {"{}", "{}"},
      {R"({"success":"true"})", R"({"success":"true"})"},
      {R"({"success":1})", R"({"success":1})"},
  };
  for (const auto& [reply, shown] : table) {
    res_ = Json::Value();
    FakeConnections().Reply(reply);
    EXPECT_EQ("913 Recv failed, res=" + shown, ErrorOfExchange());
    EXPECT_THAT(log_.texts().back(),
                HasSubstr("Failed [!conn.Recv(resp_raw) || !res.fromString(resp_raw) || !res.isMember(\"success\") || "
                          "!res[\"success\"].isBool()], reason: Recv failed, res=" +
                          shown));
    EXPECT_EQ(0, FakeConnections().open());
  }
}

TEST_F(Comm, DeepNestingInAnAnswerIsNoResponse) {
  FakeConnections().Reply(std::string(2000, '['));

  EXPECT_EQ("913 Recv failed, res=null", ErrorOfExchange());
}

TEST_F(Comm, WhatCouldNotBeReadLeavesWhatTheCallerHad) {
  res_ = Parsed(R"({"left":"over"})");
  FakeConnections().Reply("rubbish");
  FakeConnections().receive.FailAt(2);

  EXPECT_EQ(R"(913 Recv failed, res={"left":"over"})", ErrorOfExchange());
  EXPECT_EQ(R"(913 Recv failed, res={"left":"over"})", ErrorOfExchange());
  EXPECT_EQ(R"({"left":"over"})", toString(res_));
}

TEST_F(Comm, TheDaemonsCodeComesThroughUnchanged) {
  for (const int code : {608, 1200, 42, -7}) {
    FakeConnections().Reply(R"({"success":false,"error":{"code":)" + std::to_string(code) + R"(,"msg":"m"}})");
    EXPECT_EQ(std::to_string(code) + " Request failed, msg=m", ErrorOfRequest());
  }
  EXPECT_THAT(WaitedSeconds(), IsEmpty());
  EXPECT_THAT(log_.texts().back(), EndsWith("reason: Request failed, msg=m"));
}

TEST_F(Comm, ARefusalWithoutAProperErrorIsError120) {
  const char* const replies[] = {R"({"success":false})",
                                 R"({"success":false,"error":"busy"})",
                                 R"({"success":false,"error":{"msg":"m"}})",
                                 R"({"success":false,"error":{"code":606}})",
                                 R"({"success":false,"error":{"code":"x","msg":"m"}})",
                                 R"({"success":false,"error":[606,"m"]})",
                                 R"({"success":false,"error":{"code":606,"msg":{}}})",
                                 R"({"success":false,"error":{"code":99999999999,"msg":"m"}})",
                                 R"({"success":false,"error":{"code":1e300,"msg":"m"}})"};
  for (const char* const reply : replies) {
    FakeConnections().Reply(reply);
    EXPECT_THAT(ErrorOfRequest(), StartsWith("120 ")) << reply;
  }
  EXPECT_THAT(WaitedSeconds(), IsEmpty());
}

TEST_F(Comm, SubRequestsThatFailAreRecordedAndTheFirstBusyOneThrows) {
  const Json::Value request =
      Parsed(R"({"compound":[{"command":"a"},{"command":"b"},{"command":"c"},{"command":"d"}]})");
  FakeConnections().Reply(R"({"success":true,"has_fail":true,"data":[{"success":true},
      {"success":false,"error":{"code":1200,"msg":"none"}},{"success":false,"error":{"code":1401,"msg":"full"}},
      {"success":false,"error":{"code":1200,"msg":"not looked at"}}]})");

  EXPECT_EQ("1401 full", ErrorOfExchange(request));

  ASSERT_THAT(log_.texts(), SizeIs(2));
  EXPECT_THAT(log_.texts()[0], EndsWith(R"((SendRequestImpl) Compound failed: none (1200) {"command":"b"})"));
  EXPECT_THAT(log_.texts()[1], HasSubstr("(SendRequestImpl) Failed ["));
  EXPECT_THAT(log_.texts()[1], EndsWith(", reason: full"));
  EXPECT_EQ("%s:%d (%d, %u) (%s) Compound failed: %s (%d) %s", log_.records()[0].format);
  EXPECT_EQ(0, FakeConnections().open());
}

TEST_F(Comm, TheRecordOfAFailedSubRequestShowsErrno) {
  FakeConnections().receive.Next([](std::string* message) {
    *message = R"({"success":true,"has_fail":true,"data":[{"success":false,"error":{"code":1,"msg":"m"}}]})";
    errno = ENOSPC;
    return true;
  });

  EXPECT_EQ("none", ErrorOfRequest(Parsed(R"({"compound":[7]})")));

  ASSERT_THAT(log_.texts(), SizeIs(1));
  EXPECT_THAT(log_.texts()[0], EndsWith("Compound failed: m (1) 7 [err: No space left on device]"));
}

TEST_F(Comm, AFailureThatSaysNothingProperHasCodeZeroAndNoText) {
  FakeConnections().Reply(R"({"success":true,"has_fail":true,"data":[{"success":false,"error":[1400]},
      {"success":false,"error":"1400"},{"success":false,"error":{"code":"1400","msg":[]}},
      {"success":false,"error":{"code":99999999999}},[],null]})");

  EXPECT_EQ("none", ErrorOfRequest(Parsed(R"({"compound":{"command":"a"}})")));

  ASSERT_THAT(log_.texts(), SizeIs(4));
  for (const std::string& text : log_.texts()) {
    EXPECT_THAT(text, EndsWith("Compound failed:  (0) null"));
  }
}

TEST_F(Comm, OtherFailuresOfSubRequestsAreTolerated) {
  FakeConnections().Reply(R"({"success":true,"has_fail":true,"data":[{"success":false},
      {"success":false,"error":{"code":608,"msg":"paused"}},7,{"success":"false"}]})");

  EXPECT_EQ("none", ErrorOfRequest(Parsed(R"({"compound":[{"command":"a"}]})")));

  ASSERT_THAT(log_.texts(), SizeIs(2));
  EXPECT_THAT(log_.texts()[0], EndsWith(R"(Compound failed:  (0) {"command":"a"})"));
  EXPECT_THAT(log_.texts()[1], EndsWith("Compound failed: paused (608) null"));
}

TEST_F(Comm, ACompoundAnswerIsLookedAtOnlyIfRequestAndAnswerBothSaySo) {
  const char* const failed = R"("data":[{"success":false,"error":{"code":1400,"msg":"busy"}}]})";
  FakeConnections().Reply(std::string(R"({"success":true,"has_fail":false,)") + failed);
  FakeConnections().Reply(std::string(R"({"success":true,)") + failed);
  FakeConnections().Reply(std::string(R"({"success":true,"has_fail":true,)") + failed);

  EXPECT_EQ("none", ErrorOfExchange(Parsed(R"({"compound":[{}]})")));
  EXPECT_EQ("none", ErrorOfExchange(Parsed(R"({"compound":[{}]})")));
  EXPECT_EQ("none", ErrorOfExchange(Commit()));
  EXPECT_THAT(log_.texts(), IsEmpty());
}

TEST_F(Comm, ACompoundAnswerWithoutAnArrayHoldsNothing) {
  FakeConnections().Reply(R"({"success":true,"has_fail":true,"data":{"success":false}})");
  FakeConnections().Reply(R"({"success":true,"has_fail":true})");

  EXPECT_EQ("none", ErrorOfExchange(Parsed(R"({"compound":[{}]})")));
  EXPECT_EQ("none", ErrorOfExchange(Parsed(R"({"compound":[{}]})")));
}

TEST_F(Comm, ADatabaseThatIsNotReadyIsWaitedForWithoutLimit) {
  for (int i = 0; i < 40; ++i) {
    for (const int code : {606, 607, 609}) {
      FakeConnections().Reply(R"({"success":false,"error":{"code":)" + std::to_string(code) + R"(,"msg":"m"}})");
    }
  }

  EXPECT_EQ("none", ErrorOfRequest());

  EXPECT_EQ(std::vector<uint64_t>(120, 30), WaitedSeconds());
  EXPECT_THAT(FakeConnections().requests(), SizeIs(121));
  EXPECT_THAT(log_.texts()[1],
              testing::MatchesRegex("comm.cpp:[0-9]+ DB is not good yet, retry... \\(Error Code: 606\\)"));
  EXPECT_THAT(test::FakeProcess().execl.calls(), IsEmpty());
}

TEST_F(Comm, ABusyDaemonIsTriedAgainAfterFifteenToNineteenMinutes) {
  for (int i = 0; i < 6; ++i) {
    FakeConnections().Reply(R"({"success":false,"error":{"code":1400,"msg":"m"}})");
  }
  time_.ScriptRand({0, 1, 2, 3, 4, 5});

  EXPECT_EQ("none", ErrorOfRequest());

  EXPECT_THAT(WaitedSeconds(), ElementsAre(900, 960, 1020, 1080, 1140, 900));
  EXPECT_THAT(log_.texts()[1], testing::MatchesRegex("comm.cpp:[0-9]+ Retry.0. since nimoelasticd is busy. Command: "
                                                     "commit, db: fileindex_photo"));
  EXPECT_THAT(log_.texts().back(), HasSubstr("Retry[5] since"));
}

TEST_F(Comm, AdministratorsAreToldOnceAtTheEleventhBusyAnswer) {
  for (int i = 0; i < 60; ++i) {
    FakeConnections().Reply(R"({"success":false,"error":{"code":1401,"msg":"m"}})");
  }
  std::vector<size_t> notices_at_wait;
  time_.OnWait([&](size_t) { notices_at_wait.push_back(test::FakeProcess().execl.calls().size()); });

  EXPECT_EQ("none", ErrorOfRequest());

  std::vector<size_t> expected(60, 1);
  std::fill_n(expected.begin(), 10, 0);
  EXPECT_EQ(expected, notices_at_wait);
  EXPECT_THAT(test::FakeProcess().execl.calls()[0].arguments, testing::Contains(HasSubstr("error:lack_of_memory")));
}

TEST_F(Comm, EachRequestCountsItsOwnBusyAnswers) {
  for (size_t call = 1; call <= 2; ++call) {
    for (int i = 0; i < 11; ++i) {
      FakeConnections().Reply(R"({"success":false,"error":{"code":1401,"msg":"m"}})");
    }

    EXPECT_EQ("none", ErrorOfRequest());

    EXPECT_THAT(test::FakeProcess().execl.calls(), SizeIs(call));
    EXPECT_THAT(log_.texts().back(), HasSubstr("Retry[10] since"));
  }
}

TEST_F(Comm, WaitingForADatabaseDoesNotCountAsBusy) {
  FakeConnections().Reply(R"({"success":false,"error":{"code":1400,"msg":"m"}})");
  FakeConnections().Reply(R"({"success":false,"error":{"code":606,"msg":"m"}})");
  FakeConnections().Reply(R"({"success":false,"error":{"code":1400,"msg":"m"}})");

  EXPECT_EQ("none", ErrorOfRequest());

  EXPECT_THAT(log_.texts(), testing::Contains(HasSubstr("Retry[0] since")));
  EXPECT_THAT(log_.texts(), testing::Contains(HasSubstr("Retry[1] since")));
}

TEST_F(Comm, ABusySubRequestSendsTheWholeCompoundAgain) {
  const Json::Value request = Parsed(R"({"compound":[{"command":"a"},{"command":"b"}]})");
  const Json::Value before = request;
  FakeConnections().Reply(
      R"({"success":true,"has_fail":true,"data":[{"success":true},{"success":false,"error":{"code":1400,"msg":"m"}}]})");

  EXPECT_EQ("none", ErrorOfRequest(request));

  EXPECT_THAT(FakeConnections().requests(), ElementsAre(toString(request), toString(request)));
  EXPECT_THAT(log_.texts().back(), EndsWith("is busy. Command: , db: "));
  EXPECT_EQ(before, request);
}

TEST_F(Comm, ADaemonThatCannotBeReachedIsNotTriedAgain) {
  FakeConnections().connect.FailAt(1);

  EXPECT_EQ("913 Connect failed", ErrorOfRequest());

  EXPECT_THAT(FakeConnections().connect.calls(), SizeIs(1));
}

TEST_F(Comm, OnlyErrorsOfTheLibraryAreCaught) {
  FakeConnections().send.Next([](const std::string&) -> bool { throw std::runtime_error("606"); });

  EXPECT_THROW(SendRequest(Commit()), std::runtime_error);
  EXPECT_THAT(WaitedSeconds(), IsEmpty());
}

TEST_F(Comm, AnErrorIsThrownOnAsACopy) {
  FakeConnections().send.Next([](const std::string&) -> bool { throw FurtherError(Code(608), "paused"); });

  try {
    SendRequest(Commit());
    ADD_FAILURE() << "nothing is thrown";
  } catch (const FurtherError&) {
    ADD_FAILURE() << "the same object is thrown again";
  } catch (const Error& error) {
    EXPECT_EQ(608, error.code());
    EXPECT_STREQ("paused", error.what());
  }
}

TEST_F(Comm, ACallerWithoutInterestInTheAnswerStillWaitsAndFails) {
  FakeConnections().Reply(R"({"success":false,"error":{"code":607,"msg":"m"}})");
  FakeConnections().Reply(R"({"success":false,"error":{"code":1200,"msg":"m"}})");

  EXPECT_EQ("1200 Request failed, msg=m", ErrorOf([] { SendRequest(Commit()); }));

  EXPECT_THAT(WaitedSeconds(), ElementsAre(30));
}

}  // namespace
}  // namespace orbisk
