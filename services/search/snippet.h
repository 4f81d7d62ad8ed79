// The piece of a text that shows why it was found.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "services/search/words.h"

namespace search {

/// Makes snippets for one question. Used by one thread at a time.
class SnippetMaker {
 public:
  /// `words` and `prefixes` are texts of the question; the first count in any form.
  SnippetMaker(const std::vector<std::string>& languages, const std::vector<std::string>& words,
               const std::vector<std::string>& prefixes, std::string mark_begin, std::string mark_end);

  /// About 200 bytes of `text` in one line, where most of the words stand, with marks round them; the beginning when
  /// there are none. Looks at no more than the first MiB.
  std::string Make(std::string_view text);

 private:
  struct Match {
    size_t begin;
    size_t end;
    std::string_view token;  // into tokens_ or prefixes_
  };
  class Finder;
  size_t BestMatch(const std::vector<Match>& matches) const;
  std::string Mark(std::string_view text, size_t begin, size_t end, const std::vector<Match>& matches) const;

  WordAnalyzer analyzer_;
  std::unordered_set<std::string> tokens_;
  std::vector<std::string> prefixes_;
  std::string mark_begin_;
  std::string mark_end_;
};

}  // namespace search
