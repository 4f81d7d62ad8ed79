// What a worker is doing, for people who want to see it.
#pragma once

#include <json/json.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "services/indexer/failures.h"

namespace fileindexd {

/// Counters and the failures of one share. Cheap: a lock that nobody holds for long, for each file.
///
/// Threads: any.
class Progress {
 public:
  /// How many failures are told of unless somebody asks for more.
  static constexpr size_t kUsualFailures = 100;

  enum class State { kIdle, kWaiting, kWorking, kPaused, kFailing, kOffline, kNoSpace };

  void SetState(State state);
  /// What keeps the share from being indexed; "" when nothing does.
  void SetProblem(const std::string& problem);

  void BeginPass();
  /// More files of this pass are known of.
  void AddWork(std::uint64_t files);
  /// A file is in work now; others may be, too.
  void BeginFile(const std::string& path);
  /// It is done; `changed` if the index was changed for it. One that needed no work need not have begun.
  void EndFile(const std::string& path, bool changed);
  void EndPass(std::uint64_t operations);
  /// The whole share was compared because events were lost.
  void NoteRecovery();

  /// What is wrong with which files; they stay when a pass ends.
  Failures& failures() { return failures_; }

  /// "state", "problem", "done", "to_do", "changed", "rate" (files for each second of the pass), "seconds_left" (null
  /// while nobody can know), "file" (the one that is in work for the longest time; "" if none is), "passes",
  /// "operations", "recoveries", and what Failures::Report adds.
  Json::Value ToJson(size_t most_failures = kUsualFailures) const;

 private:
  using Clock = std::chrono::steady_clock;

  Json::Value SecondsLeft(double rate) const;

  Failures failures_;         // has a lock of its own
  mutable std::mutex mutex_;  // guards all of the below
  State state_ = State::kIdle;
  std::string problem_;
  std::vector<std::string> in_work_;  // as they began
  std::uint64_t done_ = 0;
  std::uint64_t known_ = 0;
  std::uint64_t changed_ = 0;
  std::uint64_t passes_ = 0;
  std::uint64_t operations_ = 0;
  std::uint64_t recoveries_ = 0;
  Clock::time_point begun_{};
  Clock::time_point ended_{};
};

}  // namespace fileindexd
