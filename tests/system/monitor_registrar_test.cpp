// Registration through the platform's library and the monitor together, at their fixed places.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <memory>

#include "nimo/monitor_queue.h"
#include "tests/support/local_socket.h"
#include "tests/support/private_mounts.h"
#include "tests/system/monitor_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using NIMO::NIMOTIFYD::MONITOR_QUEUE_TYPE_APPLICATION;
using NIMO::NIMOTIFYD::MonitorQueue;

constexpr char kSocket[] = "/var/run/nimotifyd.sock";

class MonitorRegistrarTest : public testing::TestWithParam<const char*> {
 protected:
  static void SetUpTestSuite() { EnterPrivateMounts({"/run"}); }
  void SetUp() override {
    box_ = std::make_unique<MonitorBox>();
    fs::remove_all("/var/lib/nimotifyd/queues.d");
  }
  ~MonitorRegistrarTest() override { StopMonitor(); }

  void StartMonitor() {
    monitor_ =
        std::make_unique<Subprocess>(std::vector<std::string>{BuiltProgram("nimotifyd"), "--backend", GetParam()});
    ASSERT_TRUE(Eventually([] { return SomebodyListensAt(kSocket); }));
  }
  void StopMonitor() {
    if (monitor_ != nullptr) {
      monitor_->Kill(SIGTERM);
      EXPECT_EQ(monitor_->Wait(std::chrono::seconds(20)).exit_status, 0);
      monitor_.reset();
    }
  }
  bool Upsert() const {
    Json::Value description;
    description["queue"] = box_->queue();
    description["config"][0]["path"] = box_->share();
    description["config"][0]["mask"] = kAllBits;
    return MonitorQueue::Upsert(MonitorQueue(description), "fileindex", MONITOR_QUEUE_TYPE_APPLICATION);
  }
  bool ReportedSoon(const std::string& name) const {
    return Eventually([&] { return Holds(box_->Lines(), {kCreateLine, false, box_->share() + "/" + name, ""}); });
  }

  std::unique_ptr<MonitorBox> box_;
  std::unique_ptr<Subprocess> monitor_;
};

TEST_P(MonitorRegistrarTest, RegisteredFolderIsWatchedFromTheReturnOnAndStillAfterARestart) {
  StartMonitor();
  ASSERT_TRUE(Upsert());
  WriteFile(box_->share() + "/first", "x");
  EXPECT_TRUE(ReportedSoon("first"));

  StopMonitor();
  const auto crashed = CountOf(box_->Lines(), kCrashedLine);  // one, if the registration met the first start
  StartMonitor();
  ASSERT_TRUE(Eventually([&] { return CountOf(box_->Lines(), kCrashedLine) == crashed + 1; }));  // its watches stand
  WriteFile(box_->share() + "/second", "x");

  EXPECT_TRUE(ReportedSoon("second"));
}

TEST_P(MonitorRegistrarTest, FolderRegisteredWhileNoMonitorRunsIsWatchedByTheNext) {
  ASSERT_TRUE(Upsert());

  StartMonitor();
  ASSERT_TRUE(Eventually([&] { return CountOf(box_->Lines(), kCrashedLine) == 1; }));
  WriteFile(box_->share() + "/f", "x");

  EXPECT_TRUE(ReportedSoon("f"));
}

TEST_P(MonitorRegistrarTest, FolderTakenBackIsNotWatchedAnyMoreNorAfterARestart) {
  StartMonitor();
  ASSERT_TRUE(Upsert());
  ASSERT_TRUE(MonitorQueue::Delete(box_->queue(), "fileindex", MONITOR_QUEUE_TYPE_APPLICATION));
  fs::remove_all(fs::path(box_->queue()).parent_path());
  WriteFile(box_->share() + "/f", "x");

  StopMonitor();
  StartMonitor();
  StopMonitor();

  EXPECT_FALSE(fs::exists(box_->queue()));
}

INSTANTIATE_TEST_SUITE_P(Backends, MonitorRegistrarTest, testing::Values("fanotify", "inotify"),
                         [](const auto& test_info) { return std::string(test_info.param); });

}  // namespace
}  // namespace orbisk::test
