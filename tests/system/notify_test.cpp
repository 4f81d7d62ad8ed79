// nimonxmnotify as the library runs it, with a system log and desktop sessions of the test's own.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "nimo/process.h"
#include "tests/support/private_mounts.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

// A socket that takes datagrams or stands for a session bus.
int Listen(const std::string& path, int type) {
  const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address))) << strerror(errno);
  return fd;
}

// The datagrams that wait in the system log's socket.
std::vector<std::string> TakeRecords(int log) {
  std::vector<std::string> records;
  pollfd waiting{log, POLLIN, 0};
  while (poll(&waiting, 1, 0) == 1) {
    char buffer[4096];
    const ssize_t size = recv(log, buffer, sizeof(buffer), 0);
    std::string record(buffer, static_cast<size_t>(size));
    records.push_back(record.substr(std::min(record.find("event="), record.size())));
  }
  return records;
}

class Notify : public testing::Test {
 protected:
  void SetUp() override {
    program_ = BuiltProgram("nimonxmnotify");
    fs::create_directories(dir_ / "sessions/0");
    bus_ = Listen(dir_ / "sessions/0/bus", SOCK_STREAM);
    WriteFile(dir_ / "notify-send",
              "#!/bin/sh\nprintf '%s|' \"$DBUS_SESSION_BUS_ADDRESS\" \"$@\" >> " + (dir_ / "shown") + "\n");
    chmod((dir_ / "notify-send").c_str(), 0755);
  }
  void TearDown() override { close(bus_); }

  std::vector<std::string> WithDoubles(std::vector<std::string> words) const {
    words.insert(words.begin(), {program_, "--sessions", dir_ / "sessions", "--notify-program", dir_ / "notify-send"});
    return words;
  }

  std::string Shown() const { return fs::exists(dir_ / "shown") ? ReadFile(dir_ / "shown") : "nothing"; }

  TempDir dir_;
  std::string program_;
  int bus_ = -1;
};

constexpr char kNoSpace[] =
    "There is no space left for the file index, so new and changed files will not be found. Free some space, or index "
    "fewer folders in the preferences.";

TEST_F(Notify, ShowsTheTextsOnAnAdministratorsDesktop) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "the session is root's";
  }
  const ProcessResult result = RunProcess(
      WithDoubles({"-c", "NIMO.Scoutly.Application", "-b", "true", "-e", "false", "@administrators", "app:displayname",
                   "error:index_no_space", "<a data-nimo-app=\"NIMO.Scoutly.Application\">", "</a>"}));
  EXPECT_EQ(0, result.exit_status) << result.errors;
  EXPECT_EQ("", result.output + result.errors);
  EXPECT_EQ("unix:path=" + (dir_ / "sessions/0/bus") + "|--app-name=fileindex|--icon=dialog-warning|--|File index|" +
                kNoSpace + "|",
            Shown());
}

TEST_F(Notify, ShowsNothingWhenDesktopsAreNotWantedOrNobodyIsAddressed) {
  EXPECT_EQ(0, RunProcess(WithDoubles({"-c", "A", "-b", "false", "@administrators", "t", "m"})).exit_status);
  EXPECT_EQ(0, RunProcess(WithDoubles({"-c", "A", "@no such group", "t", "m"})).exit_status);
  EXPECT_EQ(0, RunProcess(WithDoubles({"-c", "A", "somebody", "t", "m"})).exit_status);
  EXPECT_EQ("nothing", Shown());
}

TEST_F(Notify, FindsAnAccountAndAGroup) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "the session is root's";
  }
  EXPECT_EQ(0, RunProcess(WithDoubles({"-c", "A", "root", "title", "1"})).exit_status);
  EXPECT_EQ(0, RunProcess(WithDoubles({"-c", "A", "@root", "title", "<2>"})).exit_status);
  EXPECT_NE(std::string::npos, Shown().find("|title|1|"));
  EXPECT_NE(std::string::npos, Shown().find("|title|&lt;2&gt;|"));
}

TEST_F(Notify, SucceedsWhereThereIsNoDesktop) {
  EXPECT_EQ(0, RunProcess({program_, "--sessions", dir_ / "missing", "-c", "A", "root", "t", "m"}).exit_status);
  EXPECT_EQ(0, RunProcess({program_, "--sessions", dir_ / "sessions", "--notify-program", dir_ / "missing", "-c", "A",
                           "root", "t", "m"})
                   .exit_status);
  fs::create_directories(dir_ / "sessions/nobody");
  fs::create_directories(dir_ / "sessions/1");
  fs::remove(dir_ / "sessions/0/bus");
  WriteFile(dir_ / "sessions/0/bus", "no socket");
  EXPECT_EQ(0, RunProcess(WithDoubles({"-c", "A", "root", "t", "m"})).exit_status);
  EXPECT_EQ("nothing", Shown());
}

TEST_F(Notify, DoesNotWaitForADesktopThatHangs) {
  WriteFile(dir_ / "notify-send", "#!/bin/sh\nexec sleep 1000\n");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(0, RunProcess(WithDoubles({"-c", "A", "root", "t", "m"})).exit_status);
  EXPECT_GT(std::chrono::seconds(60), std::chrono::steady_clock::now() - begin);
}

TEST_F(Notify, ExplainsItselfAndRefusesAWrongCommandLine) {
  const ProcessResult help = RunProcess({program_, "--help"});
  EXPECT_EQ(0, help.exit_status);
  EXPECT_EQ(0U, help.output.find("usage: nimonxmnotify "));
  const ProcessResult version = RunProcess({program_, "--version"});
  EXPECT_EQ(0, version.exit_status);
  EXPECT_EQ(0U, version.output.find("nimonxmnotify 0."));
  const ProcessResult wrong = RunProcess({program_, "-c", "A", "root"});
  EXPECT_EQ(2, wrong.exit_status);
  EXPECT_EQ("nimonxmnotify: recipients, title and message are needed (see --help)\n", wrong.errors);
  EXPECT_EQ("", wrong.output);
}

// The last test of the program: what it covers stays covered.
TEST_F(Notify, ZWritesOneLineToTheSystemLogHoweverItIsRun) {
  try {
    EnterPrivateMounts({});
    MountEmptyFileSystem("/dev", 1024UL * 1024);
  } catch (const NotAllowed& error) {
    GTEST_SKIP() << error.what();
  }
  WriteFile("/dev/null", "");
  const int log = Listen("/dev/log", SOCK_DGRAM);
  EXPECT_EQ(0, NLIBCExecl(program_.c_str(), 187, "-c", "NIMO.Scoutly.Application", "-b", "false", "@administrators",
                          "app:displayname", "error:index_no_space", "", "", nullptr));
  EXPECT_EQ(0, NLIBCExecl(program_.c_str(), 187, "-c", "B", "-b", "false", "@x", "a\n\"key\"", "m", nullptr));
  EXPECT_EQ(2, NLIBCExecl(program_.c_str(), 187, "-c", "B", nullptr));
  EXPECT_EQ(
      (std::vector<std::string>{"event=notification app=\"NIMO.Scoutly.Application\" recipients=\"@administrators\" "
                                "key=\"error:index_no_space\" title=\"File index\" message=\"" +
                                    std::string(kNoSpace) + "\"",
                                R"(event=notification app="B" recipients="@x" key="m" title="a \"key\"" message="m")"}),
      TakeRecords(log));
  close(log);
}

}  // namespace
}  // namespace orbisk::test
