// Looks the registered folders up along a path, innermost first.
#include "services/monitor/scope.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace nimotifyd {
namespace {

// Where the search daemon keeps its databases and the monitor its queues.
constexpr std::string_view kIndexArea = "@fileindex";

std::string_view ParentOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}

// Two registrations may name one folder for one queue: what either wants is written.
void Merge(std::vector<ScopeEntry>& entries, ScopeEntry entry) {
  for (ScopeEntry& present : entries) {
    if (present.sink == entry.sink) {
      present.mask |= entry.mask;
      std::erase_if(present.ignore, [&](const std::string& name) {
        return std::find(entry.ignore.begin(), entry.ignore.end(), name) == entry.ignore.end();
      });
      return;
    }
  }
  entries.push_back(std::move(entry));
}

// Whether `entry`, whose folder is `folder`, skips a component of `path` below that folder.
bool SkipsBelow(const ScopeEntry& entry, std::string_view folder, std::string_view path) {
  size_t start = folder.size() == 1 ? 1 : folder.size() + 1;
  while (start < path.size()) {
    const size_t end = std::min(path.find('/', start), path.size());
    if (Scopes::Skips(entry, path.substr(start, end - start))) {
      return true;
    }
    start = end + 1;
  }
  return false;
}

// The path of a queue file as changes to it are reported: its folder's links followed.
std::string WithoutLinks(const std::string& queue) {
  const std::unique_ptr<char, decltype(&free)> folder(realpath(std::string(ParentOf(queue)).c_str(), nullptr), &free);
  const std::string name = queue.substr(queue.rfind('/'));
  return folder == nullptr ? queue : (std::string(folder.get()) == "/" ? "" : folder.get()) + name;
}

}  // namespace

Scopes::Scopes(const std::vector<Registration>& registrations,
               const std::unordered_map<std::string, std::unique_ptr<QueueSink>>& sinks) {
  for (const Registration& registration : registrations) {
    QueueSink* sink = sinks.at(registration.queue).get();
    for (const WatchEntry& entry : registration.entries) {
      Merge(entries_[entry.path], {sink, entry.mask, entry.ignore});
    }
    AddQueueFile(registration.queue);
    AddQueueFile(WithoutLinks(registration.queue));
  }
}

void Scopes::AddQueueFile(const std::string& queue) {
  queue_folders_.emplace(ParentOf(queue));
  queue_files_.insert(queue);
  queue_files_.insert(queue + ".tmp");
}

bool Scopes::Skips(const ScopeEntry& entry, std::string_view name) {
  return name == kIndexArea || std::find(entry.ignore.begin(), entry.ignore.end(), name) != entry.ignore.end();
}

std::vector<const ScopeEntry*> Scopes::EntriesAt(std::string_view path) const {
  std::vector<const ScopeEntry*> result;
  std::vector<const QueueSink*> decided;
  for (std::string_view folder = path;; folder = ParentOf(folder)) {
    const auto found = entries_.find(std::string(folder));
    if (found != entries_.end()) {
      for (const ScopeEntry& entry : found->second) {
        if (std::find(decided.begin(), decided.end(), entry.sink) == decided.end()) {
          decided.push_back(entry.sink);
          if (!SkipsBelow(entry, folder, path)) {
            result.push_back(&entry);
          }
        }
      }
    }
    if (folder.size() <= 1) {
      return result;
    }
  }
}

std::vector<std::string> Scopes::folders() const {
  std::vector<std::string> result;
  result.reserve(entries_.size());
  for (const auto& [path, entries] : entries_) {
    result.push_back(path);
  }
  std::sort(result.begin(), result.end());
  return result;
}

}  // namespace nimotifyd
