// Holds a Mutex for a scope.
#pragma once

#include "orbisk/export.h"
#include "orbisk/mutex.h"

namespace orbisk {

/// Locks a mutex at construction and unlocks it at destruction.
///
/// Never throws. If locking fails, a record is written and the scope goes on without the lock; unlocking at the end is
/// then tried all the same and is likely to write a second record.
///
/// Threads: used by the thread that made it.
class ORBISK_EXPORT LockMutex {
 public:
  /// Keeps a reference to `mutex`, which must outlive this object.
  explicit LockMutex(Mutex& mutex);
  ~LockMutex();
  LockMutex(const LockMutex&) = delete;
  LockMutex& operator=(const LockMutex&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace orbisk
