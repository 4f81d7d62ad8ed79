// When a batch is taken: at once after quiet, and a little later while events keep coming.
#pragma once

#include <chrono>
#include <optional>

namespace fileindexd {

/// Decides from the times of events when the next pass is due.
///
/// Threads: a plain value.
class Settle {
 public:
  using Time = std::chrono::steady_clock::time_point;
  using Duration = std::chrono::milliseconds;

  /// Events less than `quiet` apart keep coming; they are held back until that ends, but for `longest` at most.
  Settle(Duration quiet, Duration longest) : quiet_(quiet), longest_(longest) {}

  /// There was an event.
  void Note(Time now);

  /// When the pass for the events so far is due; nothing if there are none. May lie in the past.
  std::optional<Time> Due() const { return due_; }

  /// The pass begins: what was noted so far is taken.
  void Take() { due_.reset(); }

 private:
  Duration quiet_;
  Duration longest_;
  std::optional<Time> last_;  // event
  Time first_;                // event that is not taken
  std::optional<Time> due_;
};

}  // namespace fileindexd
