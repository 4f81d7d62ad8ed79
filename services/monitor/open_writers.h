// Files that somebody keeps open and writes to.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "services/monitor/options.h"

namespace nimotifyd {

/// Content changes are reported when the writer closes the file. One that stays open is due every period as long as
/// it is written to. `Key` names a file, `Folder` the folder it is in; names may change in between.
template <typename Key, typename Folder, typename Hash>
class OpenWriters {
 public:
  struct File {
    Folder folder;
    std::string name;
  };

  explicit OpenWriters(std::chrono::milliseconds period) : period_(period) {}

  /// The file was written to and not closed.
  void Written(const Key& key, const Folder& folder, std::string_view name, Clock::time_point now) {
    const auto [at, added] = files_.try_emplace(key, Entry{{folder, std::string(name)}, ++last_ticket_});
    if (added) {
      due_.push_back({now + period_, key, at->second.ticket});
    }
  }

  /// The file is called something else now.
  void Renamed(const Key& key, const Folder& folder, std::string_view name) {
    const auto at = files_.find(key);
    if (at != files_.end()) {
      at->second.file = {folder, std::string(name)};
    }
  }

  /// The change has been reported, or the file is gone.
  void Erase(const Key& key) {
    if (!files_.empty()) {
      files_.erase(key);
    }
  }

  void Clear() {
    files_.clear();
    due_.clear();
  }

  /// Takes out the files whose period is over at `now`.
  std::vector<File> TakeDue(Clock::time_point now) {
    std::vector<File> result;
    while (!due_.empty() && due_.front().time <= now) {
      const auto at = files_.find(due_.front().key);
      if (at != files_.end() && at->second.ticket == due_.front().ticket) {
        result.push_back(std::move(at->second.file));
        files_.erase(at);
      }
      due_.pop_front();
    }
    return result;
  }

  /// When TakeDue has something next.
  std::optional<Clock::time_point> next_due() {
    while (!due_.empty()) {
      const auto at = files_.find(due_.front().key);
      if (at != files_.end() && at->second.ticket == due_.front().ticket) {
        return due_.front().time;
      }
      due_.pop_front();  // closed meanwhile
    }
    return std::nullopt;
  }

  size_t size() const { return files_.size(); }

 private:
  struct Entry {
    File file;
    unsigned long ticket;
  };
  struct Due {
    Clock::time_point time;
    Key key;
    unsigned long ticket;
  };

  std::chrono::milliseconds period_;
  unsigned long last_ticket_ = 0;
  std::unordered_map<Key, Entry, Hash> files_;
  std::deque<Due> due_;  // times never fall
};

}  // namespace nimotifyd
