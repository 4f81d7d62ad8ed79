// What the engine asks when hits are for one person's eyes: which of the files found may that person see?
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace search {

/// A document that a question has found, with what tells its file from another one at the same path.
struct Candidate {
  std::string path;
  std::optional<int64_t> created;  ///< seconds since 1970
  std::string owner;               ///< the user's number; "" when the document does not say
};

/// Threads: one at a time.
class Viewer {
 public:
  virtual ~Viewer() = default;
  /// For each candidate, whether it may be shown. What cannot be found out may not. May throw.
  virtual std::vector<bool> MaySee(const std::vector<Candidate>& candidates) = 0;
};

}  // namespace search
