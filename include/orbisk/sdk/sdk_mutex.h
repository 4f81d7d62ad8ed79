// The lock round the box's share, user and credential services.
#pragma once

#include "orbisk/export.h"
#include "orbisk/mutex.h"

namespace orbisk::sdk {

/// The one mutex that is held, through LockMutex, for every call into the box's share, user and credential services,
/// which do not bear several threads at once. It is of the normal kind: taking it twice in one thread deadlocks.
///
/// Made at the first call, which may come from any thread; destroyed when the process exits.
ORBISK_EXPORT Mutex& SDKMutex();

}  // namespace orbisk::sdk
