// The program, for main and for tests.
#pragma once

namespace nimotifyd {

/// Exit statuses.
constexpr int kExitStopped = 0;  ///< asked to stop, and did
constexpr int kExitFailure = 1;  ///< could not start: another monitor runs, or the kernel offers no change reports
constexpr int kExitUsage = 2;    ///< wrong usage

/// Parses the arguments and runs until SIGTERM or SIGINT. SIGHUP reads the registrations again.
int RunDaemon(int argc, const char* const* argv);

}  // namespace nimotifyd
