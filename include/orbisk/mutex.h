// A mutex between the threads of one process.
#pragma once

#include <pthread.h>

#include "orbisk/export.h"

namespace orbisk {

/// A POSIX mutex with its attribute object. Usually held through LockMutex.
///
/// Nothing here throws. A step of construction or destruction that fails writes one record and the next step follows.
///
/// Threads: any thread may call any member while the object lives.
class ORBISK_EXPORT Mutex {
 public:
  /// `type` is a POSIX mutex type; 0 is the normal kind, which deadlocks when its holder locks it again.
  explicit Mutex(int type);
  /// Destroys the mutex, then its attributes. Nobody may hold it.
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  /// Waits for the mutex. False when the system refused it; then it is not held.
  bool Lock();
  /// Takes the mutex if it is free, else returns false at once.
  bool TryLock();
  /// False when the system refused, for example to a thread that is not the holder of an error-checking mutex.
  bool Unlock();

 private:
  pthread_mutex_t mutex_{};
  pthread_mutexattr_t attr_{};
};

}  // namespace orbisk
