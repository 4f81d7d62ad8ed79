// Exclusion between processes.
#pragma once

#include <string>

#include "orbisk/export.h"

namespace orbisk {

/// An exclusive or shared advisory lock (flock(2)) on a file, held from construction to destruction.
///
/// Excludes other processes and other LockFile objects of this process alike, also those of the same thread: taking a
/// path twice costs the whole wait and then fails. The kernel drops the lock when its holder dies, so a left-over lock
/// file is harmless and is never removed. A child that is forked while the lock is held and does not close the
/// descriptor keeps the lock until it ends; the descriptor passes through exec(2).
///
/// Threads: one object is used by one thread at a time.
class ORBISK_EXPORT LockFile {
 public:
  /// Waits until the lock on `path` is held, creating the file (mode 0644 less the umask) if it is missing.
  ///
  /// Tries 64 times, each time opening the path afresh because a queue file is replaced under its path, with a random
  /// pause of 0 to 900 ms (steps of 100 ms, rand(3)) after each failed try, so it can take most of a minute.
  ///
  /// A file that was replaced between opening and locking it counts as a failed try, without a pause.
  ///
  /// `exclusive` asks for the exclusive lock, else for a shared one.
  ///
  /// Throws Error 506 with "open failed, path=<path>, reason=<text>" at once when the file cannot be opened or is a
  /// symbolic link, with "Exceed max retry, path=<path>" when the tries are used up, and with the system's text alone
  /// when the file system cannot lock; in this last case the descriptor stays open.
  LockFile(const std::string& path, bool exclusive);
  ~LockFile();
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;

 private:
  int fd_;
  std::string path_;
};

}  // namespace orbisk
