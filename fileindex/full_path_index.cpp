// Finding the entry that governs a full path without comparing every entry.
#include "fileindex/full_path_index.h"

#include <atomic>
#include <utility>

#include "fileindex/path_view.h"

namespace orbisk::fileindex {
namespace {

std::atomic<std::uint64_t> path_changes{0};

}  // namespace

void FullPathIndex::NotePathChange() {
  ++path_changes;
}

std::uint64_t FullPathIndex::PathChanges() {
  return path_changes;
}

void FullPathIndex::TakeInNext(const std::vector<std::shared_ptr<Folder>>& folders) {
  const std::shared_ptr<Folder>& folder = folders[taken_in_];
  by_full_path_.emplace(full_paths_.Of(*folder), folder);
  ++taken_in_;
}

// Who has one question is answered before a table would be made.
std::shared_ptr<Folder> FullPathIndex::Scan(const std::vector<std::shared_ptr<Folder>>& folders,
                                            std::string_view full_path) {
  const std::shared_ptr<Folder>* nearest = nullptr;
  size_t longest = 0;
  for (const std::shared_ptr<Folder>& folder : folders) {
    const std::string& holder = full_paths_.Of(*folder);
    if (holder.size() > longest && IsSameOrBelow(holder, full_path)) {
      nearest = &folder;
      longest = holder.size();
    }
  }
  return nearest != nullptr ? *nearest : nullptr;
}

std::shared_ptr<Folder> FullPathIndex::Nearest(const std::vector<std::shared_ptr<Folder>>& folders,
                                               std::string_view full_path) {
  if (!std::exchange(was_asked_, true)) {
    return Scan(folders, full_path);
  }
  by_full_path_.reserve(folders.size());
  while (taken_in_ < folders.size()) {
    TakeInNext(folders);
  }
  std::shared_ptr<Folder> nearest;
  FindHolder(full_path, [&](std::string_view holder) {
    const auto found = by_full_path_.find(holder);
    if (holder.empty() || found == by_full_path_.end()) {
      return false;
    }
    nearest = found->second;
    return true;
  });
  return nearest;
}

// Whether `answers` holds of the entries that are in the table, or does once more of them are.
template <class Answers>
bool FullPathIndex::Ask(const std::vector<std::shared_ptr<Folder>>& folders, Answers answers) {
  if (answers()) {
    return true;
  }
  while (taken_in_ < folders.size()) {
    TakeInNext(folders);
    if (answers()) {
      return true;
    }
  }
  return false;
}

bool FullPathIndex::AnyHolds(const std::vector<std::shared_ptr<Folder>>& folders, std::string_view full_path) {
  return Ask(folders, [&] {
    return FindHolder(full_path, [&](std::string_view holder) { return by_full_path_.contains(holder); });
  });
}

bool FullPathIndex::AnyIs(const std::vector<std::shared_ptr<Folder>>& folders, std::string_view full_path) {
  return Ask(folders, [&] { return by_full_path_.contains(full_path); });
}

}  // namespace orbisk::fileindex
