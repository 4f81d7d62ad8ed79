/// The rule by which the status texts of folders become that of a group, and of all.
#pragma once

#include <string>

namespace orbisk::fileindex {

/// The status of several folders together, "finished" of none. What comes later counts: work in progress hides a pause
/// and a needed reindex that were met before it.
class CombinedStatus {
 public:
  /// A text that is none of those that folders have counts as "processing".
  void Add(const std::string& text) {
    if (text == "finished" || text_ == "error") {
      return;
    }
    if (text == "paused" && text_ == "need_reindex") {
      return;
    }
    const bool is_known = text == "error" || text == "need_reindex" || text == "paused";
    text_ = is_known ? text : "processing";
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_ = "finished";
};

}  // namespace orbisk::fileindex
