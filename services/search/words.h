// Text to words: folding of case and accents, word boundaries, stems, pairs of CJK, three-letter pieces of names.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace search {

/// The text as UTF-8 without differences of case, accents and Unicode forms. Bytes that are not UTF-8 are read as
/// Latin-1, so that any name folds to something, and the same name always to the same. Any thread.
std::string Fold(std::string_view bytes);

/// The bytes, and their composed and decomposed Unicode forms where these differ. Bytes that are not UTF-8 have no
/// other form.
std::vector<std::string> UnicodeForms(const std::string& bytes);

/// Takes the tokens of one text, in order.
class TokenSink {
 public:
  virtual ~TokenSink() = default;
  /// `begin` and `end` are offsets in the source text. A `colocated` token stands at the place of the one before.
  /// False stops the analysis.
  virtual bool Take(std::string_view token, size_t begin, size_t end, bool colocated) = 0;
};

/// The tokens of one language set. Used by one thread at a time (it holds ICU's and Snowball's objects).
class WordAnalyzer {
 public:
  /// `languages` are Snowball names. Throws Error kBadMappings for an unknown one.
  explicit WordAnalyzer(const std::vector<std::string>& languages);
  ~WordAnalyzer();
  WordAnalyzer(const WordAnalyzer&) = delete;
  WordAnalyzer& operator=(const WordAnalyzer&) = delete;

  enum class Stems {
    kNone,   ///< words as they stand
    kStore,  ///< beside each word its stems, each marked with kStemMark, if they differ from the word
    kAsk,    ///< beside each word whatever kStore may have kept for another form of it
  };

  /// Words; false when the sink stopped.
  bool Words(std::string_view text, Stems stems, TokenSink& sink);
  /// What stands between white space, folded, and beside it the words in it. If it is `escaped`, a backslash takes its
  /// meaning from the white space or the backslash after it, and is itself no part of the token.
  bool WhiteSpace(std::string_view text, bool escaped, Stems stems, TokenSink& sink);
  /// The whole text, folded, as one token.
  bool Keyword(std::string_view text, TokenSink& sink);
  /// Three characters from each character on, fewer at the end. When `asking`, the short ones are left out unless the
  /// text itself is that short.
  bool Pieces(std::string_view text, bool asking, TokenSink& sink);

  /// Stands before a stem, so that a phrase in quotes does not find other forms of its words.
  static constexpr char kStemMark = '\x05';
  static constexpr char kPieceMark = '\x01';
  /// Longer words are cut: they are numbers, keys or base64, and nobody types them.
  static constexpr size_t kMaxWordBytes = 96;

 private:
  class Stemmer;
  class StemCache;
  class Breaker;
  /// A stem with its mark has room behind a length of one byte; no language's stem is near that.
  static constexpr size_t kMaxStemBytes = 250;

  bool EmitAsciiWord(std::string_view text, size_t& offset, Stems stems, TokenSink& sink, bool& go_on);
  bool EmitMixedRun(std::string_view text, size_t& offset, Stems stems, TokenSink& sink);
  bool EmitWord(std::string_view folded, size_t begin, size_t end, Stems stems, TokenSink& sink);
  std::string StemTokens(std::string_view folded, Stems stems);
  std::string_view StoredStems(std::string_view folded);
  bool EmitTokens(std::string_view tokens, size_t begin, size_t end, TokenSink& sink);
  bool EmitRun(std::string_view run, size_t begin, Stems stems, TokenSink& sink);
  bool EmitPairs(std::string_view run, size_t begin, bool asking, TokenSink& sink);

  std::vector<std::unique_ptr<Stemmer>> stemmers_;
  std::unique_ptr<StemCache> cache_;  // with stemmers only
  std::string uncached_;              // tokens of the last word that the cache could not keep
  std::unique_ptr<Breaker> breaker_;
};

}  // namespace search
