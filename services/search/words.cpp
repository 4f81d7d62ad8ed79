// Text to words. ASCII goes a short way of its own; the rest goes through ICU.
#include "services/search/words.h"

#include <libstemmer.h>
#include <unicode/brkiter.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <functional>

#include "services/search/index.h"

namespace search {
namespace {

enum class Kind { kSeparator, kWord, kPair, kComplex };

constexpr char kNoWord = '\0';
constexpr char kNotAscii = '\x80';

// By byte: the character in lower case if it is of a word, or else one of the two above.
constexpr std::array<char, 256> kAsciiWords = [] {
  std::array<char, 256> table{};
  for (size_t i = 0; i < table.size(); ++i) {
    const bool upper = i >= 'A' && i <= 'Z';
    const bool word = upper || (i >= 'a' && i <= 'z') || (i >= '0' && i <= '9');
    table[i] = i >= 0x80 ? kNotAscii : word ? static_cast<char>(upper ? i + ('a' - 'A') : i) : kNoWord;
  }
  return table;
}();

bool IsAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string LowerAscii(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
  }
  return lower;
}

// The character at `offset`, which it moves on. A byte that is no UTF-8 is a character of Latin-1.
UChar32 Next(std::string_view text, size_t& offset) {
  const auto lead = static_cast<unsigned char>(text[offset]);
  if (lead < 0x80) {
    ++offset;
    return lead;
  }
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  int32_t i = 0;
  const auto left = static_cast<int32_t>(std::min<size_t>(text.size() - offset, 4));
  UChar32 c = 0;
  U8_NEXT(bytes + offset, i, left, c);
  if (c < 0) {
    return bytes[offset++];
  }
  offset += static_cast<size_t>(i);
  return c;
}

bool InPairs(UChar32 c) {
  struct Range {
    UChar32 first;
    UChar32 last;
  };
  static constexpr Range kRanges[] = {{0x1100, 0x11FF},     // Hangul, in pieces
                                      {0x3005, 0x3007},     // Han repetition marks, zero
                                      {0x3040, 0x31BF},     // Hiragana, Katakana, Bopomofo, Hangul letters
                                      {0x31F0, 0x31FF},     // more Katakana
                                      {0x3400, 0x4DBF},     // Han
                                      {0x4E00, 0x9FFF},     // Han
                                      {0xA960, 0xA97F},     // Hangul
                                      {0xAC00, 0xD7FF},     // Hangul
                                      {0xF900, 0xFAFF},     // Han
                                      {0xFF66, 0xFFDC},     // halfwidth Katakana and Hangul
                                      {0x1B000, 0x1B16F},   // more Kana
                                      {0x20000, 0x3FFFF}};  // Han
  return std::any_of(std::begin(kRanges), std::end(kRanges),
                     [c](const Range& range) { return c >= range.first && c <= range.last; });
}

Kind KindOf(UChar32 c) {
  if (c < 0x80) {
    return kAsciiWords[static_cast<size_t>(c)] != kNoWord ? Kind::kWord : Kind::kSeparator;
  }
  if (InPairs(c)) {
    return Kind::kPair;
  }
  if (c > 0x0E00 && u_getIntPropertyValue(c, UCHAR_LINE_BREAK) == U_LB_COMPLEX_CONTEXT) {
    return Kind::kComplex;
  }
  constexpr uint32_t kWordMask = U_GC_L_MASK | U_GC_M_MASK | U_GC_N_MASK;
  return (U_GET_GC_MASK(c) & kWordMask) != 0 ? Kind::kWord : Kind::kSeparator;
}

icu::UnicodeString Decode(std::string_view text) {
  icu::UnicodeString decoded;
  for (size_t offset = 0; offset < text.size();) {
    decoded.append(Next(text, offset));
  }
  return decoded;
}

// Marks of accents and of vowels that may be left out. Those of a lower class make other letters: dakuten, virama.
bool IsAccent(UChar32 c) {
  return c >= 0x300 && u_getCombiningClass(c) >= 10;
}

const icu::Normalizer2& Form(const icu::Normalizer2* (*get)(UErrorCode&)) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* form = get(status);
  if (U_FAILURE(status)) {
    throw Error(ErrorCode::kStorage, std::string("the data of ICU is missing: ") + u_errorName(status));
  }
  return *form;
}

icu::UnicodeString FoldUnicode(const icu::UnicodeString& text) {
  static const icu::Normalizer2& casefold = Form(icu::Normalizer2::getNFKCCasefoldInstance);
  static const icu::Normalizer2& decompose = Form(icu::Normalizer2::getNFDInstance);
  static const icu::Normalizer2& compose = Form(icu::Normalizer2::getNFCInstance);
  UErrorCode status = U_ZERO_ERROR;
  const icu::UnicodeString marked = decompose.normalize(casefold.normalize(text, status), status);
  icu::UnicodeString bare;
  for (int32_t i = 0; i < marked.length(); i = marked.moveIndex32(i, 1)) {
    const UChar32 c = marked.char32At(i);
    if (!IsAccent(c)) {
      bare.append(c);
    }
  }
  return compose.normalize(bare, status);
}

std::string Cut(std::string word) {
  if (word.size() > WordAnalyzer::kMaxWordBytes) {
    size_t end = WordAnalyzer::kMaxWordBytes;
    while (end > 0 && (static_cast<unsigned char>(word[end]) & 0xc0) == 0x80) {
      --end;
    }
    word.resize(end);
  }
  return word;
}

// The characters of one kind that begin at `offset`, which it moves to their end.
Kind NextRun(std::string_view text, size_t& offset) {
  Kind kind_of_run = Kind::kSeparator;
  for (const size_t begin = offset; offset < text.size();) {
    size_t next = offset;
    const UChar32 c = Next(text, next);
    const Kind kind = KindOf(c);
    // An accent belongs to the character before it, whatever that is.
    if (offset != begin && kind != kind_of_run && !(kind_of_run == Kind::kPair && IsAccent(c))) {
      break;
    }
    kind_of_run = offset == begin ? kind : kind_of_run;
    offset = next;
  }
  return kind_of_run;
}

// Where each character of a text begins, and its end.
std::vector<size_t> CharacterStarts(std::string_view text) {
  std::vector<size_t> starts;
  for (size_t offset = 0; offset < text.size();) {
    starts.push_back(offset);
    Next(text, offset);
  }
  starts.push_back(text.size());
  return starts;
}

}  // namespace

std::string Fold(std::string_view bytes) {
  if (IsAscii(bytes)) {
    return LowerAscii(bytes);
  }
  std::string folded;
  FoldUnicode(Decode(bytes)).toUTF8String(folded);
  return folded;
}

std::vector<std::string> UnicodeForms(const std::string& bytes) {
  std::vector<std::string> forms = {bytes};
  const icu::UnicodeString text = icu::UnicodeString::fromUTF8(bytes);
  std::string same;
  if (IsAscii(bytes) || text.toUTF8String(same) != bytes) {
    return forms;
  }
  for (const auto get : {icu::Normalizer2::getNFCInstance, icu::Normalizer2::getNFDInstance}) {
    UErrorCode status = U_ZERO_ERROR;
    std::string form;
    Form(get).normalize(text, status).toUTF8String(form);
    if (U_SUCCESS(status) && form != bytes) {
      forms.push_back(std::move(form));
    }
  }
  return forms;
}

// A Snowball stemmer.
class WordAnalyzer::Stemmer {
 public:
  explicit Stemmer(const std::string& language) : handle_(sb_stemmer_new(language.c_str(), "UTF_8")) {
    if (handle_ == nullptr) {
      throw Error(ErrorCode::kBadMappings, "no stemmer for the language \"" + language + "\"");
    }
  }

  // Valid until the next call.
  std::string_view Stem(std::string_view word) {
    const auto* stem =
        sb_stemmer_stem(handle_.get(), reinterpret_cast<const sb_symbol*>(word.data()), static_cast<int>(word.size()));
    if (stem == nullptr) {
      throw std::bad_alloc();
    }
    return {reinterpret_cast<const char*>(stem), static_cast<size_t>(sb_stemmer_length(handle_.get()))};
  }

 private:
  struct Deleter {
    void operator()(sb_stemmer* stemmer) const { sb_stemmer_delete(stemmer); }
  };
  std::unique_ptr<sb_stemmer, Deleter> handle_;
};

// Words seen last, each with the tokens that kStore puts beside it: text repeats its words. An entry is a cache line.
class WordAnalyzer::StemCache {
 public:
  struct alignas(64) Entry {
    uint8_t word_size = 0;
    uint8_t tokens_size = 0;
    std::array<char, 62> bytes{};  // the word, then its tokens, each behind its length

    std::string_view word() const { return {bytes.data(), word_size}; }
    std::string_view tokens() const { return {bytes.data() + word_size, tokens_size}; }
  };
  static_assert(sizeof(Entry) == 64);

  Entry& At(std::string_view word) { return entries_[std::hash<std::string_view>()(word) % kEntries]; }

  // False when they are too long to be kept.
  static bool Keep(Entry& entry, std::string_view word, std::string_view tokens) {
    if (word.size() + tokens.size() > entry.bytes.size()) {
      return false;
    }
    entry.word_size = static_cast<uint8_t>(word.size());
    entry.tokens_size = static_cast<uint8_t>(tokens.size());
    std::copy(word.begin(), word.end(), entry.bytes.begin());
    std::copy(tokens.begin(), tokens.end(), entry.bytes.begin() + word.size());
    return true;
  }

 private:
  static constexpr size_t kEntries = 4096;
  std::vector<Entry> entries_{kEntries};
};

// ICU's dictionary of the scripts that write no spaces: Thai, Lao, Khmer, Burmese.
class WordAnalyzer::Breaker {
 public:
  Breaker() {
    UErrorCode status = U_ZERO_ERROR;
    iterator_.reset(icu::BreakIterator::createWordInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) {
      throw Error(ErrorCode::kStorage, std::string("the word breaks of ICU are missing: ") + u_errorName(status));
    }
  }

  // The words of `text`, in order; together they are the text.
  std::vector<std::string> Break(std::string_view text) {
    const icu::UnicodeString decoded = Decode(text);
    iterator_->setText(decoded);
    std::vector<std::string> words;
    int32_t begin = iterator_->first();
    for (int32_t end = iterator_->next(); end != icu::BreakIterator::DONE; begin = end, end = iterator_->next()) {
      std::string word;
      decoded.tempSubStringBetween(begin, end).toUTF8String(word);
      words.push_back(std::move(word));
    }
    return words;
  }

 private:
  std::unique_ptr<icu::BreakIterator> iterator_;
};

WordAnalyzer::WordAnalyzer(const std::vector<std::string>& languages) {
  for (const std::string& language : languages) {
    stemmers_.push_back(std::make_unique<Stemmer>(language));
  }
  if (!stemmers_.empty()) {
    cache_ = std::make_unique<StemCache>();
  }
}

WordAnalyzer::~WordAnalyzer() = default;

bool WordAnalyzer::EmitWord(std::string_view folded, size_t begin, size_t end, Stems stems, TokenSink& sink) {
  if (folded.empty()) {
    return true;
  }
  if (!sink.Take(folded, begin, end, false)) {
    return false;
  }
  if (stems == Stems::kNone || stemmers_.empty()) {
    return true;
  }
  if (stems == Stems::kStore) {
    return EmitTokens(StoredStems(folded), begin, end, sink);
  }
  return EmitTokens(StemTokens(folded, stems), begin, end, sink);
}

// What is beside `folded`, as StemCache::Entry keeps it.
std::string WordAnalyzer::StemTokens(std::string_view folded, Stems stems) {
  std::vector<std::string> done;
  std::string tokens;
  const auto add = [&tokens](std::string_view token) {
    tokens += static_cast<char>(token.size());
    tokens += token;
  };
  for (const auto& stemmer : stemmers_) {
    const std::string_view stem = stemmer->Stem(folded).substr(0, kMaxStemBytes);
    // A word that is its own stem is kept once; who asks for any form asks for the bare stem and for the marked one.
    if ((stem == folded && stems == Stems::kStore) || stem.empty()) {
      continue;
    }
    std::string marked = kStemMark + std::string(stem);
    if (std::find(done.begin(), done.end(), marked) != done.end()) {
      continue;
    }
    add(marked);
    if (stems == Stems::kAsk && stem != folded) {
      add(stem);
    }
    done.push_back(std::move(marked));
  }
  return tokens;
}

std::string_view WordAnalyzer::StoredStems(std::string_view folded) {
  StemCache::Entry& entry = cache_->At(folded);
  if (entry.word() == folded) {
    return entry.tokens();
  }
  uncached_ = StemTokens(folded, Stems::kStore);
  return StemCache::Keep(entry, folded, uncached_) ? entry.tokens() : uncached_;
}

bool WordAnalyzer::EmitTokens(std::string_view tokens, size_t begin, size_t end, TokenSink& sink) {
  while (!tokens.empty()) {
    const auto size = static_cast<unsigned char>(tokens.front());
    if (!sink.Take(tokens.substr(1, size), begin, end, true)) {
      return false;
    }
    tokens.remove_prefix(1 + size_t{size});
  }
  return true;
}

bool WordAnalyzer::EmitRun(std::string_view run, size_t begin, Stems stems, TokenSink& sink) {
  if (!breaker_) {
    breaker_ = std::make_unique<Breaker>();
  }
  for (const std::string& word : breaker_->Break(run)) {
    if (!EmitWord(Cut(Fold(word)), begin, begin + word.size(), stems, sink)) {
      return false;
    }
    begin += word.size();
  }
  return true;
}

bool WordAnalyzer::EmitPairs(std::string_view run, size_t begin, bool asking, TokenSink& sink) {
  const std::string folded = Fold(run);
  const std::vector<size_t> at = CharacterStarts(folded);
  const std::vector<size_t> source = CharacterStarts(run);
  const bool same = at.size() == source.size();  // else a pair cannot be told apart in the source
  const size_t count = at.size() - 1;
  const auto take = [&](size_t first, size_t last, bool colocated) {
    return sink.Take(std::string_view(folded).substr(at[first], at[last] - at[first]),
                     same ? begin + source[first] : begin, same ? begin + source[last] : begin + run.size(), colocated);
  };
  for (size_t i = 0; i + 1 < count; ++i) {
    if (!take(i, i + 2, false)) {
      return false;
    }
  }
  // The last character alone, so that one character, asked for as a beginning of pairs, is found at the end as well.
  return count == 0 || (asking && count > 1) || take(count - 1, count, count > 1);
}

// The word of ASCII that begins at `offset`, which it moves to the word's end. False, and `offset` stays, when the word
// goes on with other characters.
bool WordAnalyzer::EmitAsciiWord(std::string_view text, size_t& offset, Stems stems, TokenSink& sink, bool& go_on) {
  std::array<char, kMaxWordBytes> word;
  size_t size = 0;
  bool letters = false;
  size_t end = offset;
  for (; end < text.size(); ++end) {
    const char lower = kAsciiWords[static_cast<unsigned char>(text[end])];
    if (lower == kNoWord) {
      break;
    }
    if (lower == kNotAscii) {
      return false;
    }
    letters = letters || lower >= 'a';
    if (size < word.size()) {
      word[size++] = lower;
    }
  }
  // No language has forms of a number in digits.
  go_on = EmitWord({word.data(), size}, offset, end, letters || stems == Stems::kAsk ? stems : Stems::kNone, sink);
  offset = end;
  return true;
}

// What is not ASCII alone, from `offset` on, which it moves to its end. False when the sink stopped.
bool WordAnalyzer::EmitMixedRun(std::string_view text, size_t& offset, Stems stems, TokenSink& sink) {
  const size_t begin = offset;
  const Kind kind = NextRun(text, offset);
  const std::string_view source = text.substr(begin, offset - begin);
  switch (kind) {
    case Kind::kWord:
      return EmitWord(Cut(Fold(source)), begin, offset, stems, sink);
    case Kind::kPair:
      return EmitPairs(source, begin, stems != Stems::kStore, sink);
    case Kind::kComplex:
      return EmitRun(source, begin, stems, sink);
    case Kind::kSeparator:
      break;
  }
  return true;
}

bool WordAnalyzer::Words(std::string_view text, Stems stems, TokenSink& sink) {
  bool go_on = true;
  for (size_t offset = 0; offset < text.size() && go_on;) {
    const char first = kAsciiWords[static_cast<unsigned char>(text[offset])];
    if (first == kNoWord) {
      ++offset;
    } else if (first == kNotAscii || !EmitAsciiWord(text, offset, stems, sink, go_on)) {
      go_on = EmitMixedRun(text, offset, stems, sink);
    }
  }
  return go_on;
}

namespace {

// Hands on the words of a chunk beside the chunk itself, of which the first word takes the place.
class BesideChunk : public TokenSink {
 public:
  BesideChunk(TokenSink& sink, std::string_view chunk, size_t offset) : sink_(sink), chunk_(chunk), offset_(offset) {}
  bool Take(std::string_view token, size_t begin, size_t end, bool colocated) override {
    const bool first = first_;
    first_ = false;
    return token == chunk_ || sink_.Take(token, offset_ + begin, offset_ + end, colocated || first);
  }

 private:
  TokenSink& sink_;
  std::string_view chunk_;
  size_t offset_;
  bool first_ = true;
};

bool IsBlank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// Whether the character at `offset` is a backslash that takes its meaning from the next one.
bool IsEscape(std::string_view text, size_t offset) {
  return text[offset] == '\\' && offset + 1 < text.size() && (IsBlank(text[offset + 1]) || text[offset + 1] == '\\');
}

}  // namespace

bool WordAnalyzer::WhiteSpace(std::string_view text, bool escaped, Stems stems, TokenSink& sink) {
  for (size_t offset = 0; offset < text.size();) {
    if (IsBlank(text[offset])) {
      ++offset;
      continue;
    }
    size_t end = offset;
    size_t copied = offset;
    std::string bare;
    for (; end < text.size() && !IsBlank(text[end]); ++end) {
      if (escaped && IsEscape(text, end)) {
        bare += text.substr(copied, end - copied);
        copied = ++end;
      }
    }
    bare += text.substr(copied, end - copied);
    const std::string_view source = text.substr(offset, end - offset);
    const std::string chunk = Cut(Fold(bare));
    if (!chunk.empty() && !sink.Take(chunk, offset, end, false)) {
      return false;
    }
    BesideChunk beside(sink, chunk, offset);
    if (!Words(source, stems, beside)) {
      return false;
    }
    offset = end;
  }
  return true;
}

bool WordAnalyzer::Keyword(std::string_view text, TokenSink& sink) {
  const std::string folded = Cut(Fold(text));
  return folded.empty() || sink.Take(folded, 0, text.size(), false);
}

bool WordAnalyzer::Pieces(std::string_view text, bool asking, TokenSink& sink) {
  constexpr size_t kLength = 3;
  const std::string folded = Fold(text);
  const std::vector<size_t> at = CharacterStarts(folded);
  const size_t count = at.size() - 1;
  for (size_t i = 0; i < count; ++i) {
    const size_t last = std::min(i + kLength, count);
    if (asking && i > 0 && last - i < kLength) {
      break;
    }
    const std::string piece = kPieceMark + folded.substr(at[i], at[last] - at[i]);
    if (!sink.Take(piece, 0, text.size(), false)) {
      return false;
    }
  }
  return true;
}

}  // namespace search
