// Passing over plain ASCII eight bytes at a time: most of most texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace extractor {

/// How many bytes of `bytes` from `at` on are ASCII that is no control character, in steps of eight: there may be more.
inline std::size_t PlainRun(std::string_view bytes, std::size_t at) {
  constexpr std::uint64_t kHighBits = 0x8080808080808080;
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  const std::size_t begin = at;
  for (; at + sizeof(std::uint64_t) <= bytes.size(); at += sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes.data() + at, sizeof(word));
    // The high bit shows in a byte that has it, that is below a blank, or that is the last of ASCII. What a byte that
    // is too small borrows from the next ones shows only where one is found anyway.
    if (((word | (word - kOnes * 0x20) | (word + kOnes)) & kHighBits) != 0) {
      break;
    }
  }
  return at - begin;
}

}  // namespace extractor
