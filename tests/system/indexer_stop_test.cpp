// What becomes of those who talk to the indexing daemon when it ends.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <optional>
#include <string>

#include "orbisk/error.h"
#include "orbisk/fileindex/communication.h"
#include "tests/system/indexer_box.h"
#include "tests/system/silent_extractor.h"

namespace orbisk::test {
namespace {

// A caller waits 5 s for a daemon that is not there; one that is never answered, for ever.
constexpr std::chrono::seconds kLimit{15};

// A management call in a process of its own, as it cannot be interrupted.
class Caller {
 public:
  Caller(const std::string& type, const Json::Value& data) : pid_(fork()) {
    if (pid_ == 0) {
      try {
        fileindex::SendCommandToDaemon(type, data);
        _exit(0);
      } catch (const Error&) {
        _exit(1);
      }
    }
  }
  ~Caller() {
    if (!reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  bool HasEnded() { return reaped_ = reaped_ || waitpid(pid_, &status_, WNOHANG) == pid_; }
  int exit_status() const { return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1; }

 private:
  pid_t pid_;
  bool reaped_ = false;
  int status_ = 0;
};

class IndexerStop : public IndexerBox {
 protected:
  // The worker waits for what the extractor makes of a file.
  void StartWithABusyWorker() {
    StopExtractor();
    extractor_.emplace();
    WriteFile(Docs("a.txt"), "kingfisher");
    StartIndexer();
    ASSERT_TRUE(extractor_->OneMoreComes(std::chrono::seconds(30)));
  }
  void TearDown() override {
    extractor_.reset();
    IndexerBox::TearDown();
  }

  std::optional<SilentExtractor> extractor_;
};

TEST_F(IndexerStop, WhoWaitsForTheEndOfAWorkerIsAnsweredWhenTheDaemonEnds) {
  StartWithABusyWorker();
  Caller caller("worker_delete", About("docs"));
  ASSERT_TRUE(Eventually([] { return Command("status")["data"]["shares"].size() == 2; }));
  ASSERT_FALSE(caller.HasEnded());

  EXPECT_EQ(StopIndexer(), 0);

  EXPECT_TRUE(Eventually([&caller] { return caller.HasEnded(); }, kLimit));
  EXPECT_EQ(caller.exit_status(), 0);
}

TEST_F(IndexerStop, WhoCallsWhileTheDaemonEndsIsAnsweredOrTurnedAway) {
  StartWithABusyWorker();
  Caller first("worker_delete", About("docs"));
  ASSERT_TRUE(Eventually([] { return Command("status")["data"]["shares"].size() == 2; }));
  indexer().Kill(SIGTERM);

  // Each takes its chance at another instant of the daemon's end.
  for (int i = 0; i < 60; ++i) {
    Caller caller("notify_setting_changed", Json::Value());
    if (access("/var/run/fileindexd.sock", F_OK) != 0) {
      break;
    }
    EXPECT_TRUE(Eventually([&caller] { return caller.HasEnded(); }, kLimit)) << i;
  }

  EXPECT_EQ(StopIndexer(), 0);
  EXPECT_TRUE(Eventually([&first] { return first.HasEnded(); }, kLimit));
}

}  // namespace
}  // namespace orbisk::test
