// What the library tells the box's administrators.
#pragma once

#include "orbisk/export.h"

namespace orbisk::fileindex {

// Each runs the box's notification tool and waits for its end. Returns the tool's exit status, less than 0 if it could
// not be started. Never throws. Threads: any.

/// Tells the administrators that there is no room left for the index.
ORBISK_EXPORT int SendNXMNotify();

/// Tells the administrators that the search daemon stays busy for lack of memory.
ORBISK_EXPORT int NotifyLackOfMemory();

}  // namespace orbisk::fileindex
