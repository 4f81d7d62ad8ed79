// An extractor that takes requests and answers none.
#pragma once

#include <chrono>
#include <vector>

namespace orbisk::test {

/// Stands where the box's extractor was, which has to be stopped before. Who has given it a file waits as long as it
/// lives. Who asks for its status hears at once that there will be no answer.
///
/// Threads: one.
class SilentExtractor {
 public:
  SilentExtractor();
  ~SilentExtractor();
  SilentExtractor(const SilentExtractor&) = delete;
  SilentExtractor& operator=(const SilentExtractor&) = delete;

  /// Whether one more file is given to it within `limit`.
  bool OneMoreComes(std::chrono::milliseconds limit);

 private:
  int listener_;
  std::vector<int> requests_;
};

}  // namespace orbisk::test
