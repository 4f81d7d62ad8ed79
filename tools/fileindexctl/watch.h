// Looking at the indexing daemon again and again.
#pragma once

#include <optional>
#include <string>

namespace fileindexctl {

struct WatchOptions {
  std::optional<std::string> share;  ///< only this one
  bool until_done = false;           ///< ends when nothing is left to do
  bool json = false;
};

/// Prints what the indexing daemon does until the process is ended: on a terminal a picture that is drawn anew, else a
/// line for each change of a share. With `until_done` returns when nothing is left to do; throws std::runtime_error
/// that names a folder if some folder cannot be indexed. Throws as AskIndexer, and orbisk::Error if the folders cannot
/// be asked.
///
/// Threads: one at a time, as it writes to standard output.
void Watch(const WatchOptions& options);

}  // namespace fileindexctl
