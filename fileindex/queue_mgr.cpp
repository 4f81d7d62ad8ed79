// A share's queue file: freezing it, delivering its operations, and looking for a path in it.
#include "orbisk/fileindex/queue_mgr.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string_view>

#include "common/check.h"
#include "fileindex/path_view.h"
#include "fileindex/queue_search.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/lock_file.h"
#include "orbisk/util.h"

namespace orbisk::fileindex {
namespace {

// Whether the file has an event that the predicate holds for. A bad line is fatal here: what it says is not known.
bool FindQueue(const std::string& path, const std::function<bool(const Event&)>& predicate) {
  if (!IsFileExist(path)) {
    return false;
  }
  std::ifstream input_stream(path);
  // Whoever freezes the queue may have moved it aside just now.
  if (!input_stream && errno == ENOENT) {
    return false;
  }
  ORBISK_CHECK(!input_stream, 502, "Failed to open queue, reason=" + GetErrnoStr());
  for (std::string line; std::getline(input_stream, line);) {
    if (predicate(Event(line))) {
      return true;
    }
  }
  return false;
}

}  // namespace

QueueMgr::QueueMgr(const std::string& queue_path) : queue_path_(queue_path), queue_path_tmp_(queue_path + ".tmp") {}

std::shared_ptr<OPTree> QueueMgr::GetOPTree() const {
  if (tree_ == nullptr) {
    tree_ = std::make_shared<OPTree>(queue_path_);
  }
  return tree_;
}

std::shared_ptr<OPTree> QueueMgr::GetOPTreeTmp() const {
  if (tree_tmp_ == nullptr) {
    tree_tmp_ = std::make_shared<OPTree>(queue_path_tmp_);
  }
  return tree_tmp_;
}

void QueueMgr::PrepareTmpQueue() {
  if (!IsFileExist(queue_path_)) {
    return;
  }
  const LockFile lock(queue_path_, true);
  if (IsFileExist(queue_path_tmp_)) {
    return;
  }
  ORBISK_CHECK(0 > rename(queue_path_.c_str(), queue_path_tmp_.c_str()), 502, "rename failed, reason=" + GetErrnoStr());
}

void QueueMgr::DeleteTmp() {
  unlink(queue_path_tmp_.c_str());
}

int QueueMgr::ProcessOP(std::function<void(std::shared_ptr<OP>)> fn, bool use_tmp) {
  if (use_tmp) {
    PrepareTmpQueue();
    return IsFileExist(queue_path_tmp_) ? GetOPTreeTmp()->ProcessOP(std::move(fn)) : 0;
  }
  return IsFileExist(queue_path_) ? GetOPTree()->ProcessOP(std::move(fn)) : 0;
}

bool QueueMgr::IsFullPathProcessing(const std::string& full_path) {
  // A configuration that cannot be read fails the question before the queue is looked at.
  [[maybe_unused]] const FolderMgr folder_mgr;
  const auto touches = [&](const Event& event) {
    return IsSameOrBelow(full_path, event.path) || IsSameOrBelow(full_path, event.path_old);
  };
  return FindQueue(queue_path_, touches) || FindQueue(queue_path_tmp_, touches);
}

bool QueueMgr::IsFullPathHasReindex(const std::string& full_path) {
  const auto covers = [&](const Event& event) {
    return event.event == EVENT_REINDEX && IsSameOrBelow(event.path, full_path);
  };
  return FindQueue(queue_path_, covers) || FindQueue(queue_path_tmp_, covers);
}

QueueFileSearch::QueueFileSearch(std::string path, const std::vector<std::string>& full_paths)
    : path_(std::move(path)) {
  for (const std::string& full_path : full_paths) {
    found_.emplace(full_path, false);
  }
}

bool QueueFileSearch::FindQueue(const std::string& full_path) {
  const bool& found = found_.find(full_path)->second;
  if (input_ == nullptr) {
    if (!IsFileExist(path_)) {
      return false;
    }
    auto input_stream = std::make_unique<std::ifstream>(path_);
    if (!*input_stream && errno == ENOENT) {
      return false;
    }
    ORBISK_CHECK_TEXT(!*input_stream, "!input_stream", 502, "Failed to open queue, reason=" + GetErrnoStr());
    input_ = std::move(input_stream);
  }
  while (!found && ReadLine()) {
  }
  return found;
}

// Reads the next line and marks the paths that it names; at a bad line, throws at every call. False at the end.
bool QueueFileSearch::ReadLine() {
  if (!stopped_at_bad_line_ && !std::getline(*input_, line_)) {
    return false;
  }
  stopped_at_bad_line_ = true;  // until it proves good
  const Event event(line_);
  stopped_at_bad_line_ = false;
  Mark(event.path);
  Mark(event.path_old);
  return true;
}

void QueueFileSearch::Mark(std::string_view event_path) {
  FindHolder(event_path, [this](std::string_view holder) {
    const auto asked = found_.find(holder);
    if (asked != found_.end()) {
      asked->second = true;
    }
    return false;
  });
}

QueueSearch::QueueSearch(const std::string& queue_path, const std::vector<std::string>& full_paths)
    : queue_(queue_path, full_paths), side_file_(queue_path + ".tmp", full_paths) {}

bool QueueSearch::IsFullPathProcessing(const std::string& full_path) {
  if (!configuration_read_) {
    [[maybe_unused]] const FolderMgr folder_mgr;  // as QueueMgr does
    configuration_read_ = true;
  }
  return queue_.FindQueue(full_path) || side_file_.FindQueue(full_path);
}

}  // namespace orbisk::fileindex
