// The question before something is destroyed.
#pragma once

#include <CLI/App.hpp>
#include <string>

namespace fileindexctl {

/// Gives `command` the flag --yes, which sets `yes`. `yes` must outlive the command.
void AddYes(CLI::App& command, bool& yes);

/// Returns if `yes` is set, or somebody at a terminal types "y" or "yes" to `question`. Throws std::runtime_error for
/// any other answer, and without asking when standard input is no terminal, so that no script destroys by accident.
///
/// Threads: one at a time, as it reads standard input.
void Confirm(const std::string& question, bool yes);

}  // namespace fileindexctl
