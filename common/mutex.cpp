// The mutex. pthread functions return their error and leave errno alone, so a record shows whatever errno held before.
#include "orbisk/mutex.h"

#include "common/check.h"

namespace orbisk {

Mutex::Mutex(int type) {
  (void)ORBISK_FAILED(0 != pthread_mutexattr_init(&attr_));
  (void)ORBISK_FAILED(0 != pthread_mutexattr_settype(&attr_, type));
  (void)ORBISK_FAILED(0 != pthread_mutex_init(&mutex_, &attr_));
}

Mutex::~Mutex() {
  (void)ORBISK_FAILED(0 != pthread_mutex_destroy(&mutex_));
  (void)ORBISK_FAILED(0 != pthread_mutexattr_destroy(&attr_));
}

bool Mutex::Lock() {
  return 0 == pthread_mutex_lock(&mutex_);
}

bool Mutex::TryLock() {
  return 0 == pthread_mutex_trylock(&mutex_);
}

bool Mutex::Unlock() {
  return 0 == pthread_mutex_unlock(&mutex_);
}

}  // namespace orbisk
