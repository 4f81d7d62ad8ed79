// The groups of commands. Each stands in one file; a new group is one more function here and its call in program.cpp.
#pragma once

#include <CLI/App.hpp>

namespace fileindexctl {

// A group's commands run while the arguments are parsed. They throw std::exception, its text for the user, to fail.

/// "queue": what is in a queue file.
void AddQueueCommands(CLI::App& app);

/// "monitor": which folders the change monitor watches for which queue file.
void AddMonitorCommands(CLI::App& app);

}  // namespace fileindexctl
