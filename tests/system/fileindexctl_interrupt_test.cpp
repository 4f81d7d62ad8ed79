// fileindexctl when somebody at a terminal has had enough of it, and what it says to those who wait.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>
#include <utility>

#include "tests/support/indexer_double.h"
#include "tests/support/subprocess.h"
#include "tests/system/search_box.h"
#include "tests/system/terminal.h"

namespace orbisk::test {
namespace {

constexpr int kInterrupted = 128 + SIGINT;
constexpr char kNotice[] =
    "fileindexctl: still waiting for the search daemon or for another change; what is done so far stays\r\n";

class InterruptedCommand : public RoomyBox {
 protected:
  void SetUp() override {
    RoomyBox::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
      return;
    }
    AddShare(OnRoomy("photo"));
    MakeFolder(OnRoomy("photo/2019"));
  }

  static bool IsIndexed(const std::string& path) {
    return Fileindexctl({"folder", "get", path}).exit_status == 0 &&
           Fileindexctl({"index", "list"}).output.find("fileindex_photo  open") != std::string::npos;
  }

 private:
  IndexerDouble indexer_;
};

TEST_F(InterruptedCommand, AtTheQuestionDestroysNothing) {
  ASSERT_TRUE(Succeeds(Fileindexctl({"folder", "add", "/photo"})));

  for (const auto& [keys, status] : {std::pair(Terminal::kInterrupt, kInterrupted), {Terminal::kEndOfInput, 1}}) {
    Terminal terminal("folder delete /photo");
    ASSERT_TRUE(terminal.Shows("[y/N] ")) << terminal.Screen();
    terminal.Type(keys);

    EXPECT_EQ(terminal.Wait().exit_status, status) << terminal.Screen();
    EXPECT_TRUE(IsIndexed("/photo"));
  }
}

TEST_F(InterruptedCommand, WhileItWaitsForTheSearchDaemonLeavesNothingInTheWay) {
  SignalSearchDaemon(SIGSTOP);
  Terminal terminal("folder add /photo");
  ASSERT_TRUE(terminal.Shows(kNotice)) << terminal.Screen();

  terminal.Type(Terminal::kInterrupt);

  EXPECT_EQ(terminal.Wait().exit_status, kInterrupted) << terminal.Screen();
  SignalSearchDaemon(SIGCONT);
  const ProcessResult again = Fileindexctl({"folder", "add", "/photo"});
  EXPECT_EQ(again.exit_status, 0) << again.errors;
  EXPECT_TRUE(IsIndexed("/photo"));
}

TEST_F(InterruptedCommand, WaitingIsToldOnceAndOnlyAtATerminal) {
  SignalSearchDaemon(SIGSTOP);
  Subprocess piped({BuiltProgram("fileindexctl"), "folder", "add", "/photo"});
  Terminal terminal("folder add /photo/2019");
  ASSERT_TRUE(terminal.Shows(kNotice)) << terminal.Screen();

  SignalSearchDaemon(SIGCONT);

  EXPECT_TRUE(Succeeds(piped.Wait(std::chrono::seconds(120))));
  EXPECT_EQ(terminal.Wait().exit_status, 0);
  EXPECT_EQ(terminal.Screen(), kNotice);
  EXPECT_TRUE(IsIndexed("/photo"));
  EXPECT_TRUE(IsIndexed("/photo/2019"));
}

}  // namespace
}  // namespace orbisk::test
