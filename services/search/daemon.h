// The program, for main and for tests.
#pragma once

namespace nimoelasticd {

/// Exit statuses.
constexpr int kExitStopped = 0;  ///< asked to stop, and did
constexpr int kExitFailure = 1;  ///< could not start: another one runs, or socket or list of indexes cannot be used
constexpr int kExitUsage = 2;    ///< wrong usage

/// Parses the arguments and runs until SIGTERM or SIGINT.
int RunDaemon(int argc, const char* const* argv);

}  // namespace nimoelasticd
