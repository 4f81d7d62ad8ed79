// Tells whether anything below a folder has changed, where no watch can tell.
#pragma once

#include <cstdint>
#include <string>

#include "services/monitor/scope.h"

namespace nimotifyd {

/// A number that changes when a file or folder below `fd` is made, changed, moved or removed, if anybody wants to know.
/// What all queues skip and the queue files do not count: the monitor's own writing would otherwise be a change.
/// Other file systems are not entered.
///
/// `fd`: the folder (O_PATH will do), not owned; a folder that cannot be read looks empty. `path`: its absolute path.
uint64_t DigestOf(int fd, const std::string& path, const Scopes& scopes);

}  // namespace nimotifyd
