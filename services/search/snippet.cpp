// Snippets: the matches of a text's beginning, the window with most of them, its bytes in one line.
#include "services/search/snippet.h"

#include <algorithm>
#include <set>

namespace search {
namespace {

constexpr size_t kWindowBytes = 160;
constexpr size_t kContextBytes = 40;  // before the first match
constexpr size_t kLookedAtBytes = 1 << 20;
constexpr size_t kMaxMatches = 200;
constexpr char kEllipsis[] = "…";

class Collector : public TokenSink {
 public:
  bool Take(std::string_view token, size_t, size_t, bool) override {
    tokens.emplace_back(token);
    return true;
  }
  std::vector<std::string> tokens;
};

// A place near `at`, not before it, where no character and no word is cut.
size_t WordStart(std::string_view text, size_t at) {
  constexpr size_t kLongWord = 20;
  if (at == 0) {
    return 0;
  }
  for (size_t i = at; i < text.size() && i < at + kLongWord; ++i) {
    if (text[i - 1] == ' ' || text[i - 1] == '\n') {
      return i;
    }
  }
  while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xc0) == 0x80) {
    ++at;
  }
  return at;
}

size_t WordEnd(std::string_view text, size_t at) {
  constexpr size_t kLongWord = 20;
  if (at >= text.size()) {
    return text.size();
  }
  for (size_t i = at; i > 0 && i + kLongWord > at; --i) {
    if (text[i] == ' ' || text[i] == '\n') {
      return i;
    }
  }
  while (at > 0 && (static_cast<unsigned char>(text[at]) & 0xc0) == 0x80) {
    --at;
  }
  return at;
}

void AppendLine(std::string& out, std::string_view text) {
  for (const char c : text) {
    const bool blank = static_cast<unsigned char>(c) <= ' ' || c == '\x7f';
    if (!blank) {
      out += c;
    } else if (!out.empty() && out.back() != ' ') {
      out += ' ';
    }
  }
}

}  // namespace

class SnippetMaker::Finder : public TokenSink {
 public:
  explicit Finder(const SnippetMaker& maker) : maker_(maker) {}

  bool Take(std::string_view token, size_t begin, size_t end, bool) override {
    std::string_view found;
    if (const auto exact = maker_.tokens_.find(std::string(token)); exact != maker_.tokens_.end()) {
      found = *exact;
    }
    for (const std::string& prefix : maker_.prefixes_) {
      if (found.empty() && token.substr(0, prefix.size()) == prefix) {
        found = prefix;
      }
    }
    if (found.empty()) {
      return true;
    }
    // Pairs and colocated stems lie over one another; one mark serves them.
    if (!matches.empty() && begin < matches.back().end) {
      matches.back().end = std::max(matches.back().end, end);
    } else {
      matches.push_back({begin, end, found});
    }
    return matches.size() < kMaxMatches;
  }

  std::vector<Match> matches;

 private:
  const SnippetMaker& maker_;
};

SnippetMaker::SnippetMaker(const std::vector<std::string>& languages, const std::vector<std::string>& words,
                           const std::vector<std::string>& prefixes, std::string mark_begin, std::string mark_end)
    : analyzer_(languages), mark_begin_(std::move(mark_begin)), mark_end_(std::move(mark_end)) {
  Collector any;
  for (const std::string& word : words) {
    analyzer_.Words(word, WordAnalyzer::Stems::kAsk, any);
  }
  tokens_.insert(any.tokens.begin(), any.tokens.end());
  Collector beginnings;
  for (const std::string& prefix : prefixes) {
    analyzer_.Words(prefix, WordAnalyzer::Stems::kNone, beginnings);
  }
  prefixes_ = std::move(beginnings.tokens);
}

// The first match of the window that has most different words, then most matches.
size_t SnippetMaker::BestMatch(const std::vector<Match>& matches) const {
  size_t best = 0;
  std::pair<size_t, size_t> best_counts;
  for (size_t first = 0; first < matches.size(); ++first) {
    std::set<std::string_view> different;
    size_t count = 0;
    for (size_t i = first; i < matches.size() && matches[i].end <= matches[first].begin + kWindowBytes; ++i) {
      different.insert(matches[i].token);
      ++count;
    }
    if (std::pair(different.size(), count) > best_counts) {
      best_counts = {different.size(), count};
      best = first;
    }
  }
  return best;
}

std::string SnippetMaker::Make(std::string_view text) {
  text = text.substr(0, WordEnd(text, kLookedAtBytes));
  Finder finder(*this);
  if (!tokens_.empty() || !prefixes_.empty()) {
    analyzer_.Words(text, WordAnalyzer::Stems::kStore, finder);
  }
  size_t begin = 0;
  size_t least = 0;
  if (!finder.matches.empty()) {
    const Match& match = finder.matches[BestMatch(finder.matches)];
    begin = match.begin > kContextBytes ? std::min(WordStart(text, match.begin - kContextBytes), match.begin) : 0;
    least = match.end;
  }
  const size_t end = std::max(least, WordEnd(text, begin + kContextBytes + kWindowBytes));
  return Mark(text, begin, end, finder.matches);
}

std::string SnippetMaker::Mark(std::string_view text, size_t begin, size_t end,
                               const std::vector<Match>& matches) const {
  std::string snippet = begin > 0 ? kEllipsis : "";
  size_t at = begin;
  for (const Match& match : matches) {
    if (match.begin < at || match.end > end) {
      continue;
    }
    AppendLine(snippet, text.substr(at, match.begin - at));
    snippet += mark_begin_;
    AppendLine(snippet, text.substr(match.begin, match.end - match.begin));
    snippet += mark_end_;
    at = match.end;
  }
  AppendLine(snippet, text.substr(at, end - at));
  return snippet + (end < text.size() ? kEllipsis : "");
}

}  // namespace search
