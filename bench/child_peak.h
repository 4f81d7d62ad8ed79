// Memory of a piece of work, as what a process that does nothing else needs for it.
#pragma once

#include <cstddef>
#include <functional>

namespace orbisk::bench {

/// Peak resident memory, in bytes, of a child process that runs `work`; ends the program if the child fails. It begins
/// with what the caller has resident.
size_t PeakOf(const std::function<void()>& work);

}  // namespace orbisk::bench
