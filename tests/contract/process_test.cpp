// What nimo/process.h promises. Run against real boxes only: the fake starts nothing.
#include "nimo/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "nimo/error.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

constexpr unsigned kFlags = 187;
constexpr char kShell[] = "/bin/sh";

int RunShell(const std::string& script) {
  return NLIBCExecl(kShell, kFlags, "-c", script.c_str(), nullptr);
}

TEST(Execl, WaitsAndGivesTheExitStatus) {
  const TempDir dir;
  EXPECT_EQ(0, RunShell("sleep 0.1; touch " + dir.path() + "/done"));
  EXPECT_EQ(0, access((dir / "done").c_str(), F_OK));
  EXPECT_EQ(1, RunShell("exit 1"));
  EXPECT_EQ(255, RunShell("exit 255"));
}

TEST(Execl, GivesASignalAs128AndItsNumber) {
  EXPECT_EQ(128 + SIGKILL, RunShell("kill -KILL $$"));
  EXPECT_EQ(128 + SIGTERM, RunShell("kill -TERM $$"));
}

TEST(Execl, PassesTheArgumentsAsTheyAreAfterTheProgramsName) {
  const TempDir dir;
  const std::string script = "printf '%s\\n' \"$0\" \"$@\" > " + (dir / "arguments");
  EXPECT_EQ(0, NLIBCExecl(kShell, kFlags, "-c", script.c_str(), "name", "a b", "", "$HOME", "\xff\n", nullptr));
  EXPECT_EQ("name\na b\n\n$HOME\n\xff\n\n", ReadFile(dir / "arguments"));
  EXPECT_EQ(
      0, NLIBCExecl(
             kShell, kFlags, "-c",
             ("read line < /proc/$$/cmdline; tr '\\0' ' ' < /proc/$$/cmdline | cut -c1-7 > " + (dir / "name")).c_str(),
             nullptr));
  EXPECT_EQ("/bin/sh\n", ReadFile(dir / "name"));
}

TEST(Execl, ClosesTheStandardStreamsOffAndLeavesNoDescriptorOpen) {
  const TempDir dir;
  WriteFile(dir / "held", "");
  const int held = open((dir / "held").c_str(), O_RDONLY);  // not close-on-exec, as a careless caller's
  ASSERT_LE(0, held);
  EXPECT_EQ(0, RunShell("for fd in /proc/$$/fd/*; do readlink $fd; done | sort -u > " + (dir / "descriptors")));
  close(held);
  const std::string descriptors = ReadFile(dir / "descriptors");
  EXPECT_NE(std::string::npos, descriptors.find("/dev/null")) << descriptors;
  EXPECT_EQ(std::string::npos, descriptors.find("held")) << descriptors;
}

TEST(Execl, ResetsSignalsThatTheCallerBlocksOrIgnores) {
  signal(SIGTERM, SIG_IGN);
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  EXPECT_EQ(128 + SIGTERM, RunShell("kill -TERM $$; sleep 5"));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  signal(SIGTERM, SIG_DFL);
}

TEST(Execl, OfAProgramThatCannotBeRunIsAFailure) {
  const TempDir dir;
  WriteFile(dir / "plain", "text");
  EXPECT_GT(0, NLIBCExecl("/no/such/program", kFlags, nullptr));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
  EXPECT_GT(0, NLIBCExecl((dir / "plain").c_str(), kFlags, nullptr));
  EXPECT_EQ(EACCES, NLIBCErrGet());
  EXPECT_GT(0, NLIBCExecl("sh", kFlags, "-c", "exit 0", nullptr)) << "not searched in PATH";
  EXPECT_GT(0, NLIBCExecl(nullptr, kFlags, nullptr));
  EXPECT_GT(0, NLIBCExecl(kShell, 0, "-c", "exit 0", nullptr)) << "no way of starting that it knows";
}

TEST(Execl, KeepsWaitingWhenASignalComes) {
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, &before);  // without SA_RESTART
  std::atomic<bool> stop = false;
  const pthread_t waiting = pthread_self();
  std::thread sender([&] {
    while (!stop) {
      pthread_kill(waiting, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  EXPECT_EQ(9, RunShell("sleep 0.2; exit 9"));
  stop = true;
  sender.join();
  sigaction(SIGUSR1, &before, nullptr);
}

TEST(Exec, RunsAProgramWithoutAShellAndGivesItsStatus) {
  const TempDir dir;
  WriteFile(dir / "$HOME *", "");
  EXPECT_EQ(0, NLIBCExec("/bin/rm", "-rf", (dir / "$HOME *").c_str(), (dir / "missing").c_str(), nullptr));
  EXPECT_NE(0, access((dir / "$HOME *").c_str(), F_OK));
  EXPECT_EQ(3, NLIBCExec(kShell, "-c", "exit 3", nullptr));
  EXPECT_EQ(128 + SIGKILL, NLIBCExec(kShell, "-c", "kill -KILL $$", nullptr));
}

TEST(Exec, OfAProgramThatCannotBeRunIsAFailure) {
  EXPECT_GT(0, NLIBCExec("/no/such/program", nullptr));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
  EXPECT_GT(0, NLIBCExec("rm", "-rf", "/no/such/file", nullptr)) << "not searched in PATH";
}

TEST(Exec, ClosesTheStandardStreamsOff) {
  const TempDir dir;
  EXPECT_EQ(0, NLIBCExec(kShell, "-c", ("readlink /proc/$$/fd/1 > " + (dir / "output")).c_str(), nullptr));
  EXPECT_EQ((dir / "output") + "\n", ReadFile(dir / "output"));
  EXPECT_EQ(0,
            NLIBCExec(kShell, "-c", ("readlink /proc/$$/fd/0 /proc/$$/fd/2 > " + (dir / "others")).c_str(), nullptr));
  EXPECT_EQ("/dev/null\n/dev/null\n", ReadFile(dir / "others"));
}

}  // namespace
}  // namespace orbisk::test
