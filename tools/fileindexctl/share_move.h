// Giving a share another name, with its folder, as a box does it.
#pragma once

#include <string>

namespace fileindexctl {

/// Renames the share `from` to `to`: its folder, its entry in the registry, its indexed folders, its index and the
/// documents in it, and the events that wait for it.
///
/// A step that fails is undone with those before it, as far as that goes. What is being done is noted in a file, so
/// that a call with the same names goes on where one was interrupted. Throws std::exception, its text for the user:
/// that nothing is changed, or what to do.
///
/// Threads: one at a time. Two processes exclude each other.
void MoveShareName(const std::string& from, const std::string& to);

}  // namespace fileindexctl
