// A share's queue file: freezing it, delivering its operations, and looking for a path in it.
#include "orbisk/fileindex/queue_mgr.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string_view>

#include "common/check.h"
#include "orbisk/lock_file.h"
#include "orbisk/util.h"

namespace orbisk::fileindex {
namespace {

// Whether `inner` is `outer` or lies below it, by components: /a/b holds /a/b/c and not /a/bc.
bool IsSameOrBelow(std::string_view outer, std::string_view inner) {
  return inner.substr(0, outer.size()) == outer && (inner.size() == outer.size() || inner[outer.size()] == '/');
}

// Whether the file has an event that the predicate holds for. A bad line is fatal here: what it says is not known.
bool FindQueue(const std::string& path, const std::function<bool(const Event&)>& predicate) {
  if (!IsFileExist(path)) {
    return false;
  }
  std::ifstream input_stream(path);
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

}  // namespace orbisk::fileindex
