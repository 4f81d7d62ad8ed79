// Which indexes there are, and what was being done to each.
#pragma once

#include <json/value.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace nimoelasticd {

/// What a crash would leave half done.
enum class Phase {
  kReady,
  kCreating,  ///< its files may be there, in part; nobody was told that it exists
  kDeleting,  ///< its files may be there, in part; nobody was told that it is gone
  kMoving,    ///< its files are at `path` or, complete, at `new_path`
};

struct Entry {
  std::string id;
  std::string path;           ///< the index's folder, absolute
  Json::Value event_handler;  ///< as index_create gave it
  bool paused = false;
  Phase phase = Phase::kReady;
  std::string new_id;    ///< kMoving
  std::string new_path;  ///< kMoving
  bool operator==(const Entry&) const = default;
};

/// The list of indexes, in one file that is replaced whole with each change; a change is durable when its call returns.
///
/// Threads: any.
class Registry {
 public:
  /// Reads the list at `file`; none is an empty list. Throws std::runtime_error when it cannot be read or is damaged:
  /// it is not overwritten then.
  explicit Registry(std::string file);

  std::vector<Entry> Entries() const;
  std::optional<Entry> Find(const std::string& id) const;
  /// The id of the index whose files are at `path`, or are on their way there.
  std::optional<std::string> OwnerOf(const std::string& path) const;

  /// Adds `entry`, or replaces the one of its id. Throws std::system_error; then nothing is changed.
  void Put(const Entry& entry);
  /// Replaces the entry `id` by `entry`, which may have another id. Likewise.
  void Replace(const std::string& id, const Entry& entry);
  /// Takes an entry away. Likewise.
  void Remove(const std::string& id);

 private:
  using Map = std::map<std::string, Entry>;
  void Save(Map&& entries);

  const std::string file_;
  mutable std::mutex mutex_;  // guards entries_ and the file
  Map entries_;
};

}  // namespace nimoelasticd
