// Words by their rank, of which the logarithm is evenly spread.
#include "bench/word_source.h"

#include <cmath>

namespace orbisk::bench {
namespace {

constexpr double kWords = 100'000;

}  // namespace

std::string WordSource::Word() {
  const double u = std::uniform_real_distribution<double>(0, 1)(random_);
  const auto rank = static_cast<int>(std::pow(kWords, u)) - 1;
  std::string word;
  for (int rest = rank * 7 + 11; rest > 0; rest /= 20) {
    word += "bcdfghklmnprstvwxzjq"[rest % 20];
    word += "aeiou"[rest % 5];
  }
  return word;
}

std::string WordSource::Text(int words) {
  std::string text;
  while (words-- > 0) {
    text += Word() + " ";
  }
  return text;
}

}  // namespace orbisk::bench
