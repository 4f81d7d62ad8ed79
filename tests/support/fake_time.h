// Time and chance for tests. Linking this replaces sleep(3), usleep(3), time(2) and rand(3) in the program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace orbisk::test {

/// One call of sleep(3) or usleep(3).
struct Wait {
  std::string function;
  uint64_t microseconds;
};

/// While one lives, waits are recorded and take no time, the clock moves by them alone, and chance is scripted, in all
/// threads. Without one the four functions do what the C library's do (rand(3) with a sequence of its own). One at a
/// time.
class FakeTime {
 public:
  /// The clock begins at `now`, seconds since 1970.
  explicit FakeTime(time_t now = 1700000000);
  ~FakeTime();
  FakeTime(const FakeTime&) = delete;
  FakeTime& operator=(const FakeTime&) = delete;

  std::vector<Wait> waits() const;
  time_t now() const;
  void Advance(time_t seconds);

  /// The answers of rand(3), in order; when they are used up, the last one again. 0 without any.
  void ScriptRand(std::vector<int> values);
  size_t rand_calls() const;

  /// Called in the waiting thread at each wait, after it was recorded, with its number from 1: where a test lets
  /// something happen meanwhile. What it throws goes through the wait to the code that waits.
  void OnWait(std::function<void(size_t nth)> action);
};

}  // namespace orbisk::test
