// The extractor as a program, asked by one client as the library asks it: how many files a second, and what the way
// through daemon and sandbox costs beside reading them in this process.
#include <fcntl.h>
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/linux/content_extract.h"
#include "services/extractor/formats/extract.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"
#include "tests/system/extractor_support.h"

namespace orbisk::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFiles = 1'000;
constexpr int kRounds = 3;
constexpr std::chrono::seconds kLimit{60};

// Prose of about `bytes`, each file another one.
std::string Prose(int number, size_t bytes) {
  std::string text = "Report " + std::to_string(number) + "\n";
  while (text.size() < bytes) {
    text += "The grey heron \"Ada\" came to the weir at dawn; nobody saw it leave.\n";
  }
  return text;
}

class Corpus {
 public:
  explicit Corpus(size_t bytes) {
    for (int i = 0; i < kFiles; ++i) {
      paths_.push_back(area_ / (std::to_string(i) + ".txt"));
      test::WriteFile(paths_.back(), Prose(i, bytes));
    }
  }
  const std::vector<std::string>& paths() const { return paths_; }

 private:
  test::TempDir area_;
  std::vector<std::string> paths_;
};

// Of several rounds the best: what other programs do on the machine only adds.
double FilesPerSecond(const Corpus& corpus, const std::function<void(const std::string&)>& read) {
  double best = 1e9;
  for (int round = 0; round < kRounds; ++round) {
    const auto begin = Clock::now();
    for (const std::string& path : corpus.paths()) {
      read(path);
    }
    best = std::min(best, std::chrono::duration<double>(Clock::now() - begin).count());
  }
  return kFiles / best;
}

void ReadHere(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  Json::Value document;
  extractor::ExtractContent(fd, {path}, document);
  close(fd);
  if (!document.isMember("NIMOMDTextContent")) {
    exit(2);
  }
}

void Measure(const char* what, size_t bytes) {
  const Corpus corpus(bytes);
  test::ExtractorBox box;
  box.StartProgram(std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() / "bin/nimocontentextractd",
                   {"--workers", "1"});
  const auto ask = [&](bool need_meta) {
    return [&box, need_meta](const std::string& path) {
      Json::Value options;
      options["need_meta"] = need_meta;
      Json::Value document;
      nimo::AskExtractor(box.socket(), kLimit, path, options, document);
      if (document.isMember("NIMOMDTextContent") != need_meta) {
        exit(2);
      }
    };
  };
  printf("%-40s %10.0f files/s\n", (std::string(what) + ", attributes alone").c_str(),
         FilesPerSecond(corpus, ask(false)));
  printf("%-40s %10.0f files/s\n", (std::string(what) + ", text").c_str(), FilesPerSecond(corpus, ask(true)));
  printf("%-40s %10.0f files/s\n", (std::string(what) + ", read in this process").c_str(),
         FilesPerSecond(corpus, ReadHere));
}

}  // namespace
}  // namespace orbisk::bench

int main() {
  extractor::Prepare();
  orbisk::bench::Measure("1 KiB", size_t{1} << 10);
  orbisk::bench::Measure("8 KiB", size_t{8} << 10);
  orbisk::bench::Measure("64 KiB", size_t{64} << 10);
}
