// Text that an index meets as it meets language.
#pragma once

#include <random>
#include <string>

namespace orbisk::bench {

/// A vocabulary in which, as in language, few words are most of a text. The same words come each time.
///
/// Threads: used by one at a time.
class WordSource {
 public:
  std::string Word();
  /// Words with a blank behind each.
  std::string Text(int words);

 private:
  std::mt19937 random_{1};
};

}  // namespace orbisk::bench
