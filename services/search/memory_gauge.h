// How much memory requests and answers take.
#pragma once

#include <atomic>
#include <cstddef>

namespace nimoelasticd {

/// Counts bytes against a bound. Threads: any.
class MemoryGauge {
 public:
  explicit MemoryGauge(size_t bound_bytes) : bound_(bound_bytes) {}

  /// Takes `bytes` more for a holder that has `held` already. False, and nothing taken, when that would go over the
  /// bound; but what is alone always gets what it asks for, or it could be refused for ever.
  bool Take(size_t bytes, size_t held) {
    const size_t before = used_.fetch_add(bytes);
    if (before + bytes > bound_ && before > held) {
      used_ -= bytes;
      return false;
    }
    return true;
  }

  /// Takes what cannot be refused any more.
  void Add(size_t bytes) { used_ += bytes; }
  void Release(size_t bytes) { used_ -= bytes; }
  size_t used() const { return used_; }

 private:
  const size_t bound_;
  std::atomic<size_t> used_{0};
};

}  // namespace nimoelasticd
