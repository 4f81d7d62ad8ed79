// Takes a list of files through extractor, library and search daemon, as the indexing daemon's workers do, and times
// it.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "orbisk/fileindex/elastic_control.h"

namespace orbisk::bench {
namespace {

namespace elastic = fileindex::elastic;

std::vector<std::string> ReadList(const char* path) {
  std::ifstream file(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  return lines;
}

// How many of `paths` could not be indexed.
size_t Load(const std::string& share, const std::vector<std::string>& paths, unsigned workers) {
  std::atomic<size_t> next{0};
  std::atomic<size_t> failed{0};
  const auto work = [&] {
    for (size_t i = next++; i < paths.size(); i = next++) {
      try {
        elastic::IndexUpsert(share, paths[i], true);
      } catch (const std::exception& error) {
        ++failed;
        fprintf(stderr, "%s: %s\n", paths[i].c_str(), error.what());
      }
    }
  };
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < workers; ++i) {
    threads.emplace_back(work);
  }
  threads.clear();
  elastic::IndexCommit(share);
  return failed;
}

int Run(const std::string& share, const char* list, int workers) {
  const std::vector<std::string> paths = ReadList(list);
  elastic::ShareIndexCreate(share);
  const auto start = std::chrono::steady_clock::now();
  const size_t failed = Load(share, paths, workers > 0 ? static_cast<unsigned>(workers) : 1);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  printf("%.3f %zu\n", seconds.count(), paths.size() - failed);
  return 0;
}

}  // namespace
}  // namespace orbisk::bench

// usage: corpus_load SHARE LIST WORKERS    prints the seconds until all is committed, and the files that were indexed
int main(int argc, char** argv) {
  if (argc != 4) {
    fputs("usage: corpus_load SHARE LIST WORKERS\n", stderr);
    return 2;
  }
  try {
    return orbisk::bench::Run(argv[1], argv[2], atoi(argv[3]));
  } catch (const std::exception& error) {
    fprintf(stderr, "corpus_load: %s\n", error.what());
    return 1;
  }
}
