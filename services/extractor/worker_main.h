// The life of a worker process.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "services/extractor/reader.h"

namespace extractor {

/// Exit statuses of a worker that is not ended by a signal.
constexpr int kWorkerDone = 0;       ///< the daemon closed the channel
constexpr int kWorkerNoSandbox = 3;  ///< the kernel refuses the cage; no content was touched

/// Closes the cage, then reads content after content as orders come over `channel`, until it is closed. Only
/// descriptors up to `channel` may be open; those above it are closed after each content. It dies with
/// `parent`, the process that started it. Never returns.
[[noreturn]] void RunWorker(ContentReader& reader, int channel, size_t memory_bytes, pid_t parent);

}  // namespace extractor
