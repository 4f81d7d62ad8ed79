// The switch for the debug records of the operation tree.
#pragma once

#include "orbisk/export.h"

namespace orbisk::fileindex {

/// Set once by the program, before work starts. 7, the syslog number of "debug", and no other value makes the operation
/// tree record every event line that it reads. 0 at first.
extern ORBISK_EXPORT int log_level;

}  // namespace orbisk::fileindex
