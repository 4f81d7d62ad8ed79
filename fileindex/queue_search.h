// Asking a queue for many paths at the cost of reading it once.
#pragma once

#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "orbisk/fileindex/op.h"

namespace orbisk::fileindex {

/// One queue or side file, read forwards as far as the questions need it.
///
/// Each question has the answer or the error that reading the file from its beginning for this question alone has: a
/// bad line fails the questions that are not answered before it, and only these.
class QueueFileSearch {
 public:
  /// Only `full_paths` can be asked for.
  QueueFileSearch(std::string path, const std::vector<std::string>& full_paths);

  /// Whether an event names `full_path` or something below it, as path or old path. Throws Error 502 if the file cannot
  /// be opened, 906 and 120 for a bad line.
  bool FindQueue(const std::string& full_path);

 private:
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };

  bool ReadLine();
  void Mark(std::string_view event_path);

  const std::string path_;
  std::unordered_map<std::string, bool, Hash, std::equal_to<>> found_;
  std::unique_ptr<std::ifstream> input_;  // null until the first question
  std::string line_;                      // the bad line that reading stopped at
  bool stopped_at_bad_line_ = false;
};

/// A queue with its side file: QueueMgr::IsFullPathProcessing for many paths.
///
/// Threads: as QueueMgr.
class QueueSearch {
 public:
  QueueSearch(const std::string& queue_path, const std::vector<std::string>& full_paths);

  /// As QueueMgr::IsFullPathProcessing.
  bool IsFullPathProcessing(const std::string& full_path);

 private:
  bool configuration_read_ = false;
  QueueFileSearch queue_;
  QueueFileSearch side_file_;
};

}  // namespace orbisk::fileindex
