// The monitor's loop against a scripted kernel interface: what it does with reports that real kernels give rarely.
#include "services/monitor/monitor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "services/base/unique_fd.h"
#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"

namespace nimotifyd {

using service::UniqueFd;

namespace {

namespace fs = std::filesystem;
namespace asio = boost::asio;
using orbisk::test::ReadFile;
using orbisk::test::WriteFile;
using std::chrono::milliseconds;

// What the scripted interface answers, and what it was asked.
struct Script {
  UniqueFd readable{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  std::function<DrainReport()> drain = [] { return DrainReport(); };
  std::function<DrainReport()> on_deadline = [] { return DrainReport(); };
  std::function<void()> on_new_recorder = [] {};
  std::function<void(const std::vector<WayStep>&)> on_guard = [](const auto&) {};
  std::function<void(const std::vector<WayStep>&)> on_guard_also = [](const auto&) {};
  std::optional<Clock::time_point> deadline;
  std::vector<std::string> watched{};
  const Recorder* recorder = nullptr;
};

class ScriptedWatcher : public Watcher {
 public:
  ScriptedWatcher(Script& script, const Recorder& recorder) : script_(script) { script_.recorder = &recorder; }
  int descriptor() const override { return script_.readable.get(); }
  void SetRecorder(const Recorder& recorder) override {
    script_.recorder = &recorder;
    script_.on_new_recorder();
  }
  WatchOutcome Watch(const WatchPoint& point) override {
    script_.watched.push_back(point.path);
    return fs::is_directory(point.path) ? WatchOutcome::kWatched : WatchOutcome::kMissing;
  }
  void Unwatch(const std::string& /*path*/) override {}
  void Guard(const std::vector<WayStep>& steps) override { script_.on_guard(steps); }
  void GuardAlso(const std::vector<WayStep>& steps) override { script_.on_guard_also(steps); }
  DrainReport Drain(Clock::time_point /*now*/) override { return script_.drain(); }
  std::optional<Clock::time_point> deadline() override { return script_.deadline; }
  DrainReport OnDeadline(Clock::time_point /*now*/) override {
    script_.deadline.reset();
    return script_.on_deadline();
  }

 private:
  Script& script_;
};

class MonitorTest : public testing::Test {
 protected:
  MonitorTest() {
    fs::create_directories(folder_ / "share");
    fs::create_directories(folder_ / "registrations");
  }
  // Registers folders under `name` for a queue; the files are read in the order of their names.
  void Register(const std::string& name, const std::string& queue, const std::vector<std::string>& folders,
                uint32_t mask = 65478) {
    std::string text = R"({"app":"a","queue":")" + queue + R"(","config":[)";
    for (const std::string& folder : folders) {
      text += std::string(text.back() == '[' ? "" : ",") + R"({"path":")" + folder + R"(","mask":)" +
              std::to_string(mask) + "}";
    }
    WriteFile(folder_ / "registrations/" + name + ".json", text + "]}");
  }
  std::string share() const { return folder_ / "share"; }
  std::string queue() const { return folder_ / "queue"; }
  std::string Written() const { return fs::exists(queue()) ? ReadFile(queue()) : ""; }
  static std::string Crashed(const std::string& folder) {
    return R"({"event":512,"is_dir":true,"path":")" + folder + "\"}\n";
  }
  std::string Created(const std::string& name) const {
    return R"({"event":64,"is_dir":false,"path":")" + share() + "/" + name + "\"}\n";
  }
  void ReportCreate(const std::string& name) const {
    script_.recorder->Report({script_.recorder->MakeView(0, share())}, name, false, kCreate);
  }
  bool Start() { return monitor_.Start(); }
  // Runs the loop until `holds`; false if it does not within seconds.
  bool RunUntil(const std::function<bool()>& holds) {
    const auto end = Clock::now() + std::chrono::seconds(10);
    while (!holds() && Clock::now() < end) {
      context_.run_for(milliseconds(5));
      context_.restart();
    }
    return holds();
  }
  void RunFor(milliseconds time) {
    context_.run_for(time);
    context_.restart();
  }

  orbisk::test::RecordCapture records_;
  orbisk::test::TempDir folder_;
  Script script_;
  asio::io_context context_{1};
  Monitor monitor_{context_, OptionsIn(folder_), Makers()};

 private:
  static Options OptionsIn(const orbisk::test::TempDir& folder) {
    Options options;
    options.registrations = folder / "registrations";
    return options;
  }
  WatcherMakers Makers() {
    const auto make = [this](const Options& /*options*/, const Recorder& recorder) {
      return std::make_unique<ScriptedWatcher>(script_, recorder);
    };
    return {make, make};
  }
};

TEST_F(MonitorTest, CrashedLineOfTheStartIsWrittenOnceABlockedQueueIsFreeThoughNothingElseHappens) {
  Register("a", queue(), {share()});
  UniqueFd lock(open(queue().c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  int drains = 0;
  script_.drain = [&] { return ++drains, DrainReport(); };
  ASSERT_TRUE(Start());
  RunFor(milliseconds(20));
  ASSERT_EQ(Written(), "");
  const int drains_before = drains;

  lock.Close();

  EXPECT_TRUE(RunUntil([&] { return Written() == Crashed(share()); })) << Written();
  EXPECT_EQ(drains, drains_before);
}

TEST_F(MonitorTest, LinesOfAReloadAreWrittenOnceABlockedQueueIsFreeThoughNothingElseHappens) {
  Register("a", queue(), {share()});
  ASSERT_TRUE(Start());
  RunFor(milliseconds(20));
  UniqueFd lock(open(queue().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  script_.on_new_recorder = [this] { ReportCreate("f"); };
  Register("b", queue(), {folder_ / "missing"});

  monitor_.Reload();
  RunFor(milliseconds(20));
  ASSERT_EQ(Written(), Crashed(share()));
  lock.Close();

  EXPECT_TRUE(RunUntil([&] { return Written() == Crashed(share()) + Created("f"); })) << Written();
}

TEST_F(MonitorTest, CrashedLineOfTwoRegistrationsOfAQueueNamesTheFirstFolderIfEitherAsksForIt) {
  const std::string other = folder_ / "other";
  fs::create_directory(other);
  Register("a", queue(), {share()}, 65478 & ~kQueueCrashed);
  Register("b", queue(), {other}, 65478);
  Register("c", queue(), {other}, kCreate);

  ASSERT_TRUE(Start());

  EXPECT_EQ(Written(), Crashed(share()));
}

TEST_F(MonitorTest, QueueIsThereIfAnyOfItsRegistrationsHasAFolderThere) {
  const std::string deep = folder_ / "made/later/queue";
  Register("a", deep, {share()});
  Register("b", deep, {folder_ / "missing"});

  ASSERT_TRUE(Start());

  EXPECT_TRUE(fs::exists(deep));
}

TEST_F(MonitorTest, QueueIsAwayIfNoneOfItsRegistrationsHasAFolderThere) {
  const std::string deep = folder_ / "made/later/queue";
  Register("a", deep, {folder_ / "missing"});
  Register("b", deep, {folder_ / "missing too"});

  ASSERT_TRUE(Start());

  EXPECT_FALSE(fs::exists(folder_ / "made"));
}

TEST_F(MonitorTest, EventsReadAheadAtADeadlineAreReportedThoughTheKernelHasNoMore) {
  Register("a", queue(), {share()});
  script_.deadline = Clock::now() + milliseconds(50);
  bool held = false;
  script_.on_deadline = [&] {
    held = true;
    DrainReport report;
    report.unfinished = true;
    return report;
  };
  script_.drain = [&] {
    if (held) {
      held = false;
      ReportCreate("f");
    }
    return DrainReport();
  };

  ASSERT_TRUE(Start());

  EXPECT_TRUE(RunUntil([&] { return Written() == Crashed(share()) + Created("f"); })) << Written();
}

TEST_F(MonitorTest, EventsReadAheadWhileWatchesAreSetAreReportedThoughTheKernelHasNoMore) {
  Register("a", queue(), {share()});
  ASSERT_TRUE(Start());
  RunFor(milliseconds(20));
  bool during_reload = true;
  bool reported = false;
  script_.drain = [&] {
    if (!during_reload && !reported) {
      reported = true;
      ReportCreate("f");
    }
    return DrainReport();
  };

  monitor_.Reload();
  during_reload = false;

  EXPECT_TRUE(RunUntil([&] { return Written() == Crashed(share()) + Created("f"); })) << Written();
}

TEST_F(MonitorTest, EventsLostWhileTheMonitorStopsLeaveACrashedLine) {
  Register("a", queue(), {share()});
  ASSERT_TRUE(Start());
  RunFor(milliseconds(5));
  ReportCreate("f");
  script_.on_deadline = [] {
    DrainReport report;
    report.lost = true;
    return report;
  };

  monitor_.Stop();

  const std::string crashed = Crashed(share());
  ASSERT_GE(Written().size(), 2 * crashed.size());
  EXPECT_EQ(Written().substr(Written().size() - crashed.size()), crashed);
}

TEST_F(MonitorTest, EventsLostInTheLastReadingLeaveACrashedLine) {
  Register("a", queue(), {share()});
  ASSERT_TRUE(Start());
  fs::remove(queue());
  script_.drain = [] {
    DrainReport report;
    report.lost = true;
    return report;
  };

  monitor_.Stop();

  EXPECT_EQ(Written(), Crashed(share()));
}

TEST_F(MonitorTest, StatusCountsTheLinesThatAreNotWritten) {
  Register("a", queue(), {share()});
  ASSERT_TRUE(Start());
  const UniqueFd lock(open(queue().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  EXPECT_NE(monitor_.Status().find(R"("lines_unwritten":0,"pending_bytes":0,)"), std::string::npos);

  ReportCreate("f");
  ReportCreate("g");

  const size_t bytes = Created("f").size() + Created("g").size();
  EXPECT_NE(monitor_.Status().find(R"("lines_unwritten":2,"pending_bytes":)" + std::to_string(bytes) + ","),
            std::string::npos)
      << monitor_.Status();
}

TEST_F(MonitorTest, StopRecordsHowManyLinesAreNotWritten) {
  Register("a", queue(), {share()});
  ASSERT_TRUE(Start());
  const UniqueFd lock(open(queue().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  ReportCreate("f");

  monitor_.Stop();

  bool recorded = false;
  for (const std::string& text : records_.texts()) {
    recorded |=
        text == "event=lines_unwritten queue=" + queue() + " lines=1 bytes=" + std::to_string(Created("f").size());
  }
  EXPECT_TRUE(recorded);
}

TEST_F(MonitorTest, FolderThatWasReplacedWhenEventsWereLostIsWatchedAnew) {
  Register("a", queue(), {share()});
  ASSERT_TRUE(Start());
  RunFor(milliseconds(20));
  script_.watched.clear();
  script_.drain = [this] {
    fs::rename(share(), share() + ".old");
    fs::create_directory(share());
    script_.drain = [] { return DrainReport(); };
    DrainReport report;
    report.lost = true;
    return report;
  };

  monitor_.Reload();

  EXPECT_EQ(script_.watched, std::vector<std::string>{share()});
}

TEST_F(MonitorTest, WhatComesOnTheWayToAFolderWhileTheGuardsAreSetIsGuardedToo) {
  Register("a", queue(), {folder_ / "on/the/way"});
  std::vector<WayStep> guarded;
  script_.on_guard = [&](const std::vector<WayStep>& steps) {
    guarded = steps;
    fs::create_directories(folder_ / "on/the");
  };

  ASSERT_TRUE(Start());

  EXPECT_EQ(guarded, WaysTo({folder_ / "on/the/way"}));
}

TEST_F(MonitorTest, AFolderMoreIsLookedForAndGuardedAloneAndTheOthersStayAsTheyAre) {
  const std::string another = folder_ / "another";
  fs::create_directory(another);
  Register("a", queue(), {share()});
  ASSERT_TRUE(Start());
  std::vector<WayStep> guarded;
  int guarded_anew = 0;
  script_.on_guard = [&](const auto&) { ++guarded_anew; };
  script_.on_guard_also = [&](const std::vector<WayStep>& steps) { guarded = steps; };
  script_.watched.clear();

  Register("a", queue(), {share(), another});
  monitor_.Reload();

  EXPECT_EQ(script_.watched, std::vector<std::string>{another});
  EXPECT_EQ(guarded, WaysTo({another}));
  EXPECT_EQ(guarded_anew, 0);
}

TEST_F(MonitorTest, AFolderMoreThatAppearsWhileItIsGuardedIsWatchedAndGuardedWhereItIs) {
  const std::string another = folder_ / "another";
  Register("a", queue(), {share()});
  ASSERT_TRUE(Start());
  std::vector<WayStep> guarded;
  script_.on_guard_also = [&](const std::vector<WayStep>& steps) {
    guarded = steps;
    fs::create_directory(another);
  };
  script_.watched.clear();

  Register("a", queue(), {share(), another});
  monitor_.Reload();

  EXPECT_EQ(script_.watched, std::vector<std::string>{another});
  EXPECT_EQ(guarded, WaysTo({another})) << "as a folder, which tells itself when it goes";
}

TEST_F(MonitorTest, AFileMoreIsReportedWhenItGoes) {
  const std::string file = folder_ / "file";
  WriteFile(file, "text");
  Register("a", queue(), {share()});
  ASSERT_TRUE(Start());
  Register("a", queue(), {share(), file});
  monitor_.Reload();
  fs::remove(file);
  script_.drain = [this] {
    script_.drain = [] { return DrainReport(); };
    DrainReport report;
    report.roots_touched = true;
    return report;
  };

  monitor_.Reload();

  EXPECT_TRUE(RunUntil([&] { return Written().find(file + "\"") != std::string::npos; })) << Written();
}

TEST_F(MonitorTest, AFolderLessOrAnotherMaskGuardsAllAnew) {
  const std::string another = folder_ / "another";
  fs::create_directory(another);
  Register("a", queue(), {share(), another});
  ASSERT_TRUE(Start());
  int guarded_anew = 0;
  script_.on_guard = [&](const auto&) { ++guarded_anew; };

  Register("a", queue(), {another});
  monitor_.Reload();
  EXPECT_GT(std::exchange(guarded_anew, 0), 0);
  Register("a", queue(), {another}, kCreate);
  monitor_.Reload();
  EXPECT_GT(guarded_anew, 0);
}

// Two registered files, which no folder's watch tells of.
class MonitorFiles : public MonitorTest {
 protected:
  MonitorFiles() {
    WriteFile(One(), "one");
    WriteFile(Two(), "two");
    Register("a", queue(), {One(), Two()});
    script_.drain = [this] {
      DrainReport report;
      report.roots_touched = std::exchange(touched_, false);
      ++drains_;
      return report;
    };
  }
  std::string One() const { return folder_ / "one.txt"; }
  std::string Two() const { return folder_ / "two.txt"; }
  static std::string Line(int event, const std::string& path) {
    return R"({"event":)" + std::to_string(event) + R"(,"is_dir":false,"path":")" + path + "\"}\n";
  }
  // What is written after something at a guarded place was touched.
  std::string AfterATouch() {
    const std::string before = Written();
    const int drains = drains_;
    touched_ = true;
    eventfd_write(script_.readable.get(), 1);
    EXPECT_TRUE(RunUntil([&] { return drains_ > drains && !touched_; }));
    eventfd_t value = 0;
    eventfd_read(script_.readable.get(), &value);
    return Written().substr(before.size());
  }
  // What is written to a file from now on gives it other dates, wherever it lies.
  static void Age() { usleep(2'100'000); }

  bool touched_ = false;
  int drains_ = 0;
};

TEST_F(MonitorFiles, OnlyTheOneThatChangedIsToldOf) {
  Age();
  ASSERT_TRUE(Start());
  EXPECT_EQ(AfterATouch(), "");

  WriteFile(One(), "ONE");
  EXPECT_EQ(AfterATouch(), Line(64, One()));
  Age();
  AfterATouch();  // it was young
  EXPECT_EQ(AfterATouch(), "");

  fs::rename(One(), Two());
  EXPECT_EQ(AfterATouch(), Line(128, One()) + Line(64, Two()));
  EXPECT_FALSE(fs::exists(One()));
}

TEST_F(MonitorFiles, OneThatIsFoundChangedWhileRegistrationsAreReadIsToldOf) {
  Age();
  ASSERT_TRUE(Start());
  EXPECT_EQ(AfterATouch(), "");
  const std::string before = Written();
  WriteFile(One(), "ONE");
  Age();

  Register("b", folder_ / "queue-b", {folder_ / "three.txt"});
  monitor_.Reload();
  Register("a", queue(), {One(), Two()}, kCreate);
  monitor_.Reload();
  AfterATouch();

  EXPECT_NE(Written().find(Line(64, One()), before.size()), std::string::npos) << Written();
}

TEST_F(MonitorFiles, OneThatHasJustChangedIsToldOfAgain) {
  ASSERT_TRUE(Start());
  std::string again;
  for (int attempt = 0; attempt < 50 && again.empty(); ++attempt) {  // a look may come too late to find it young
    WriteFile(One(), "now");
    AfterATouch();
    again = AfterATouch();
  }

  EXPECT_NE(again.find(Line(64, One())), std::string::npos) << again;
}

}  // namespace
}  // namespace nimotifyd
