// When the whole share is compared again after events were lost: not as often as they are lost.
#pragma once

#include <chrono>
#include <optional>

namespace fileindexd {

/// Where events are lost again and again, each comparison waits longer than the one before it: at first as long as the
/// last one took, then twice as long each time, so that a share of any size costs less and less. After a time without
/// losses all is forgotten.
///
/// Threads: a plain value.
class RecoveryPace {
 public:
  using Time = std::chrono::steady_clock::time_point;
  using Duration = std::chrono::steady_clock::duration;

  /// Waits `least` after each comparison, and never longer than `most`.
  RecoveryPace(Duration least, Duration most) : least_(least), most_(most) {}

  /// When the next comparison may begin; nothing if it may at once.
  std::optional<Time> Due(Time now) const;
  /// One was done from `begun` to `ended`.
  void NoteRecovery(Time begun, Time ended);

 private:
  Duration least_;
  Duration most_;
  std::optional<Time> ended_;
  Duration wait_{};
  int recurrences_ = 0;
};

}  // namespace fileindexd
