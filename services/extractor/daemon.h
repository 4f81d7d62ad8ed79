// The program, for main and for tests that put in readers of their own.
#pragma once

#include "services/extractor/reader.h"

namespace extractor {

/// Parses the arguments and runs until SIGTERM or SIGINT; returns as service::RunProgram does. Contents are read by
/// `reader`, in other processes: the program runs itself again for them, so main must do nothing before this that a
/// worker must not do.
int RunDaemon(int argc, const char* const* argv, ContentReader& reader);

}  // namespace extractor
