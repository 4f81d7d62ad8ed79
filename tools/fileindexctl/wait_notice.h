// A word to a person who waits, lest it be taken for a hang.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace fileindexctl {

/// Stands round a call of the library that may wait for hours for the search daemon, and for half a minute for the lock
/// of the configuration. If it stands for three seconds, says so once on standard error, when that is a terminal; else
/// does nothing.
///
/// Threads: one object is used by one thread.
class WaitNotice {
 public:
  /// Throws std::system_error if no thread can be made.
  WaitNotice();
  ~WaitNotice();
  WaitNotice(const WaitNotice&) = delete;
  WaitNotice& operator=(const WaitNotice&) = delete;

 private:
  void Run();

  std::mutex mutex_;
  std::condition_variable changed_;
  bool is_over_ = false;
  std::thread thread_;
};

}  // namespace fileindexctl
