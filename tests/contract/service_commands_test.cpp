// How stock Linux answers nimo/service.h and nimo/smb.h: which commands of the system are run with which arguments.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "nimo/error.h"
#include "nimo/service.h"
#include "nimo/smb.h"
#include "tests/contract/private_commands.h"
#include "tests/contract/private_services.h"
#include "tests/support/eventually.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class ServiceCommands : public testing::Test {
 protected:
  void SetUp() override {
    if (!MakePrivateCommands() || !MakePrivateServices()) {
      GTEST_SKIP() << "private mounts are not allowed here";
    }
  }

  static void AddSystemd(const std::string& body = "exit 0") {
    fs::create_directories("/run/systemd/system");
    AddCommand("systemctl", body);
  }
};

TEST_F(ServiceCommands, WhereSystemdRunsItIsAskedForUnits) {
  AddSystemd();

  EXPECT_EQ(0, NLIBServiceStart("nimocontentextractd", TRUE));
  EXPECT_EQ(0, NLIBServiceStop("nimocontentextractd", FALSE));
  EXPECT_EQ(0, NLIBServiceRestart("samba"));
  EXPECT_EQ(0, NLIBServicectlStart("pkg-Orbisk-fileindexd", NLIB_SERVICECTL_UPSTART));
  EXPECT_EQ(0, NLIBServicectlStop("pkg-Orbisk-fileindexd", NLIB_SERVICECTL_UPSTART));

  EXPECT_EQ(
      "systemctl --quiet --no-ask-password start nimocontentextractd.service\n"
      "systemctl --quiet --no-ask-password stop nimocontentextractd.service\n"
      "systemctl --quiet --no-ask-password restart smbd.service\n"
      "systemctl --quiet --no-ask-password start pkg-Orbisk-fileindexd.service\n"
      "systemctl --quiet --no-ask-password stop pkg-Orbisk-fileindexd.service\n",
      CommandsRun());
}

TEST_F(ServiceCommands, SystemdIsNotWaitedForWithoutEnd) {
  AddSystemd();
  AddCommand("timeout", "exit 124");  // as if the time was up

  EXPECT_GT(0, NLIBServiceStart("nimocontentextractd", TRUE));
  EXPECT_EQ(EIO, NLIBCErrGet());

  EXPECT_EQ("timeout 10 /usr/local/bin/systemctl --quiet --no-ask-password start nimocontentextractd.service\n",
            CommandsRun());
}

TEST_F(ServiceCommands, WhatSystemdRefusesIsAFailure) {
  AddSystemd("exit 5");
  DescribeService("described", {"/bin/sleep", "1000"});

  EXPECT_GT(0, NLIBServiceStart("described", TRUE));
  EXPECT_EQ(EIO, NLIBCErrGet());
  EXPECT_FALSE(IsDescribedServiceRunning("described")) << "systemd alone is asked";
}

TEST_F(ServiceCommands, ADescribedServiceIsStartedWithItsArgumentsAndACleanEnvironment) {
  const TempDir dir;
  // It waits without a child of its own, which would outlive it.
  const std::string script = "tr '\\0' '\\n' < /proc/$$/environ > " + (dir / "environment") +
                             "; readlink /proc/$$/cwd >> " + (dir / "environment") + "; echo \"$0\" \"$1\" > " +
                             (dir / "arguments") + "; mkfifo " + (dir / "fifo") + "; read line < " + (dir / "fifo");
  DescribeService("described", {"/bin/sh", "-c", script, "a b", "$HOME"});
  setenv("SECRET", "told", 1);

  ASSERT_EQ(0, NLIBServiceStart("described", TRUE));
  for (int i = 0; i < 500 && !fs::exists(dir / "fifo"); ++i) {
    usleep(10'000);
  }

  EXPECT_EQ("a b $HOME\n", ReadFile(dir / "arguments"));
  const std::string environment = ReadFile(dir / "environment");
  EXPECT_EQ(std::string::npos, environment.find("SECRET")) << environment;
  EXPECT_NE(std::string::npos, environment.find("PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n"))
      << environment;
  EXPECT_NE(std::string::npos, environment.find("\n/\n")) << environment;
  EXPECT_EQ(0, NLIBServiceStop("described", FALSE));
}

TEST_F(ServiceCommands, AnotherProcessWithALeftOverNumberIsLeftAlone) {
  DescribeService("described", {"/bin/sleep", "1000"});
  fs::create_directories("/run/nimo");
  WriteFile("/run/nimo/described.pid", std::to_string(getpid()) + "\n");  // this test, which is not sleep

  EXPECT_EQ(0, NLIBServiceStop("described", FALSE));
  WriteFile("/run/nimo/described.pid", std::to_string(getpid()) + "\n");
  EXPECT_EQ(0, NLIBServiceStart("described", TRUE));

  EXPECT_NE(getpid(), ServiceProcess("described"));
  EXPECT_TRUE(IsDescribedServiceRunning("described"));
}

TEST_F(ServiceCommands, TheNextTestEndsServicesAndNobodyWhoseNumberIsLeftOver) {
  Subprocess other({"cat"});
  DescribeService("described", {"/bin/sleep", "1000"});
  DescribeService("own", {"/bin/sleep", "1000"});
  DescribeService("other", {"/bin/sleep", "1000"});
  ASSERT_EQ(0, NLIBServiceStart("described", TRUE));
  const int process = ServiceProcess("described");
  WriteFile("/run/nimo/own.pid", std::to_string(getpid()) + "\n");
  WriteFile("/run/nimo/other.pid", std::to_string(other.pid()) + "\n");

  ASSERT_TRUE(MakePrivateServices());

  EXPECT_TRUE(Eventually([&] { return !DoesProcessLive(process); }));
  EXPECT_TRUE(DoesProcessLive(other.pid()));
}

TEST_F(ServiceCommands, AServiceThatTellsWhenItIsReadyIsWaitedFor) {
  // Starts without waiting: this service tells nothing.
  AddCommand("start-stop-daemon",
             "for a; do shift; case $a in --notify*|10) ;; *) set -- \"$@\" \"$a\";; esac; done\n"
             "exec /sbin/start-stop-daemon \"$@\"");
  DescribeService("plain", {"/bin/sleep", "1000"});
  DescribeService("telling", {"/bin/sleep", "1000"}, true);

  EXPECT_EQ(0, NLIBServiceStart("plain", TRUE));
  EXPECT_EQ(0, NLIBServiceStart("telling", TRUE));

  const std::string common =
      "start-stop-daemon --start --quiet --oknodo --background --make-pidfile --pidfile /run/nimo/";
  EXPECT_EQ(common + "plain.pid --exec /bin/sleep -- 1000\n" + common +
                "telling.pid --exec /bin/sleep --notify-await --notify-timeout 10 -- 1000\n",
            CommandsRun());
}

TEST_F(ServiceCommands, ADescriptionThatIsNoneIsAFailure) {
  for (const char* const text : {"", "{", "[]", "{}", R"({"command":[]})", R"({"command":"/bin/sleep"})",
                                 R"({"command":["sleep"]})", R"({"command":["/bin/sleep",1]})"}) {
    WriteFile("/etc/nimo/services.d/bad.json", text);
    EXPECT_GT(0, NLIBServiceStart("bad", TRUE)) << text;
    EXPECT_EQ(EINVAL, NLIBCErrGet()) << text;
  }
}

TEST_F(ServiceCommands, AStoppedServiceIsGoneAndNotJustForgotten) {
  for (int i = 0; i < 20; ++i) {
    DescribeService("described", {"/bin/sleep", "1000"});
    ASSERT_EQ(0, NLIBServiceStart("described", TRUE));
    const int process = ServiceProcess("described");
    ASSERT_EQ(0, NLIBServiceStop("described", FALSE));
    EXPECT_FALSE(DoesProcessLive(process));
  }
}

TEST_F(ServiceCommands, AServiceWhoseProgramWasReplacedRunsAlreadyAndIsRestartedWithTheNewOne) {
  const TempDir dir;
  const std::string program = dir / "program";
  const auto replace_program = [&] {
    fs::copy_file("/bin/sleep", dir / "new");
    fs::rename(dir / "new", program);
  };
  replace_program();
  DescribeService("described", {program, "1000"});
  ASSERT_EQ(0, NLIBServiceStart("described", TRUE));
  const int process = ServiceProcess("described");
  replace_program();

  EXPECT_EQ(0, NLIBServiceStart("described", TRUE));
  EXPECT_EQ(process, ServiceProcess("described"));

  EXPECT_EQ(0, NLIBServiceRestart("described"));
  EXPECT_FALSE(DoesProcessLive(process));
  EXPECT_EQ(program, fs::read_symlink("/proc/" + std::to_string(ServiceProcess("described")) + "/exe"));
}

TEST_F(ServiceCommands, AScriptIsNoProgramAndIsNotRun) {
  const TempDir dir;
  AddScript(dir / "script", "exec sleep 1000");
  DescribeService("described", {dir / "script"});

  EXPECT_GT(0, NLIBServiceStart("described", TRUE));

  EXPECT_EQ(ENOEXEC, NLIBCErrGet());
  EXPECT_EQ(0, ServiceProcess("described"));
}

TEST_F(ServiceCommands, AProgramThatDiesAtOnceIsAFailure) {
  AddCommand("start-stop-daemon", "sh -c 'echo $$' > /run/nimo/dying.pid");
  DescribeService("dying", {"/bin/sleep", "1000"});

  EXPECT_GT(0, NLIBServiceStart("dying", TRUE));
  EXPECT_EQ(ESRCH, NLIBCErrGet());
}

TEST_F(ServiceCommands, AProgramThatIsMissingIsAFailure) {
  DescribeService("missing", {"/no/such/program"});

  EXPECT_GT(0, NLIBServiceStart("missing", TRUE));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
}

TEST_F(ServiceCommands, AServiceWithoutDescriptionMayHaveAnInitScript) {
  fs::create_directories("/etc/init.d");
  AddScript("/etc/init.d/smbd", "exit 0");
  AddScript("/etc/init.d/broken", "exit 1");

  EXPECT_EQ(0, NLIBServiceRestart("samba"));
  EXPECT_GT(0, NLIBServiceStart("broken", TRUE));

  EXPECT_EQ("smbd restart\nbroken start\n", CommandsRun());
}

using Samba = ServiceCommands;

TEST_F(Samba, MissingMeansOffAndCannotBeSwitched) {
  EXPECT_EQ(0, NIMOSMBIsEnableSpotlight());
  EXPECT_GT(0, NIMOSMBSetSpotlight(1));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
}

TEST_F(Samba, IsReadAsItReadsItsConfiguration) {
  AddPrivateSamba();

  EXPECT_EQ(0, NIMOSMBIsEnableSpotlight());
  WriteFile(kSambaRegistry, "yes\n");
  EXPECT_EQ(1, NIMOSMBIsEnableSpotlight());
  EXPECT_EQ(0U, CommandsRun().find("testparm -s --section-name=global --parameter-name=spotlight\n"));
}

TEST_F(Samba, IsSetInItsRegistry) {
  AddPrivateSamba();

  EXPECT_EQ(0, NIMOSMBSetSpotlight(1));
  EXPECT_EQ("yes\n", SambaRegistry());
  EXPECT_EQ(0, NIMOSMBSetSpotlight(0));
  EXPECT_EQ("no\n", SambaRegistry());
}

TEST_F(Samba, WhoseRegistryDoesNotCountIsLeftAsItWas) {
  AddPrivateSamba("No");

  EXPECT_GT(0, NIMOSMBSetSpotlight(1));
  EXPECT_EQ(ENOTSUP, NLIBCErrGet());
  EXPECT_EQ("none", SambaRegistry());

  AddPrivateSamba("Yes");
  WriteFile(kSambaRegistry, "yes\n");
  EXPECT_GT(0, NIMOSMBSetSpotlight(0));
  EXPECT_EQ("yes\n", SambaRegistry());
}

TEST_F(Samba, WhoseConfigurationCannotBeReadIsOff) {
  AddCommand("testparm", "echo Yes; exit 1");

  EXPECT_EQ(0, NIMOSMBIsEnableSpotlight());
}

}  // namespace
}  // namespace orbisk::test
