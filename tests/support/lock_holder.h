// Locks on files as another process holds and sees them. Both go past replacements of the C library's functions.
#pragma once

#include <sys/types.h>

#include <string>

namespace orbisk::test {

/// A process of its own that holds the exclusive flock(2) on a file until it is told to go or this object ends.
class LockHolder {
 public:
  /// Returns when the lock is held. Makes a missing file. Throws std::runtime_error if the lock cannot be had.
  explicit LockHolder(const std::string& path);
  ~LockHolder() { Release(); }
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;

  void Release();

 private:
  pid_t pid_ = -1;
};

/// Whether somebody holds the lock on the file, exclusively or shared. False for a missing file.
bool IsLocked(const std::string& path);

}  // namespace orbisk::test
