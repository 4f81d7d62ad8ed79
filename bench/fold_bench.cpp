// Speed of the indexing road inside the library: reading event lines, folding them, asking the queue.
#include <json/json.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>

#include "bench/event_mix.h"
#include "bench/ratio_main.h"
#include "orbisk/fileindex/optree.h"
#include "orbisk/fileindex/queue_mgr.h"

namespace orbisk::bench {
namespace {

constexpr size_t kLines = 1'000'000;

using fileindex::Event;
using fileindex::OPTree;

// Files of the benches, made once and removed at the end.
class Files {
 public:
  static const std::string& Mix() {
    static const File file([](const std::string& path) { WriteEventMix(path, kLines); });
    return file.path;
  }
  static const std::string& Flat(size_t count) {
    static const File small([](const std::string& path) { WriteFlatFolder(path, 1'000); });
    static const File large([](const std::string& path) { WriteFlatFolder(path, kLines); });
    return count == kLines ? large.path : small.path;
  }

 private:
  struct File {
    template <typename Write>
    explicit File(Write write) {
      char name[] = "/tmp/fold_bench_XXXXXX";
      close(mkstemp(name));
      path = name;
      write(path);
    }
    ~File() { unlink(path.c_str()); }
    std::string path;
  };
};

void CountLines(benchmark::State& state, size_t lines) {
  state.SetItemsProcessed(static_cast<int64_t>(lines) * static_cast<int64_t>(state.iterations()));
}

// What any reader of these lines pays: one jsoncpp reader, one line after the other.
void ParseAlone(benchmark::State& state) {
  const std::string& path = Files::Mix();
  for (auto _ : state) {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    std::ifstream stream(path);
    for (std::string line; std::getline(stream, line);) {
      Json::Value value;
      benchmark::DoNotOptimize(reader->parse(line.data(), line.data() + line.size(), &value, nullptr));
    }
  }
  CountLines(state, kLines);
}
BENCHMARK(ParseAlone)->Unit(benchmark::kMillisecond)->Iterations(1);

void BuildTree(benchmark::State& state) {
  const std::string& path = Files::Mix();
  for (auto _ : state) {
    auto tree = std::make_unique<OPTree>(path);
    state.PauseTiming();
    tree.reset();
    state.ResumeTiming();
  }
  CountLines(state, kLines);
}
BENCHMARK(BuildTree)->Unit(benchmark::kMillisecond)->Iterations(1);

void BuildAndDestroyTree(benchmark::State& state) {
  const std::string& path = Files::Mix();
  for (auto _ : state) {
    OPTree tree(path);
  }
  CountLines(state, kLines);
}
BENCHMARK(BuildAndDestroyTree)->Unit(benchmark::kMillisecond)->Iterations(1);

void FlatFolder(benchmark::State& state) {
  const auto files = static_cast<size_t>(state.range(0));
  const std::string& path = Files::Flat(files);
  for (auto _ : state) {
    for (size_t done = 0; done < kLines; done += files) {
      OPTree tree(path);
    }
  }
  CountLines(state, kLines);
}
BENCHMARK(FlatFolder)->Arg(1'000)->Arg(kLines)->Unit(benchmark::kMillisecond)->Iterations(1);

void AskProcessing(benchmark::State& state) {
  fileindex::QueueMgr queue(Files::Mix());
  for (auto _ : state) {
    benchmark::DoNotOptimize(queue.IsFullPathProcessing("/volume1/elsewhere"));
  }
  CountLines(state, kLines);
}
BENCHMARK(AskProcessing)->Unit(benchmark::kMillisecond)->Iterations(1);

void AskReindex(benchmark::State& state) {
  fileindex::QueueMgr queue(Files::Mix());
  for (auto _ : state) {
    benchmark::DoNotOptimize(queue.IsFullPathHasReindex("/volume1/elsewhere"));
  }
  CountLines(state, kLines);
}
BENCHMARK(AskReindex)->Unit(benchmark::kMillisecond)->Iterations(1);

// A folder of `nodes` files with nothing pending, but on 10 of them. The folder is renamed to and fro.
void RenameFolder(benchmark::State& state) {
  OPTree tree("/dev/null");
  const std::string folders[2] = {"/volume1/photo/first", "/volume1/photo/second"};
  const auto insert = [&](int event, bool is_dir, const std::string& path, const std::string& path_old) {
    auto line = std::make_shared<Event>(R"({"event":0,"path":"/"})");
    line->event = event;
    line->is_dir = is_dir;
    line->path = path;
    line->path_old = path_old;
    tree.InsertEvent(line);
  };
  for (int64_t i = 0; i < state.range(0); ++i) {
    insert(fileindex::EVENT_CREATE, false, folders[0] + "/" + std::to_string(i), "");
  }
  insert(fileindex::EVENT_REINDEX, true, folders[0], "");
  for (int i = 0; i < 10; ++i) {
    insert(fileindex::EVENT_MODIFY, false, folders[0] + "/" + std::to_string(i), "");
  }
  size_t renames = 0;
  for (auto _ : state) {
    insert(fileindex::EVENT_RENAME, true, folders[(renames + 1) % 2], folders[renames % 2]);
    ++renames;
  }
}
BENCHMARK(RenameFolder)->Arg(10)->Arg(1'000'000)->Unit(benchmark::kMicrosecond)->Iterations(100);

}  // namespace
}  // namespace orbisk::bench

int main(int argc, char** argv) {
  return orbisk::bench::RunWithRatios(
      argc, argv,
      {{"building a tree / parsing its lines alone", "BuildTree", "ParseAlone", 1.9},
       {"an event in a folder of 1,000,000 files / of 1,000", "FlatFolder/1000000", "FlatFolder/1000", 2.0},
       {"renaming a folder of 1,000,000 nodes, 10 busy / of 10", "RenameFolder/1000000", "RenameFolder/10", 3.0},
       {"asking for a path / parsing the lines alone", "AskProcessing", "ParseAlone", 1.0},
       {"asking for a reindex / parsing the lines alone", "AskReindex", "ParseAlone", 1.0}});
}
