// The whole of fileindexctl but for main().
#pragma once

namespace fileindexctl {

/// Runs the command that the arguments name and returns the program's exit status: 0 on success, also when SIGPIPE is
/// ignored and whoever reads standard output goes away; 1 after a failure, told in one line on standard error; 2 for
/// wrong usage.
int Run(int argc, const char* const* argv);

}  // namespace fileindexctl
