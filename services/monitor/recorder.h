// Turns changes of named objects into queue lines.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "services/monitor/scope.h"

namespace nimotifyd {

/// A folder as it is seen through one watch point: its path and who wants its changes.
struct View {
  uint64_t mount = 0;   ///< the mount through which the path leads
  std::string path;     ///< absolute, no slash at the end
  std::string escaped;  ///< the path as it stands in a line; empty for "/"
  std::vector<const ScopeEntry*> entries;
  bool holds_queue_files = false;
};

/// All views of a folder that somebody wants changes of; empty for a folder outside. More than one when a file system
/// is watched through several mounts.
using FolderViews = std::vector<View>;

/// Writes lines into the sinks of the queues that want them: the registered bits only, nothing of ignored names, a
/// rename from or to where a queue does not look as a create or delete.
///
/// Threads: one.
class Recorder {
 public:
  explicit Recorder(const Scopes& scopes) : scopes_(&scopes) {}

  /// The view of the folder at `path`, which lies in `mount`.
  View MakeView(uint64_t mount, std::string path) const;

  /// An object called `name` directly below a folder changed; empty `name`: the folder itself.
  /// `event` is one event bit and no rename. Returns whether anybody wanted it.
  bool Report(const FolderViews& folder, std::string_view name, bool is_dir, uint32_t event) const;

  /// An object moved from `old_name` below `from` to `name` below `to`. Views of one mount belong together; where each
  /// side has a single view, they do whatever the mounts. Returns whether anybody wanted it.
  bool ReportRename(const FolderViews& from, std::string_view old_name, const FolderViews& to, std::string_view name,
                    bool is_dir) const;

  const Scopes& scopes() const { return *scopes_; }

 private:
  std::vector<const ScopeEntry*> EntriesFor(const View& view, std::string_view name, bool is_dir) const;
  bool RenameBetween(const View& from, std::string_view old_name, const View& to, std::string_view name,
                     bool is_dir) const;
  bool ReportIn(const View& view, std::string_view name, bool is_dir, uint32_t event) const;

  const Scopes* scopes_;
};

}  // namespace nimotifyd
