// Contents that are known to bring a worker down.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <tuple>

#include "services/extractor/attributes.h"
#include "services/extractor/outcome.h"

namespace extractor {

/// Remembers contents that a worker died of, with the reason, so that one bad file does not cost a worker and a
/// deadline each time somebody asks. A file that changes is another content. Holds the `most` latest ones.
///
/// Threads: one at a time.
class FailureList {
 public:
  /// One content: a file in one state, by inode, size and dates. Without the file system, whose number may be another
  /// one after the next start of the machine.
  using Identity = std::tuple<uint64_t, uint64_t, int64_t, uint32_t, int64_t, uint32_t>;

  /// A failure as it was.
  struct Failure {
    Outcome::Kind kind = Outcome::Kind::kDied;
    std::string message;
    std::string path{};  ///< where the content was then; for people
  };

  explicit FailureList(size_t most) : most_(most) {}

  static Identity IdentityOf(const Attributes& attributes);

  void Add(const Identity& content, Failure failure);
  /// Null if nothing is known against it.
  const Failure* Find(const Identity& content) const;
  size_t size() const { return failures_.size(); }
  /// Calls `visit` with each content and its failure, the oldest first.
  void ForEach(const std::function<void(const Identity&, const Failure&)>& visit) const;

 private:
  size_t most_;
  std::map<Identity, Failure> failures_;
  std::deque<Identity> order_;
};

}  // namespace extractor
