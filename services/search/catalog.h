// The indexes of the daemon, and what is done to a whole index.
#pragma once

#include <json/value.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "services/search/hosted_index.h"
#include "services/search/registry.h"

namespace nimoelasticd {

using HostPtr = std::shared_ptr<HostedIndex>;

/// Finds indexes by id; creates, deletes, pauses, moves them. Each change is durable when its call returns, and one
/// that a crash interrupted is finished or undone by the next Start.
///
/// Threads: any. Calls for one index wait for each other, those for different ones do not. All throw Refusal,
/// search::Error, std::system_error.
class Catalog {
 public:
  /// Keeps its list at `registry_file`. Throws as Registry does.
  Catalog(const std::string& registry_file, search::OpenOptions options);

  /// Finishes or undoes what was interrupted. Returns the ids of the indexes that have to be opened.
  std::vector<std::string> Start();

  /// Null when there is none.
  HostPtr Find(const std::string& id) const;
  /// Throws Refusal kUnknownIndex.
  HostPtr Require(const std::string& id) const;
  std::vector<std::pair<std::string, HostPtr>> All() const;

  /// What index_create says. Files of an index that nobody knows are replaced.
  void Create(const std::string& id, const std::string& path, const Json::Value& mappings, const Json::Value& settings,
              const Json::Value& event_handler);
  void Delete(const std::string& id);
  /// Commits and closes.
  void Pause(const std::string& id);
  void Resume(const std::string& id);
  /// Gives the index another id, another path, or both; "" leaves one as it is.
  void Configure(const std::string& id, const std::string& new_id, const std::string& new_path);
  /// Opens an index that is in the state kOpening, or kAbsent if it may be tried again.
  void Open(const std::string& id);
  /// Repairs an index that was reported.
  void Repair(const std::string& id);
  /// Says that an open index turned out to be damaged; requests to it are refused from now on.
  void ReportDamage(const std::string& id);
  /// `repair` is called, from any thread, with the id of an index that was found damaged. It has to see to it that
  /// Repair is called, but must not wait for that. Call this before the first request.
  void OnDamage(std::function<void(const std::string& id)> repair);
  /// Closes all; what is not committed is given up.
  void CloseAll();

 private:
  // Keeps an id and a path from being given to two indexes at once.
  class Reservation;

  void Insert(const Entry& entry, State state);
  void Rename(const std::string& id, const std::string& new_id);
  void FinishInterrupted(const Entry& entry);
  void SettleMove(const Entry& entry);
  void Move(const std::string& id, HostedIndex& host, const Entry& entry, const Entry& wanted);
  void MoveFiles(const Entry& entry, const Entry& wanted);
  void Abandon(const Entry& entry);

  const search::OpenOptions options_;
  Registry registry_;
  std::function<void(const std::string& id)> on_damage_;
  mutable std::mutex mutex_;  // guards the rest
  std::map<std::string, HostPtr> hosts_;
  std::set<std::string> reserved_ids_;
  std::set<std::string> reserved_paths_;
};

}  // namespace nimoelasticd
