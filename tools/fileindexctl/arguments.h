// What arguments have to look like.
#pragma once

#include <CLI/App.hpp>
#include <string>

namespace fileindexctl {

/// Accepts digits alone, of a number that fits into an unsigned long. The parser itself takes "-1" for a very large
/// number and "010" for 8.
CLI::Validator PlainNumber();

/// Accepts an absolute path without "//", ".", ".." and a "/" at the end. A queue line with any other is malformed, and
/// who reads the queue drops it.
CLI::Validator PlainFullPath();

/// Accepts a share path written in the same way.
CLI::Validator PlainSharePath();

/// The word in `app`'s arguments that stands where a command is wanted and is none; empty if there is none there.
std::string UnknownCommand(const CLI::App& app);

}  // namespace fileindexctl
