// Takes a record's words from all that the full text knows of it.
#include "services/search/suggestions.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "services/search/words.h"

namespace search {
namespace {

class SuggestedWords : public TokenSink {
 public:
  bool Take(std::string_view token, size_t, size_t, bool) override {
    constexpr size_t kShortest = 3;
    constexpr size_t kLongest = 40;
    const bool number = std::all_of(token.begin(), token.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (token.size() >= kShortest && token.size() <= kLongest && !number) {
      words.emplace(token);
    }
    return true;
  }
  std::set<std::string> words;
};

}  // namespace

std::set<std::string> WordsToSuggest(const Schema& schema, const Record& record) {
  SuggestedWords sink;
  WordAnalyzer analyzer({});
  for (size_t i = 0; i < schema.word_columns().size(); ++i) {
    std::string room;
    if (!schema.word_columns()[i].pieces) {
      analyzer.Words(schema.Words(record, i, room).text, WordAnalyzer::Stems::kNone, sink);
    }
  }
  return std::move(sink.words);
}

}  // namespace search
