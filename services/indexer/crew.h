// Threads that work for one that decides.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace fileindexd {

/// Does jobs at the same time, in any order. Its threads begin with the first job, and inherit the priorities of the
/// thread that gives it.
///
/// Threads: one gives the jobs and waits.
class Crew {
 public:
  /// `hands`: how many jobs at once, at least one.
  explicit Crew(unsigned hands) : hands_(hands) {}
  /// Drops what has not begun, and waits for the rest.
  ~Crew();
  Crew(const Crew&) = delete;
  Crew& operator=(const Crew&) = delete;

  /// Waits while there are many jobs already. Throws what a job before threw; then `job` is dropped. Where there can be
  /// no thread at all, does `job` at once, and throws what it throws.
  void Give(std::function<void()> job);
  /// Waits until no job is left. Throws what the first one that failed threw; those that had not begun then are
  /// dropped.
  void Wait();

 private:
  void AddThread();
  void Run();
  void ThrowFailure();

  const unsigned hands_;
  std::mutex mutex_;  // guards the block below
  std::condition_variable given_;
  std::condition_variable done_;
  std::deque<std::function<void()>> jobs_;
  std::size_t busy_ = 0;
  bool stop_ = false;
  std::exception_ptr failure_;

  std::vector<std::thread> threads_;
};

}  // namespace fileindexd
