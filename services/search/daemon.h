// The program, for main and for tests.
#pragma once

namespace nimoelasticd {

/// Parses the arguments and runs until SIGTERM or SIGINT; returns as service::RunProgram does.
int RunDaemon(int argc, const char* const* argv);

}  // namespace nimoelasticd
