// The program, for main and for tests that put in readers of their own.
#pragma once

#include "services/extractor/reader.h"

namespace extractor {

/// Exit statuses.
constexpr int kExitStopped = 0;  ///< asked to stop, and did
constexpr int kExitFailure = 1;  ///< could not start: another one runs, or there can be no worker
constexpr int kExitUsage = 2;    ///< wrong usage

/// Parses the arguments and runs until SIGTERM or SIGINT. Contents are read by `reader`, in other processes: the
/// program runs itself again for them, so main must do nothing before this that a worker must not do.
int RunDaemon(int argc, const char* const* argv, ContentReader& reader);

}  // namespace extractor
