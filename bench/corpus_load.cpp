// Takes a list of files through extractor, library and search daemon, as the indexing daemon's workers do, and times
// it.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include "bench/index_all.h"
#include "orbisk/fileindex/elastic_control.h"

namespace orbisk::bench {
namespace {

std::vector<std::string> ReadList(const char* path) {
  std::ifstream file(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  return lines;
}

int Run(const std::string& share, const char* list, int workers) {
  const std::vector<std::string> paths = ReadList(list);
  fileindex::elastic::ShareIndexCreate(share);
  const auto start = std::chrono::steady_clock::now();
  const size_t indexed = IndexAll(share, paths, static_cast<unsigned>(std::max(1, workers)));
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  printf("%.3f %zu\n", seconds.count(), indexed);
  return indexed > 0 ? 0 : 1;
}

}  // namespace
}  // namespace orbisk::bench

// usage: corpus_load SHARE LIST WORKERS    prints the seconds until all is committed, and the files that were indexed;
// exit status 1 if there were none
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
