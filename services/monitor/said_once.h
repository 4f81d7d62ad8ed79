// Keeps a record about many paths from filling the log.
#pragma once

#include <cstddef>
#include <string>
#include <unordered_set>

namespace nimotifyd {

/// Which paths have been named.
class SaidOnce {
 public:
  enum class Answer { kSay, kSayLast, kKeepQuiet };

  /// `most`: paths to name at most.
  explicit SaidOnce(size_t most) : most_(most) {}

  /// kSay the first time that `path` is asked for. kSayLast for the last one to be named: the record should say that
  /// others are not.
  Answer Ask(const std::string& path) {
    if (said_.size() >= most_ || !said_.insert(path).second) {
      return Answer::kKeepQuiet;
    }
    return said_.size() == most_ ? Answer::kSayLast : Answer::kSay;
  }

 private:
  size_t most_;
  std::unordered_set<std::string> said_;
};

}  // namespace nimotifyd
