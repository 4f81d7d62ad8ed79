// Text to words. ASCII goes a short way of its own; the rest goes through ICU.
#include "services/search/words.h"

#include <libstemmer.h>
#include <unicode/brkiter.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <functional>

#include "services/search/index.h"

namespace search {
namespace {

enum class Kind { kSeparator, kWord, kPair, kComplex };

bool IsAsciiWord(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

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
    return IsAsciiWord(static_cast<unsigned char>(c)) ? Kind::kWord : Kind::kSeparator;
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

struct Run {
  Kind kind;
  bool ascii;
};

// The characters of one kind that begin at `offset`, which it moves to their end.
Run NextRun(std::string_view text, size_t& offset) {
  Run run{Kind::kSeparator, true};
  for (const size_t begin = offset; offset < text.size();) {
    size_t next = offset;
    const UChar32 c = Next(text, next);
    const Kind kind = KindOf(c);
    // An accent belongs to the character before it, whatever that is.
    if (offset != begin && kind != run.kind && !(run.kind == Kind::kPair && IsAccent(c))) {
      break;
    }
    run.kind = offset == begin ? kind : run.kind;
    run.ascii = run.ascii && c < 0x80;
    offset = next;
  }
  return run;
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

// A Snowball stemmer with the stems of the words seen last: text repeats its words.
class WordAnalyzer::Stemmer {
 public:
  explicit Stemmer(const std::string& language) : handle_(sb_stemmer_new(language.c_str(), "UTF_8")) {
    if (handle_ == nullptr) {
      throw Error(ErrorCode::kBadMappings, "no stemmer for the language \"" + language + "\"");
    }
  }

  // Valid until the next call.
  std::string_view Stem(std::string_view word) {
    Entry& entry = cache_[std::hash<std::string_view>()(word) % kEntries];
    if (entry.word != word) {
      const auto* stem = sb_stemmer_stem(handle_.get(), reinterpret_cast<const sb_symbol*>(word.data()),
                                         static_cast<int>(word.size()));
      if (stem == nullptr) {
        throw std::bad_alloc();
      }
      entry.word = word;
      entry.stem.assign(reinterpret_cast<const char*>(stem), static_cast<size_t>(sb_stemmer_length(handle_.get())));
    }
    return entry.stem;
  }

 private:
  static constexpr size_t kEntries = 4096;
  struct Entry {
    std::string word;
    std::string stem;
  };
  struct Deleter {
    void operator()(sb_stemmer* stemmer) const { sb_stemmer_delete(stemmer); }
  };
  std::unique_ptr<sb_stemmer, Deleter> handle_;
  std::vector<Entry> cache_{kEntries};
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
}

WordAnalyzer::~WordAnalyzer() = default;

bool WordAnalyzer::EmitWord(std::string_view folded, size_t begin, size_t end, Stems stems, bool colocated,
                            TokenSink& sink) {
  if (folded.empty()) {
    return true;
  }
  if (!sink.Take(folded, begin, end, colocated)) {
    return false;
  }
  if (stems == Stems::kNone) {
    return true;
  }
  std::vector<std::string> done;
  for (const auto& stemmer : stemmers_) {
    const std::string_view stem = stemmer->Stem(folded);
    // A word that is its own stem is kept once; who asks for any form asks for the bare stem and for the marked one.
    if ((stem == folded && stems == Stems::kStore) || stem.empty()) {
      continue;
    }
    std::string marked = kStemMark + std::string(stem);
    if (std::find(done.begin(), done.end(), marked) != done.end()) {
      continue;
    }
    if (!sink.Take(marked, begin, end, true) ||
        (stems == Stems::kAsk && stem != folded && !sink.Take(stem, begin, end, true))) {
      return false;
    }
    done.push_back(std::move(marked));
  }
  return true;
}

bool WordAnalyzer::EmitRun(std::string_view run, size_t begin, Stems stems, TokenSink& sink) {
  if (!breaker_) {
    breaker_ = std::make_unique<Breaker>();
  }
  for (const std::string& word : breaker_->Break(run)) {
    if (!EmitWord(Cut(Fold(word)), begin, begin + word.size(), stems, false, sink)) {
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

bool WordAnalyzer::Words(std::string_view text, Stems stems, TokenSink& sink) {
  for (size_t offset = 0; offset < text.size();) {
    const size_t begin = offset;
    const Run run = NextRun(text, offset);
    const std::string_view source = text.substr(begin, offset - begin);
    bool go_on = true;
    if (run.kind == Kind::kWord) {
      go_on = EmitWord(Cut(run.ascii ? LowerAscii(source) : Fold(source)), begin, offset, stems, false, sink);
    } else if (run.kind == Kind::kPair) {
      go_on = EmitPairs(source, begin, stems != Stems::kStore, sink);
    } else if (run.kind == Kind::kComplex) {
      go_on = EmitRun(source, begin, stems, sink);
    }
    if (!go_on) {
      return false;
    }
  }
  return true;
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
