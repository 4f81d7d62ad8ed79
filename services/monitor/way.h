// What leads to the registered folders: a change of any of it may put another folder there.
#pragma once

#include <compare>
#include <string>
#include <vector>

namespace nimotifyd {

/// One name that is looked up on the way to a registered folder.
struct WayStep {
  std::string folder;      ///< where it is looked up: absolute, without links
  std::string name;        ///< never empty, "." or ".."
  bool is_folder = false;  ///< a folder tells itself when it goes; a link, or what is not there, does not
  bool is_file = false;    ///< a regular one: if that is all there is to watch, what becomes of its content matters
  auto operator<=>(const WayStep&) const = default;  // NOLINT(modernize-use-nullptr): clang-tidy misreads it
};

/// The steps to all of `paths` (absolute) as far as they lead now, each once, sorted. Links are followed, also those
/// that lead to other links, as often as the kernel follows them.
std::vector<WayStep> WaysTo(const std::vector<std::string>& paths);

}  // namespace nimotifyd
