// The scope guard of a mutex: a lock that cannot be had is recorded and the work goes on.
#include "orbisk/lock_mutex.h"

#include "common/check.h"

namespace orbisk {

LockMutex::LockMutex(Mutex& mutex) : mutex_(mutex) {
  (void)ORBISK_FAILED(!mutex_.Lock());
}

LockMutex::~LockMutex() {
  (void)ORBISK_FAILED(!mutex_.Unlock());
}

}  // namespace orbisk
