// The generated event lines.
#include "bench/event_mix.h"

#include <array>
#include <cstdio>
#include <fstream>
#include <random>
#include <vector>

namespace orbisk::bench {
namespace {

constexpr unsigned kSeed = 20261121;

std::string Line(int event, bool is_dir, const std::string& path, const std::string& path_old) {
  std::string line = R"({"data":null,"event":)" + std::to_string(event) + R"(,"is_dir":)" +
                     (is_dir ? "true" : "false") + R"(,"path":")" + path + '"';
  if (!path_old.empty()) {
    line += R"(,"path_old":")" + path_old + '"';
  }
  return line + "}\n";
}

std::string Format(const char* format, size_t first, size_t second) {
  std::array<char, 128> text{};
  snprintf(text.data(), text.size(), format, first, second);
  return text.data();
}

class Mix {
 public:
  std::string Next() {
    const size_t kind = Below(100);
    const std::string file = File();
    if (kind < 30) {
      return Line(0x40, false, file, "");
    }
    if (kind < 65) {
      return Line(0x2, false, file, "");
    }
    if (kind < 78) {
      return Line(0x4, false, file, "");
    }
    if (kind < 90) {
      return Line(0x80, false, file, "");
    }
    if (kind < 98) {
      return Line(0x100, false, ShortFile(), ShortFile());
    }
    return kind < 99 ? Line(Below(2) == 0 ? 0x40 : 0x80, true, Folder() + "/a-folder-that-comes-and-goes", "")
                     : Line(0x100, true, ShortFolder(), ShortFolder());
  }

 private:
  size_t Below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random_); }

  std::string Folder() { return Format("/volume1/photo/albums-%02zu/travel-%03zu", Below(20), Below(100)); }
  std::string File() { return Folder() + Format("/IMG_%06zu_original-%zu.jpeg", Below(300), 1'000 + Below(9)); }
  std::string ShortFolder() { return Format("/volume1/p/%02zu/moved-%03zu", Below(20), Below(400)); }
  std::string ShortFile() { return Format("/volume1/p/%02zu/f%04zu.jpeg", Below(20), Below(2'000)); }

  std::mt19937 random_{kSeed};
};

}  // namespace

void WriteEventMix(const std::string& path, size_t count) {
  std::ofstream file(path, std::ios::binary);
  Mix mix;
  for (size_t i = 0; i < count; ++i) {
    file << mix.Next();
  }
}

void WriteFlatFolder(const std::string& path, size_t count) {
  std::ofstream file(path, std::ios::binary);
  for (size_t i = 0; i < count; ++i) {
    file << Line(0x40, false, Format("/volume1/photo/albums-01/one-folder/IMG_%08zu_original-%zu.jpeg", i, 1'000), "");
  }
}

}  // namespace orbisk::bench
