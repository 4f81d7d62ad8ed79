// The process-wide lock round the box's services. It is a lock and knows nothing of them, so it lives on this floor.
#include "orbisk/sdk/sdk_mutex.h"

namespace orbisk::sdk {

Mutex& SDKMutex() {
  static Mutex mutex(0);
  return mutex;
}

}  // namespace orbisk::sdk
