// What a worker is doing, for people who want to see it.
#pragma once

#include <json/json.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

namespace fileindexd {

/// Counters and the latest failures of one share. Cheap: a lock that nobody holds for long, for each file.
///
/// Threads: any.
class Progress {
 public:
  enum class State { kIdle, kWorking, kPaused, kFailing, kOffline, kNoSpace };

  void SetState(State state);
  /// What keeps the share from being indexed; "" when nothing does.
  void SetProblem(const std::string& problem);

  void BeginPass();
  /// More files of this pass are known of.
  void AddWork(std::uint64_t files);
  /// A file is in work now.
  void BeginFile(const std::string& path);
  /// It is done; `changed` if the index was changed for it.
  void EndFile(bool changed);
  void EndPass(std::uint64_t operations);
  void AddFailure(const std::string& path, const std::string& reason);

  /// "state", "problem", "done", "to_do", "changed", "rate" (files for each second of the pass), "file", "passes",
  /// "operations", "failed", "failures" (array of "path" and "reason", the latest ones).
  Json::Value ToJson() const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Failure {
    std::string path;
    std::string reason;
  };

  mutable std::mutex mutex_;  // guards all of the below
  State state_ = State::kIdle;
  std::string problem_;
  std::string file_;
  std::uint64_t done_ = 0;
  std::uint64_t known_ = 0;
  std::uint64_t changed_ = 0;
  std::uint64_t passes_ = 0;
  std::uint64_t operations_ = 0;
  std::uint64_t failed_ = 0;
  std::deque<Failure> failures_;
  Clock::time_point begun_{};
  Clock::time_point ended_{};
};

}  // namespace fileindexd
