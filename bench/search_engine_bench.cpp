// The speed of one index: how fast documents go in, are found, moved and deleted.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "bench/word_source.h"
#include "services/search/index.h"
#include "tests/unit/search/engine_support.h"

namespace search::bench {
namespace {

using orbisk::bench::WordSource;

// Time of this thread's work: the engine starts none, and other programs' work is not its speed.
struct Clock {
  using time_point = double;
  static double now() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }
};

constexpr int kCommitEvery = 5'000;
constexpr int kFolder = 100'000;  // documents of the folder that is renamed and deleted

double SecondsSince(Clock::time_point start) {
  return Clock::now() - start;
}

std::string PathOf(int number) {
  // The first hundred thousand are one folder.
  const std::string folder = number < kFolder ? "/v/share/big/" : "/v/share/f";
  return folder + std::to_string(number / 1'000) + "/document" + std::to_string(number) + ".txt";
}

void Fill(Index& index, int documents, WordSource& words) {
  for (int i = 0; i < documents; ++i) {
    index.Upsert(PathOf(i), test::Document(PathOf(i), words.Text(30)));
    if (i % kCommitEvery == kCommitEvery - 1) {
      index.Commit();
    }
  }
  index.Commit();
}

void Search(Index& index, int words_per_query, WordSource& words) {
  constexpr int kQueries = 400;
  std::vector<double> milliseconds;
  for (int i = 0; i < kQueries; ++i) {
    const std::string query = words.Text(words_per_query);
    const auto start = Clock::now();
    benchmark::DoNotOptimize(index.Search(query));
    milliseconds.push_back(SecondsSince(start) * 1e3);
  }
  std::sort(milliseconds.begin(), milliseconds.end());
  printf("search of %d words: median %.2f ms, 99th percentile %.2f ms, worst %.2f ms\n", words_per_query,
         milliseconds[kQueries / 2], milliseconds[kQueries * 99 / 100], milliseconds.back());
}

void MoveFolder(Index& index) {
  const auto start = Clock::now();
  std::vector<std::pair<std::string, std::string>> moves;
  Json::Value query;
  query["qsl"]["prefix"]["NIMOMDPath"] = "/v/share/big/";
  index.Get(query, std::vector<std::string>{"NIMOMDPath", "NIMOMDFSName", "NIMOMDParent"}, [&](Json::Value&& hit) {
    moves.emplace_back(hit["NIMOMDPath"].asString(),
                       "/v/share/moved" + hit["NIMOMDParent"].asString().substr(std::string("/v/share/big").size()) +
                           "/" + hit["NIMOMDFSName"].asString());
  });
  for (const auto& [from, to] : moves) {
    Json::Value changes;
    changes["NIMOMDPath"] = to;
    changes["NIMOMDParent"] = to.substr(0, to.rfind('/'));
    changes["NIMOMDSearchAncestor"] = to.substr(0, to.rfind('/'));
    index.Set(from, changes);
  }
  index.Commit();
  printf("renaming a folder of %zu documents: %.2f s\n", moves.size(), SecondsSince(start));
}

void DeleteFolder(Index& index) {
  const auto start = Clock::now();
  Json::Value query;
  query["qsl"]["prefix"]["NIMOMDPath"] = "/v/share/moved/";
  const int64_t deleted = index.DeleteByQuery(query);
  index.Commit();
  printf("deleting a folder of %lld documents: %.2f s\n", static_cast<long long>(deleted), SecondsSince(start));
}

void Run(int documents) {
  test::Fixture fixture;
  WordSource words;
  const auto start = Clock::now();
  Fill(*fixture.index, documents, words);
  const double seconds = SecondsSince(start);
  printf("%d upserts of 30 words: %.0f a second, %.0f bytes each\n", documents, documents / seconds,
         static_cast<double>(fixture.index->Stat(false).bytes) / documents);
  for (int count = 1; count <= 3; ++count) {
    Search(*fixture.index, count, words);
  }
  MoveFolder(*fixture.index);
  DeleteFolder(*fixture.index);
}

}  // namespace
}  // namespace search::bench

// usage: search_engine_bench [DOCUMENTS]    default 200,000
int main(int argc, char** argv) {
  search::bench::Run(argc > 1 ? atoi(argv[1]) : 200'000);
}
