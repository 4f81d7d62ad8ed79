// "fileindexctl monitor", run as a program, without and with the change monitor.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/local_socket.h"
#include "tests/support/private_mounts.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"

namespace {

using orbisk::test::BuiltProgram;
using orbisk::test::ProcessResult;
using orbisk::test::ReadFile;
using orbisk::test::RunProcess;
using orbisk::test::Subprocess;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;
using testing::AllOf;
using testing::HasSubstr;

constexpr char kRegistrations[] = "/var/lib/nimotifyd/queues.d";
constexpr char kSocket[] = "/var/run/nimotifyd.sock";

ProcessResult Monitor(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {BuiltProgram("fileindexctl"), "monitor"});
  return RunProcess(arguments);
}

// The texts of all registrations, one after the other.
std::string Registrations() {
  std::string text;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(kRegistrations, ignored)) {
    text += ReadFile(entry.path()) + "\n";
  }
  return text;
}

bool WaitFor(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    usleep(10'000);
  }
  return true;
}

class MonitorCommand : public testing::Test {
 protected:
  static void SetUpTestSuite() { orbisk::test::EnterPrivateMounts({"/var/lib/nimotifyd", "/var/run/nimotifyd-test"}); }

  void SetUp() override {
    std::filesystem::remove_all(kRegistrations);
    std::filesystem::create_directory(folder_);
    orbisk::test::MountEmptyFileSystem(folder_, 1 << 20);
  }
  void TearDown() override { EXPECT_EQ(RunProcess({"umount", folder_}).exit_status, 0); }

  TempDir dir_;
  std::string folder_ = dir_ / "folder";
  std::string queue_ = dir_ / "queue";
};

TEST_F(MonitorCommand, RegisterWritesFolderQueueMaskAndIgnoredNames) {
  const ProcessResult result = Monitor({"register", queue_, folder_ + "/", "--ignore", "@eaDir", "--ignore", "[a,b]"});

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.output + result.errors, "");
  EXPECT_THAT(Registrations(),
              AllOf(HasSubstr("\"queue\":\"" + queue_ + "\""), HasSubstr("\"path\":\"" + folder_ + "\""),
                    HasSubstr("\"mask\":65478"), HasSubstr(R"("ignore":["@eaDir","[a,b]"])")));
}

TEST_F(MonitorCommand, RegisterReplacesWhatWasRegisteredForTheQueue) {
  Monitor({"register", queue_, folder_, "--ignore", "first"});

  Monitor({"register", queue_, folder_, "--ignore", "second"});

  EXPECT_THAT(Registrations(), AllOf(HasSubstr("second"), testing::Not(HasSubstr("first"))));
}

TEST_F(MonitorCommand, UnregisterRemovesTheRegistrationAndKeepsTheQueue) {
  Monitor({"register", queue_, folder_});
  WriteFile(queue_, "kept");

  const ProcessResult result = Monitor({"unregister", queue_});

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(Registrations(), "");
  EXPECT_EQ(ReadFile(queue_), "kept");
}

TEST_F(MonitorCommand, UnregisterWithoutARegistrationSucceeds) {
  EXPECT_EQ(Monitor({"unregister", queue_}).exit_status, 0);
}

TEST_F(MonitorCommand, ApplicationsDoNotMeet) {
  Monitor({"register", queue_, folder_, "--app", "first"});

  Monitor({"unregister", queue_, "--app", "second"});

  EXPECT_NE(Registrations(), "");
}

TEST_F(MonitorCommand, AFolderThatIsMissingIsOneLineAndStatusOne) {
  const ProcessResult result = Monitor({"register", queue_, folder_ + "/missing"});

  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.errors, "fileindexctl: not a folder: " + folder_ + "/missing\n");
  EXPECT_EQ(Registrations(), "");
}

TEST_F(MonitorCommand, WrongUsageIsStatusTwo) {
  EXPECT_EQ(Monitor({}).exit_status, 2);
  EXPECT_EQ(Monitor({"register", queue_}).exit_status, 2);
  EXPECT_EQ(Monitor({"unregister"}).exit_status, 2);
  EXPECT_EQ(Monitor({"register", queue_, folder_, "--app", ""}).exit_status, 1);
}

TEST_F(MonitorCommand, ARunningMonitorRecordsChangesFromTheInstantThatRegisterReturns) {
  Subprocess monitor({BuiltProgram("nimotifyd")});
  ASSERT_TRUE(WaitFor([] { return orbisk::test::SomebodyListensAt(kSocket); }));
  ASSERT_EQ(Monitor({"register", queue_, folder_}).exit_status, 0);

  WriteFile(folder_ + "/made", "text");

  const auto recorded = [&] {
    const ProcessResult events = RunProcess({BuiltProgram("fileindexctl"), "queue", "events", queue_});
    return events.output.find("  create  file  " + folder_ + "/made\n") != std::string::npos;
  };
  EXPECT_TRUE(WaitFor(recorded));
  monitor.Kill(SIGTERM);
  EXPECT_EQ(monitor.Wait(std::chrono::seconds(60)).exit_status, 0);
}

}  // namespace
