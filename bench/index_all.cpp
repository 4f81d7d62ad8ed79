// One upsert for each file, as the indexing daemon's workers do it.
#include "bench/index_all.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <thread>

#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"

namespace orbisk::bench {
namespace {

namespace elastic = fileindex::elastic;

bool IndexOne(const std::string& share, const std::string& path) {
  try {
    try {
      elastic::IndexUpsert(share, path, true);
    } catch (const Error&) {
      elastic::IndexUpsert(share, path, false);
    }
    return true;
  } catch (const std::exception& error) {
    fprintf(stderr, "%s: %s\n", path.c_str(), error.what());
    return false;
  }
}

}  // namespace

size_t IndexAll(const std::string& share, const std::vector<std::string>& paths, unsigned workers) {
  std::atomic<size_t> next{0};
  std::atomic<size_t> indexed{0};
  const auto work = [&] {
    for (size_t i = next++; i < paths.size(); i = next++) {
      indexed += IndexOne(share, paths[i]) ? 1 : 0;
    }
  };
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < std::max(1U, workers); ++i) {
    threads.emplace_back(work);
  }
  threads.clear();
  elastic::IndexCommit(share);
  return indexed;
}

}  // namespace orbisk::bench
