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
/// setsockopt of the thread that made it are seen by `see`. What it calls itself is not seen. One at a time.
class SystemCalls {
 public:
  explicit SystemCalls(std::function<void(const SystemCall&)> see);
  ~SystemCalls();
  SystemCalls(const SystemCalls&) = delete;
  SystemCalls& operator=(const SystemCalls&) = delete;
};

/// While one lives, the `nth` of those calls (1: the first; 0: none) that are seen fails with `error` instead of
/// reaching the kernel, and is not seen. For the thread that made it. One at a time.
class SystemFailure {
 public:
  SystemFailure(size_t nth, int error);
  ~SystemFailure();
  SystemFailure(const SystemFailure&) = delete;
  SystemFailure& operator=(const SystemFailure&) = delete;

  /// What was made to fail, "open /path"; "" if it did not come.
  std::string failed() const;
};

}  // namespace orbisk::fileindex::test
