// Comparing text without regard to case, by ICU's full case folding.
#include "nimo/unicode.h"

#include <unicode/stringoptions.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

namespace nimo {
namespace {

bool IsAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

int Sign(int32_t difference) {
  return (difference > 0) - (difference < 0);
}

char FoldAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Most names; not strcasecmp(3), which follows the locale.
int CompareAscii(std::string_view a, std::string_view b) {
  const size_t common = std::min(a.size(), b.size());
  for (size_t i = 0; i < common; ++i) {
    if (const int difference = FoldAscii(a[i]) - FoldAscii(b[i]); difference != 0) {
      return Sign(difference);
    }
  }
  return (a.size() > b.size()) - (a.size() < b.size());
}

// A byte that is no UTF-8 becomes a lone surrogate, which no text decodes to: different strings stay different.
std::u16string Decode(std::string_view text) {
  constexpr char16_t kByteBase = 0xDC00;
  std::u16string decoded;
  decoded.reserve(text.size());
  const auto length = static_cast<int32_t>(std::min<size_t>(text.size(), INT32_MAX));
  for (int32_t position = 0; position < length;) {
    const int32_t begin = position;
    UChar32 character = 0;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"  // the macro's own arithmetic
    U8_NEXT(text.data(), position, length, character);
#pragma GCC diagnostic pop
    if (character < 0) {
      decoded += static_cast<char16_t>(kByteBase + static_cast<unsigned char>(text[static_cast<size_t>(begin)]));
      position = begin + 1;
    } else if (U_IS_BMP(character)) {
      decoded += static_cast<char16_t>(character);
    } else {
      decoded += U16_LEAD(character);
      decoded += U16_TRAIL(character);
    }
  }
  return decoded;
}

}  // namespace
}  // namespace nimo

int NLIBCUnicodeUTF8StrCaseCmp(const char* a, const char* b) {
  const std::string_view left = a != nullptr ? a : "";
  const std::string_view right = b != nullptr ? b : "";
  if (nimo::IsAscii(left) && nimo::IsAscii(right)) {
    return nimo::CompareAscii(left, right);
  }
  const std::u16string decoded_left = nimo::Decode(left);
  const std::u16string decoded_right = nimo::Decode(right);
  UErrorCode error = U_ZERO_ERROR;
  const int32_t difference = u_strCaseCompare(decoded_left.data(), static_cast<int32_t>(decoded_left.size()),
                                              decoded_right.data(), static_cast<int32_t>(decoded_right.size()),
                                              U_FOLD_CASE_DEFAULT | U_COMPARE_CODE_POINT_ORDER, &error);
  // It fails for null pointers and bad lengths alone; the bytes themselves are an order too.
  return nimo::Sign(U_SUCCESS(error) ? difference : left.compare(right));
}
