// The calls that the library makes to the kernel for files, locks and sockets: seen, and failing on demand.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace orbisk::fileindex::test {

/// One call, before the kernel gets it.
struct SystemCall {
  std::string function;
  std::string path;       ///< what it is about, or what the descriptor leads to; of a rename the new path
  int operation = 0;      ///< of flock
  std::string_view data;  ///< of write
};

/// While one lives, open, mkostemp, read, write, fsync, fchmod, chmod, rename, unlink, flock, socket, connect and
/// setsockopt of the thread that made it are watched. Without one they are as always. One at a time.
class SystemCalls {
 public:
  explicit SystemCalls(std::function<void(const SystemCall&)> see = nullptr);
  ~SystemCalls();
  SystemCalls(const SystemCalls&) = delete;
  SystemCalls& operator=(const SystemCalls&) = delete;

  /// Makes the `nth` call (1: the next) fail with `error` instead of reaching the kernel.
  void FailAt(size_t nth, int error);
  /// What was made to fail, "" if it did not come yet.
  std::string failed() const;
};

}  // namespace orbisk::fileindex::test
