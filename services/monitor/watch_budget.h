// How many inotify watches may be held, so that other programs find some as well.
#pragma once

#include <algorithm>
#include <cstddef>

namespace nimotifyd {

/// The limit is the configured one until the kernel refuses a watch below it: then somebody else has the rest of the
/// system's watches, or a container has fewer than the system says. From there on a share of what was held is left
/// free.
class WatchBudget {
 public:
  /// `limit`: watches to hold at most. `reserve_percent` (0 to 99): of the watches held when the kernel refuses one,
  /// the share to leave to others, rounded up.
  WatchBudget(size_t limit, unsigned reserve_percent)
      : configured_(limit), limit_(limit), reserve_percent_(reserve_percent) {}

  bool Allows(size_t held) const { return held < limit_; }
  size_t limit() const { return limit_; }

  /// The kernel refused one more than `held`. Never raises the limit.
  void Refused(size_t held) {
    const size_t reserve = (held * reserve_percent_ + 99) / 100;
    limit_ = std::min(limit_, held - reserve);
  }

  /// The kernel is to be asked anew.
  void Reset() { limit_ = configured_; }

 private:
  size_t configured_;
  size_t limit_;
  size_t reserve_percent_;
};

}  // namespace nimotifyd
