// nimotifyd as a program: arguments, exit statuses, signals, socket, records.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "tests/system/monitor_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

std::string Program() {
  return BuiltProgram("nimotifyd");
}

TEST(MonitorProgramTest, HelpNamesTheOptions) {
  const ProcessResult result = RunProcess({Program(), "--help"});

  EXPECT_EQ(result.exit_status, 0);
  for (const char* option : {"--backend", "--registrations", "--socket", "--log-level", "--memory-limit-mib"}) {
    EXPECT_NE(result.output.find(option), std::string::npos) << option;
  }
}

TEST(MonitorProgramTest, VersionIsOneLine) {
  const ProcessResult result = RunProcess({Program(), "--version"});

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.output.substr(0, 10), "nimotifyd ");
}

TEST(MonitorProgramTest, WrongUsageIsExitStatus2) {
  EXPECT_EQ(RunProcess({Program(), "--no-such-option"}).exit_status, 2);
  EXPECT_EQ(RunProcess({Program(), "--backend", "telepathy"}).exit_status, 2);
  EXPECT_EQ(RunProcess({Program(), "--log-level", "loud"}).exit_status, 2);
  EXPECT_EQ(RunProcess({Program(), "--gather-ms", "0"}).exit_status, 2);
}

TEST(MonitorProgramTest, SecondMonitorAtOneSocketIsExitStatus1) {
  MonitorBox box;
  box.Start();

  const ProcessResult second =
      RunProcess({Program(), "--registrations", box.root() + "/registrations", "--socket", box.root() + "/socket"});

  EXPECT_EQ(second.exit_status, 1);
  EXPECT_EQ(box.Ask("status").substr(0, 1), "{");
}

TEST(MonitorProgramTest, SocketLeftByAKilledMonitorIsTakenOver) {
  MonitorBox box;
  box.Register();
  box.Start();
  box.monitor().Kill(SIGKILL);
  box.monitor().Wait(std::chrono::seconds(10));

  box.Start();

  EXPECT_EQ(box.Ask("reload"), "ok");
}

TEST(MonitorProgramTest, SocketIsForRootAloneAndGoneAfterTheEnd) {
  MonitorBox box;
  box.Start();
  struct stat info {};
  ASSERT_EQ(stat((box.root() + "/socket").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U);

  EXPECT_EQ(box.Stop().exit_status, 0);
  EXPECT_FALSE(fs::exists(box.root() + "/socket"));
}

TEST(MonitorProgramTest, StartRecordSaysWhichInterfaceIsUsed) {
  for (const std::string backend : {"fanotify", "inotify"}) {
    MonitorBox box;
    box.Register();
    box.Start({"--backend", backend});
    EXPECT_NE(box.Stop().errors.find("event=started queues=1 folders=1 backend=" + backend), std::string::npos);
  }
}

TEST(MonitorProgramTest, LogLevelSelectsTheRecords) {
  MonitorBox box;
  box.Register();
  box.Start({"--log-level", "error"});
  EXPECT_EQ(box.Stop().errors, "");
}

TEST(MonitorProgramTest, InterruptStopsItToo) {
  MonitorBox box;
  box.Start();
  box.monitor().Kill(SIGINT);
  EXPECT_EQ(box.monitor().Wait(std::chrono::seconds(20)).exit_status, 0);
}

TEST(MonitorProgramTest, UnknownRequestIsAnsweredAndALongOneIsNot) {
  MonitorBox box;
  box.Start();
  EXPECT_EQ(box.Ask("make coffee"), "unknown");
  EXPECT_EQ(box.Ask(std::string(100'000, 'x')), "");
  EXPECT_EQ(box.Ask("reload"), "ok");
}

TEST(MonitorProgramTest, RegistrationAddedLaterIsWatchedWhenReloadIsAnswered) {
  MonitorBox box;
  box.Start();
  box.Register();

  ASSERT_EQ(box.Ask("reload"), "ok");
  WriteFile(box.share() + "/f", "x");

  const QueueLine line{kModifyLine, false, box.share() + "/f", ""};
  EXPECT_TRUE(Eventually([&] { return Holds(box.Lines(), line); }));
  // Who registers while the monitor runs says himself what is to be indexed anew.
  EXPECT_EQ(CountOf(box.Lines(), kCrashedLine), 0);
}

TEST(MonitorProgramTest, HangupReadsTheRegistrationsAgain) {
  MonitorBox box;
  box.Start();
  box.Register();

  box.monitor().Kill(SIGHUP);
  ASSERT_TRUE(Eventually([&] { return box.Ask("status").find(box.share()) != std::string::npos; }));
  WriteFile(box.share() + "/f", "x");

  EXPECT_TRUE(Eventually([&] { return !box.Lines().empty(); }));
}

TEST(MonitorProgramTest, RemovedRegistrationIsNotWrittenToAnyMore) {
  MonitorBox box;
  box.Register();
  const std::string other = box.root() + "/vol/other.queue";
  box.Register(other, {box.share()});
  box.Start();
  box.Unregister(other);
  ASSERT_EQ(box.Ask("reload"), "ok");
  fs::remove(other);

  WriteFile(box.share() + "/f", "x");
  box.Settle();

  EXPECT_FALSE(fs::exists(other));
}

TEST(MonitorProgramTest, ChangedRegistrationReplacesTheOldOneWhole) {
  MonitorBox box;
  fs::create_directory(box.share() + "/a");
  fs::create_directory(box.share() + "/b");
  box.Register(box.queue(), {box.share() + "/a"});
  box.Start();
  box.Register(box.queue(), {box.share() + "/b"});
  ASSERT_EQ(box.Ask("reload"), "ok");

  WriteFile(box.share() + "/a/f", "x");
  WriteFile(box.share() + "/b/f", "x");

  ASSERT_TRUE(Eventually([&] { return Holds(box.Lines(), {kModifyLine, false, box.share() + "/b/f", ""}); }));
  EXPECT_FALSE(Holds(box.Lines(), {kModifyLine, false, box.share() + "/a/f", ""}));
}

TEST(MonitorProgramTest, ReloadWithoutAChangeWritesNothing) {
  MonitorBox box;
  box.Register();
  box.Start();
  const std::vector<QueueLine> before = box.Lines();

  EXPECT_EQ(box.Ask("reload"), "ok");

  EXPECT_EQ(box.Lines(), before);
}

TEST(MonitorProgramTest, MalformedRegistrationIsLeftOutWithARecord) {
  MonitorBox box;
  box.Register();
  WriteFile(box.root() + "/registrations/bad.json", "{\"queue\":");
  WriteFile(box.root() + "/registrations/half.json.Xa3dF2", "{");
  box.Start();

  WriteFile(box.share() + "/f", "x");

  EXPECT_TRUE(Eventually([&] { return Holds(box.Lines(), {kModifyLine, false, box.share() + "/f", ""}); }));
  const std::string errors = box.Stop().errors;
  EXPECT_NE(errors.find("event=registration_malformed file=" + box.root() + "/registrations/bad.json"),
            std::string::npos);
  EXPECT_EQ(errors.find("half.json"), std::string::npos);
}

}  // namespace
}  // namespace orbisk::test
