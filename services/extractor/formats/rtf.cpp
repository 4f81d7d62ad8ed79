// Rich Text Format: a small reader, as only its words are wanted.
#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <vector>

#include "services/extractor/formats/charset.h"
#include "services/extractor/formats/limits.h"
#include "services/extractor/formats/reading.h"

namespace extractor {
namespace {

constexpr std::size_t kChunkBytes = std::size_t{64} << 10;

/// Bytes of the file one by one.
class Bytes {
 public:
  explicit Bytes(const Input& input) : input_(input), buffer_(kChunkBytes) {}

  /// The next byte without taking it; -1 at the end.
  int Peek() {
    if (at_ == filled_) {
      filled_ = input_.ReadAt(offset_, buffer_.data(), buffer_.size());
      offset_ += filled_;
      at_ = 0;
    }
    return at_ < filled_ ? static_cast<unsigned char>(buffer_[at_]) : -1;
  }
  int Take() {
    const int byte = Peek();
    at_ += byte >= 0 ? 1U : 0U;
    return byte;
  }

 private:
  const Input& input_;
  std::vector<char> buffer_;
  std::uint64_t offset_ = 0;
  std::size_t at_ = 0;
  std::size_t filled_ = 0;
};

bool IsLetter(int c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool IsDigit(int c) {
  return c >= '0' && c <= '9';
}

int HexDigit(int c) {
  if (IsDigit(c)) {
    return c - '0';
  }
  const int lower = c | 0x20;
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::string Utf8Of(char32_t character) {
  const auto byte = [](char32_t value) { return static_cast<char>(static_cast<unsigned char>(value)); };
  if (character < 0x80) {
    return {byte(character)};
  }
  if (character < 0x800) {
    return {byte(0xC0U | character >> 6U), byte(0x80U | (character & 0x3FU))};
  }
  if (character < 0x10000) {
    return {byte(0xE0U | character >> 12U), byte(0x80U | (character >> 6U & 0x3FU)), byte(0x80U | (character & 0x3FU))};
  }
  return {byte(0xF0U | character >> 18U), byte(0x80U | (character >> 12U & 0x3FU)),
          byte(0x80U | (character >> 6U & 0x3FU)), byte(0x80U | (character & 0x3FU))};
}

/// Where the text of a group goes.
enum class Target { kText, kNowhere, kField };

struct Group {
  Target target = Target::kText;
  const char* field = nullptr;  // of kField
  int skip_after_unicode = 1;   // how many characters repeat a \u for readers that do not know it
};

struct Named {
  std::string_view word;
  const char* field;
};

constexpr Named kFields[] = {{"title", names::kMDTitle},           {"author", names::kMDAuthors},
                             {"subject", names::kMDSubject},       {"keywords", names::kMDKeywords},
                             {"company", names::kMDOrganizations}, {"manager", names::kMDManager},
                             {"category", names::kMDCategory},     {"doccomm", names::kMDComment}};

constexpr std::string_view kHiddenDestinations[] = {
    "fonttbl", "colortbl", "stylesheet", "listtable",         "listoverridetable", "rsidtbl",  "generator", "pict",
    "object",  "objdata",  "themedata",  "datastore",         "latentstyles",      "xmlnstbl", "fldinst",   "bkmkstart",
    "bkmkend", "info",     "revtbl",     "filetbl",           "template",          "operator", "nextfile",  "xe",
    "tc",      "private",  "mmathPr",    "colorschememapping"};

struct Symbol {
  std::string_view word;
  std::string_view text;
};

constexpr Symbol kSymbols[] = {
    {"par", "\n"},           {"line", "\n"},       {"sect", "\n"},       {"page", "\n"},
    {"row", "\n"},           {"cell", "\t"},       {"tab", "\t"},        {"emdash", "\u2014"},
    {"endash", "\u2013"},    {"lquote", "\u2018"}, {"rquote", "\u2019"}, {"ldblquote", "\u201C"},
    {"rdblquote", "\u201D"}, {"bullet", "\u2022"}, {"emspace", " "},     {"enspace", " "}};

template <typename Table>
auto Find(const Table& table, std::string_view word) {
  const auto found =
      std::find_if(std::begin(table), std::end(table), [&](const auto& row) { return row.word == word; });
  return found == std::end(table) ? nullptr : &*found;
}

class RtfReader {
 public:
  explicit RtfReader(Reading& reading) : reading_(reading), bytes_(reading.input), groups_(1) {}

  void Read() {
    while (!reading_.text.full()) {
      const int byte = bytes_.Take();
      if (byte < 0) {
        EndRun();
        if (groups_.size() > 1) {
          throw BrokenContent("broken RTF: " + std::to_string(groups_.size() - 1) + " groups are not closed");
        }
        return;
      }
      OnByte(byte);
    }
  }

 private:
  void OnByte(int byte) {
    switch (byte) {
      case '{':
        Open();
        break;
      case '}':
        Close();
        break;
      case '\\':
        OnEscape();
        break;
      case '\r':
      case '\n':
        break;
      default:
        PutByte(static_cast<char>(byte));
    }
  }

  void Open() {
    EndRun();
    if (groups_.size() > kMaxRtfDepth) {
      throw BrokenContent("broken RTF: groups nested deeper than " + std::to_string(kMaxRtfDepth));
    }
    groups_.push_back(groups_.back());
  }

  void Close() {
    EndRun();
    if (groups_.size() == 1) {
      throw BrokenContent("broken RTF: a group is closed that was not opened");
    }
    const Group closed = groups_.back();
    groups_.pop_back();
    if (closed.target == Target::kField && groups_.back().target != Target::kField) {
      reading_.fields.TextIfMissing(closed.field, value_);
      value_.clear();
    }
  }

  void OnEscape() {
    const int next = bytes_.Take();
    if (IsLetter(next)) {
      OnWord(next);
    } else if (next == '\'') {
      const int high = HexDigit(bytes_.Take());
      const int low = HexDigit(bytes_.Take());
      if (high >= 0 && low >= 0) {
        PutByte(static_cast<char>(static_cast<unsigned char>(high * 16 + low)));
      }
    } else if (next == '*') {
      // A destination that a reader may pass by when it does not know it; those known are found by their word.
      optional_ = true;
    } else if (next == '\\' || next == '{' || next == '}') {
      PutByte(static_cast<char>(next));
    } else if (next == '~' || next == '\r' || next == '\n') {
      PutUtf8(next == '~' ? " " : "\n");
    } else if (next == '_') {
      PutUtf8("-");
    }
  }

  void OnWord(int first) {
    std::string word(1, static_cast<char>(first));
    while (IsLetter(bytes_.Peek()) && word.size() < 32) {
      word += static_cast<char>(bytes_.Take());
    }
    std::string digits;
    if (bytes_.Peek() == '-' || IsDigit(bytes_.Peek())) {
      digits += static_cast<char>(bytes_.Take());
      while (IsDigit(bytes_.Peek()) && digits.size() < 10) {
        digits += static_cast<char>(bytes_.Take());
      }
    }
    if (bytes_.Peek() == ' ') {
      bytes_.Take();
    }
    int number = 0;
    const bool has_number = std::from_chars(digits.data(), digits.data() + digits.size(), number).ec == std::errc();
    Apply(word, has_number ? std::optional(number) : std::nullopt);
    optional_ = false;
  }

  void Apply(const std::string& word, std::optional<int> number) {
    skip_ = 0;
    if (word == "u" && number) {
      PutUnicode(*number);
    } else if (word == "uc") {
      groups_.back().skip_after_unicode = std::clamp(number.value_or(1), 0, 16);
    } else if (word == "ansicpg" && number) {
      charset_ = *number == 10000 ? "MACINTOSH" : "CP" + std::to_string(*number);
    } else if (word == "mac" || word == "pc" || word == "pca") {
      charset_ = word == "mac" ? "MACINTOSH" : word == "pc" ? "IBM437" : "IBM850";
    } else if (word == "bin" && number) {
      SkipBinary(*number);
    } else if (const Symbol* symbol = Find(kSymbols, word)) {
      PutUtf8(symbol->text);
    } else {
      OnDestination(word);
    }
  }

  void OnDestination(const std::string& word) {
    EndRun();
    Group& group = groups_.back();
    if (const Named* named = Find(kFields, word); named != nullptr && in_info_) {
      group.target = Target::kField;
      group.field = named->field;
      value_.clear();
      return;
    }
    const bool is_hidden = std::find(std::begin(kHiddenDestinations), std::end(kHiddenDestinations), word) !=
                           std::end(kHiddenDestinations);
    if (is_hidden || (optional_ && word != "shppict")) {
      in_info_ = word == "info";
      group.target = Target::kNowhere;
    }
  }

  void SkipBinary(int count) {
    for (int i = 0; i < count && bytes_.Take() >= 0; ++i) {
    }
  }

  void PutUnicode(int number) {
    EndRun();
    // Signed 16 bit units; a pair of them makes a character beyond 0xFFFF.
    const auto unit = static_cast<char32_t>(static_cast<unsigned short>(number));
    if (unit >= 0xD800 && unit <= 0xDBFF) {
      high_surrogate_ = unit;
    } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
      PutUtf8(high_surrogate_ != 0 ? Utf8Of(0x10000U + ((high_surrogate_ - 0xD800U) << 10U) + (unit - 0xDC00U))
                                   : "\uFFFD");
      high_surrogate_ = 0;
    } else {
      PutUtf8(Utf8Of(unit));
    }
    skip_ = groups_.back().skip_after_unicode;
  }

  void PutByte(char byte) {
    if (skip_ > 0) {
      --skip_;
      return;
    }
    if (groups_.back().target == Target::kNowhere) {
      return;
    }
    run_ += byte;
    if (run_.size() >= kChunkBytes) {
      EndRun();
    }
  }

  /// A run of bytes in the document's code page, decoded together because a character may take two.
  void EndRun() {
    skip_ = 0;
    if (run_.empty()) {
      return;
    }
    const bool is_ascii = std::all_of(run_.begin(), run_.end(), [](char c) { return c >= 0; });
    const std::string run = std::move(run_);
    run_.clear();
    PutUtf8(is_ascii ? run : DecodeWhole(charset_, run));
  }

  void PutUtf8(std::string_view text) {
    if (!run_.empty()) {
      EndRun();
    }
    const Group& group = groups_.back();
    if (group.target == Target::kText) {
      reading_.text.Append(text);
    } else if (group.target == Target::kField && value_.size() < kMaxFieldBytes) {
      value_ += text;
    }
  }

  Reading& reading_;
  Bytes bytes_;
  std::vector<Group> groups_;
  std::string charset_ = "CP1252";
  std::string run_;
  std::string value_;  // of the field in work
  char32_t high_surrogate_ = 0;
  int skip_ = 0;
  bool optional_ = false;
  bool in_info_ = false;
};

}  // namespace

void ReadRtf(Reading& reading) {
  RtfReader(reading).Read();
}

}  // namespace extractor
