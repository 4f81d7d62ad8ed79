// Command line, exit status and signals of daemons.
#include "services/base/program.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <vector>

#include "services/base/log.h"
#include "tests/support/record_capture.h"

namespace service {
namespace {

class ProgramTest : public testing::Test {
 protected:
  int Run(std::vector<const char*> arguments) {
    const Program program{"sampled", "1.2.3", "Shows how it is done.",
                          [this](CLI::App& app) { app.add_option("--number", number_, "a number"); },
                          [this] {
                            ran_ = true;
                            work_();
                          }};
    arguments.insert(arguments.begin(), "sampled");
    return RunProgram(program, static_cast<int>(arguments.size()), arguments.data());
  }

  int number_ = 1;
  bool ran_ = false;
  std::function<void()> work_ = [] {};
};

TEST_F(ProgramTest, RunsWithItsOwnOptionsParsed) {
  EXPECT_EQ(Run({"--number", "5", "--number", "7"}), kExitStopped);

  EXPECT_TRUE(ran_);
  EXPECT_EQ(number_, 7);
}

TEST_F(ProgramTest, WrongUsageIsToldByTheStatusAndNothingIsRun) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(Run({"--bogus"}), kExitUsage);
  EXPECT_EQ(Run({"--number", "many"}), kExitUsage);
  EXPECT_EQ(Run({"--log-level", "loud"}), kExitUsage);

  EXPECT_NE(testing::internal::GetCapturedStderr().find("--bogus"), std::string::npos);
  EXPECT_FALSE(ran_);
}

TEST_F(ProgramTest, SaysItsNameAndVersion) {
  testing::internal::CaptureStdout();

  EXPECT_EQ(Run({"--version"}), kExitStopped);

  EXPECT_EQ(testing::internal::GetCapturedStdout(), "sampled 1.2.3\n");
  EXPECT_FALSE(ran_);
}

TEST_F(ProgramTest, TellsWhatKeptItFromStartingOrEndedIt) {
  const orbisk::test::RecordCapture log;
  work_ = [] { throw std::runtime_error("no luck"); };
  testing::internal::CaptureStderr();

  EXPECT_EQ(Run({}), kExitFailure);

  EXPECT_EQ(testing::internal::GetCapturedStderr(), "sampled: no luck\n");
  EXPECT_EQ(log.texts().at(0), "event=failed reason=\"no luck\"");
}

TEST_F(ProgramTest, ClientThatHangsUpAndAFileSizeLimitDoNotEndIt) {
  work_ = [] {
    raise(SIGPIPE);
    raise(SIGXFSZ);
  };

  EXPECT_EQ(Run({}), kExitStopped);
}

TEST_F(ProgramTest, LogLevelSelectsTheRecords) {
  work_ = [] { EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_ERR)); };
  EXPECT_EQ(Run({"--log-level", "error"}), kExitStopped);

  work_ = [] { EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_NOTICE)); };
  EXPECT_EQ(Run({}), kExitStopped);
}

TEST(LimitStoppingTest, EndsAProcessWhoseWorkDoesNotEnd) {
  const auto stop_for_ever = [] {
    LimitStopping();
    sleep(20);
    _exit(kExitFailure);
  };
  const auto start = std::chrono::steady_clock::now();

  EXPECT_EXIT(stop_for_ever(), testing::ExitedWithCode(kExitStopped), "");

  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(800));
}

// Runs the loop until a signal ends it; false if none does.
bool Ends(boost::asio::io_context& context) {
  const auto work = boost::asio::make_work_guard(context);
  context.run_for(std::chrono::seconds(10));
  return context.stopped();
}

TEST(StopSignalsTest, TermAndInterruptEndTheLoop) {
  for (const int number : {SIGTERM, SIGINT}) {
    boost::asio::io_context context(1);
    const StopSignals signals(context);

    kill(getpid(), number);

    EXPECT_TRUE(Ends(context)) << number;
  }
}

TEST(StopSignalsTest, HangupCallsBackEachTimeAndEndsNothing) {
  boost::asio::io_context context(1);
  int calls = 0;
  const StopSignals signals(context, [&] {
    if (++calls == 2) {
      kill(getpid(), SIGTERM);
    } else {
      kill(getpid(), SIGHUP);
    }
  });

  kill(getpid(), SIGHUP);

  EXPECT_TRUE(Ends(context));
  EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace service
