// Byte-wise string helpers.
#include "orbisk/string_util.h"

#include <algorithm>
#include <cctype>

namespace orbisk {
namespace {

// The C functions take a byte as unsigned char; a plain char above 127 would be a negative index.
bool IsSpace(unsigned char byte) {
  return isspace(byte) != 0;
}

}  // namespace

std::string LTrim(const std::string& text) {
  return {std::find_if_not(text.begin(), text.end(), IsSpace), text.end()};
}

std::string RTrim(const std::string& text) {
  return {text.begin(), std::find_if_not(text.rbegin(), text.rend(), IsSpace).base()};
}

std::string Trim(const std::string& text) {
  return LTrim(RTrim(text));
}

std::string ToLower(const std::string& text) {
  std::string lower = text;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char byte) { return static_cast<char>(tolower(byte)); });
  return lower;
}

}  // namespace orbisk
