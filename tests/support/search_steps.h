// What library and search daemon say to each other, as one table: the library's tests hold its requests against it,
// the daemon's tests its answers.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace orbisk::test {

/// A request to the search daemon, byte by byte, and its answer, as JSON of any form.
struct SearchExchange {
  std::string request;
  std::string answer;
};

/// One call into the library.
struct SearchStep {
  const char* name;
  /// Calls the library. What came of it: "done", what it found, separated by blanks, or "CODE REASON" of an Error.
  std::function<std::string()> call;
  std::string outcome;
  std::vector<SearchExchange> exchanges;
};

/// The life of an index from its creation to its deletion. Each step stands on those before it.
///
/// The share "photo" is the folder `volume`/photo. No document has more than its path, name and parent.
std::vector<SearchStep> SearchSteps(const std::string& volume);

}  // namespace orbisk::test
