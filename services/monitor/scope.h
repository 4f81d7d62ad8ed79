// Which queues want the changes below a folder.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "services/monitor/queue_sink.h"
#include "services/monitor/registration.h"

namespace nimotifyd {

/// What one queue registered for one folder.
struct ScopeEntry {
  QueueSink* sink = nullptr;
  uint32_t mask = 0;
  std::vector<std::string> ignore;
};

/// The registered folders of all queues, asked by path.
///
/// For each queue the innermost registered folder round a path decides; names that it ignores, and the index area
/// "@fileindex", are skipped together with everything below them, at any depth. The components of the registered
/// folder's own path are never held against it. Queue files and their side files are nobody's changes.
class Scopes {
 public:
  /// `sinks` holds one sink for each queue path of `registrations` and outlives this object.
  Scopes(const std::vector<Registration>& registrations,
         const std::unordered_map<std::string, std::unique_ptr<QueueSink>>& sinks);

  /// The entries that want changes directly below the folder at `path`, and of the folder itself.
  std::vector<const ScopeEntry*> EntriesAt(std::string_view path) const;

  /// Whether `name`, directly below a folder of `entry`, is skipped.
  static bool Skips(const ScopeEntry& entry, std::string_view name);

  /// Whether the folder at `path` holds queue files, and whether `path` is one or a side file of one.
  bool HoldsQueueFiles(std::string_view path) const { return queue_folders_.count(std::string(path)) != 0; }
  bool IsQueueFile(const std::string& path) const { return queue_files_.count(path) != 0; }

  /// Whether `path` is a registered folder.
  bool IsRegistered(const std::string& path) const { return entries_.count(path) != 0; }

  /// All registered folders, each once.
  std::vector<std::string> folders() const;

 private:
  void AddQueueFile(const std::string& queue);

  std::unordered_map<std::string, std::vector<ScopeEntry>> entries_;  // by folder
  std::unordered_set<std::string> queue_folders_;
  std::unordered_set<std::string> queue_files_;
};

}  // namespace nimotifyd
