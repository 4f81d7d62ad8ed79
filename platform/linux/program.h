// Running programs, for what this layer leaves to the system's own commands.
#pragma once

#include <string>
#include <vector>

namespace nimo {

/// What a program is run with. Its standard input and error are /dev/null, and so is its output unless `output` is set;
/// no other descriptor of the caller's is open in it, and signals are as a fresh program expects them.
struct RunOptions {
  std::string* output = nullptr;   ///< gets what the program writes to its standard output, at most 64 KiB
  bool clean_environment = false;  ///< with PATH alone; else with the caller's environment
};

/// Runs `command`, whose first item is the absolute path of the program, and waits for its end. The exit status (0 to
/// 255), 128 and the signal's number if a signal ended it, or less than 0, with the last error, when it could not be
/// started. Threads: any.
int RunProgram(const std::vector<std::string>& command, const RunOptions& options = {});

/// As RunProgram, and any exit status but 0 is a failure: less than 0, with the last error EIO. Else 0.
int RunToSuccess(const std::vector<std::string>& command, const RunOptions& options = {});

/// The path of the program called `name` in the folders where a system has its commands, "" when there is none. The
/// caller's PATH is not asked. Threads: any.
std::string FindProgram(const std::string& name);

}  // namespace nimo
