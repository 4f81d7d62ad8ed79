// The switch for the debug records of the operation tree.
#include "orbisk/fileindex/log_level.h"

namespace orbisk::fileindex {

int log_level = 0;

}  // namespace orbisk::fileindex
