// A share's queue file, from freezing it to delivering its operations.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "orbisk/export.h"
#include "orbisk/fileindex/optree.h"

namespace orbisk::fileindex {

/// The queue file at one path and its side file, the frozen batch at the same path with ".tmp" behind it.
///
/// One pass of the consumer is ProcessOP(fn, true), applying and committing what was delivered, then DeleteTmp(). A
/// side file that a broken-off pass left behind is delivered again before anything newer.
///
/// Threads: one object is used by one thread at a time. Writers and the consumer exclude each other, across processes,
/// by the lock on the queue file.
class ORBISK_EXPORT QueueMgr {
 public:
  /// Looks at no file.
  explicit QueueMgr(const std::string& queue_path);

  /// The tree of the queue file, read at the first call and kept. Throws Error 502 if it cannot be opened.
  std::shared_ptr<OPTree> GetOPTree() const;

  /// The tree of the side file, read at the first call and kept. Throws Error 502 if it cannot be opened.
  std::shared_ptr<OPTree> GetOPTreeTmp() const;

  /// Freezes the queue: renames it to the side file under its lock, unless there is no queue file or a side file is
  /// still there. Throws Error 506 if the lock cannot be had and Error 502 if the rename fails.
  void PrepareTmpQueue();

  /// Removes the side file, if there is one. Failures are ignored.
  void DeleteTmp();

  /// Delivers operations to `fn` and returns the count of OPTree::ProcessOP, 0 without a file. With `use_tmp` freezes
  /// the queue and delivers the side file; without it delivers the live file as it is, with no lock. Throws as
  /// PrepareTmpQueue and GetOPTree, and what `fn` throws.
  int ProcessOP(std::function<void(std::shared_ptr<OP>)> fn, bool use_tmp);

  /// Whether an event in the queue or side file names `full_path` or something below it, as path or old path. Reads the
  /// raw lines, in constant memory. Throws Error 502 if a file cannot be opened, 906 and 120 for a bad line.
  bool IsFullPathProcessing(const std::string& full_path);

  /// Whether a reindex event, with no other bit, for `full_path` or a folder above it is in the queue or side file.
  /// Reads and throws as IsFullPathProcessing.
  bool IsFullPathHasReindex(const std::string& full_path);

 private:
  std::string queue_path_;
  std::string queue_path_tmp_;
  mutable std::shared_ptr<OPTree> tree_;
  mutable std::shared_ptr<OPTree> tree_tmp_;
};

}  // namespace orbisk::fileindex
