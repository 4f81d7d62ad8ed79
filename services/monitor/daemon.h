// The program, for main and for tests.
#pragma once

namespace nimotifyd {

/// Parses the arguments and runs until SIGTERM or SIGINT; SIGHUP reads the registrations again. Returns as
/// service::RunProgram does.
int RunDaemon(int argc, const char* const* argv);

}  // namespace nimotifyd
