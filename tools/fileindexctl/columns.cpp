// The C library knows the widths, in a locale of its own choice.
#include "tools/fileindexctl/columns.h"

#include <algorithm>
#include <clocale>
#include <cwchar>
#include <vector>

namespace fileindexctl {
namespace {

constexpr char kOmitted[] = "...";

struct Character {
  std::string_view bytes;
  size_t columns;
};

// Text is UTF-8 whatever the user's locale says, because file names are.
class Utf8 {
 public:
  Utf8() : before_(uselocale(Locale())) {}
  ~Utf8() { uselocale(before_); }
  Utf8(const Utf8&) = delete;
  Utf8& operator=(const Utf8&) = delete;

 private:
  static locale_t Locale() {
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return locale;  // 0, which changes nothing, where there is none
  }

  locale_t before_;
};

std::vector<Character> CharactersOf(std::string_view text) {
  const Utf8 utf8;
  std::vector<Character> characters;
  while (!text.empty()) {
    std::mbstate_t state{};
    wchar_t wide = 0;
    const size_t length = std::mbrtowc(&wide, text.data(), text.size(), &state);
    if (length == 0 || length > text.size()) {
      characters.push_back({text.substr(0, 1), 1});
    } else {
      const int columns = wcwidth(wide);
      characters.push_back({text.substr(0, length), columns < 0 ? 1 : static_cast<size_t>(columns)});
    }
    text.remove_prefix(characters.back().bytes.size());
  }
  return characters;
}

size_t SumOf(const std::vector<Character>& characters) {
  size_t columns = 0;
  for (const Character& character : characters) {
    columns += character.columns;
  }
  return columns;
}

}  // namespace

size_t ColumnsOf(std::string_view text) {
  return SumOf(CharactersOf(text));
}

std::string CutToColumns(std::string_view text, size_t columns) {
  std::string beginning;
  size_t used = 0;
  for (const Character& character : CharactersOf(text)) {
    used += character.columns;
    if (used > columns) {
      break;
    }
    beginning += character.bytes;
  }
  return beginning;
}

std::string CutFrontToColumns(std::string_view text, size_t columns) {
  const std::vector<Character> characters = CharactersOf(text);
  size_t left = SumOf(characters);
  if (left <= columns || columns <= sizeof(kOmitted)) {
    return CutToColumns(text, columns);
  }
  std::string end = kOmitted;
  const size_t room = columns - (sizeof(kOmitted) - 1);
  for (const Character& character : characters) {
    // What takes no column belongs to the character before it.
    if (left <= room && (character.columns > 0 || end.size() >= sizeof(kOmitted))) {
      end += character.bytes;
    }
    left -= character.columns;
  }
  return end;
}

}  // namespace fileindexctl
