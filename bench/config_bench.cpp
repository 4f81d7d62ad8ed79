// Speed of the configuration: loading the folders file, finding the entry that governs a path, the kind of a file, and
// the status of many folders over one long queue.
#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <new>

#include "bench/ratio_main.h"
#include "orbisk/fileindex/file_type.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/queue_mgr.h"
#include "orbisk/json.h"
#include "tests/support/fake_share.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace orbisk::bench {
namespace {

constexpr char kFoldersFile[] = "/var/packages/Orbisk/etc/fileindex.folders";
constexpr int kEntries = 10'000;
constexpr int kPaths = 100'000;
constexpr int kStatusFolders = 1'000;
constexpr int kQueueLines = 1'000'000;

using fileindex::Folder;
using fileindex::FolderMgr;

Json::Value Entry(const std::string& path) {
  return Folder(path, "Folder " + path, "admin", "", true, true, false, true, false, false).GetData();
}

// Three levels below one share, as people nest them: /photo/12, /photo/12/3, /photo/12/3/4.
std::string EntryPath(int i) {
  return "/photo/" + std::to_string(i / 100) + (i % 100 < 10 ? "" : "/" + std::to_string(i % 100 / 10)) +
         (i % 10 == 0 ? "" : "/" + std::to_string(i % 10) + "_" + std::to_string(i));
}

void WriteEntries(int count) {
  Json::Value folders(Json::arrayValue);
  for (int i = 0; i < count; ++i) {
    folders.append(Entry(EntryPath(i)));
  }
  toFile(folders, kFoldersFile);
}

std::vector<std::string> Paths() {
  std::vector<std::string> paths;
  paths.reserve(kPaths);
  for (int i = 0; i < kPaths; ++i) {
    paths.push_back("/volume1" + EntryPath(i % kEntries) + "/some/folder/picture " + std::to_string(i) + ".jpg");
  }
  return paths;
}

void CountItems(benchmark::State& state, int items) {
  state.SetItemsProcessed(items * static_cast<int64_t>(state.iterations()));
}

void ParseFoldersFile(benchmark::State& state) {
  for (auto _ : state) {
    Json::Value folders;
    benchmark::DoNotOptimize(fromFile(folders, kFoldersFile));
  }
}
BENCHMARK(ParseFoldersFile)->Unit(benchmark::kMillisecond);

void LoadFoldersFile(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(FolderMgr());
  }
}
BENCHMARK(LoadFoldersFile)->Unit(benchmark::kMillisecond);

// As the rule is worded: every entry is compared, each time.
std::shared_ptr<Folder> GoverningNaively(const FolderMgr& manager, const std::string& full_path) {
  size_t best_length = 0;
  std::shared_ptr<Folder> best;
  for (const auto& folder : manager.GetFolders()) {
    const std::string entry = folder->GetFullPath();
    if ((full_path + "/").compare(0, entry.size() + 1, entry + "/") == 0 && entry.size() > best_length) {
      best = folder;
      best_length = entry.size();
    }
  }
  return best;
}

void GovernIndexed(benchmark::State& state) {
  const FolderMgr manager;
  const auto paths = Paths();
  for (auto _ : state) {
    for (const std::string& path : paths) {
      benchmark::DoNotOptimize(manager.GetMostSuitableCfg(path));
    }
  }
  CountItems(state, kPaths);
}
BENCHMARK(GovernIndexed)->Unit(benchmark::kMillisecond);

void GovernNaively(benchmark::State& state) {
  const FolderMgr manager;
  auto paths = Paths();
  paths.resize(kPaths / 1000);  // all of them would take minutes; the time for one is what is compared
  for (auto _ : state) {
    for (const std::string& path : paths) {
      benchmark::DoNotOptimize(GoverningNaively(manager, path));
    }
  }
  CountItems(state, kPaths / 1000);
}
BENCHMARK(GovernNaively)->Unit(benchmark::kMillisecond);

void FileType(benchmark::State& state) {
  const std::string paths[] = {"/volume1/photo/2019/IMG_0001.JPG", "/volume1/doc/README",
                               "/volume1/a b c/archive.tar.gz", "/volume1/video/movie.webm", "/volume1/x/.bashrc"};
  for (auto _ : state) {
    for (const std::string& path : paths) {
      benchmark::DoNotOptimize(fileindex::GetFileTypeByFullPath(path));
    }
  }
  CountItems(state, static_cast<int>(std::size(paths)));
}
BENCHMARK(FileType);

// 100 ns, as a duration to compare with.
void HundredNanoseconds(benchmark::State& state) {
  for (auto _ : state) {
    state.SetIterationTime(100e-9);
  }
}
BENCHMARK(HundredNanoseconds)->UseManualTime()->Iterations(1000);

std::vector<std::shared_ptr<Folder>> StatusFolders() {
  std::vector<std::shared_ptr<Folder>> folders;
  folders.reserve(kStatusFolders);
  for (int i = 0; i < kStatusFolders; ++i) {
    folders.push_back(
        std::make_shared<Folder>("/status/" + std::to_string(i), "f", "", "", true, true, true, true, false, false));
  }
  return folders;
}

// One pass over the queue: no line names the folder, so every line is read.
void ReadQueueOnce(benchmark::State& state) {
  const auto folders = StatusFolders();
  for (auto _ : state) {
    benchmark::DoNotOptimize(folders.front()->IsIndexing());
  }
}
BENCHMARK(ReadQueueOnce)->Unit(benchmark::kMillisecond)->Iterations(1);

void StatusOfThousandFolders(benchmark::State& state) {
  Json::Value additional(Json::arrayValue);
  additional.append("status");
  for (auto _ : state) {
    benchmark::DoNotOptimize(GetDataWithAdditional(StatusFolders(), additional));
    test::FakePlatform::ForgetCalls();
  }
}
BENCHMARK(StatusOfThousandFolders)->Unit(benchmark::kMillisecond)->Iterations(1);

// Everything that the benches read, in a mount namespace of this process.
class Box {
 public:
  Box() {
    test::EnterPrivateMounts({"/var/packages/Orbisk/etc"});
    test::FakeShares().Add("photo", "/volume1/photo");
    test::FakeShares().Add("status", volume_ / "status");
    WriteEntries(kEntries);
    for (int i = 0; i < kStatusFolders; ++i) {
      std::filesystem::create_directories(volume_ / ("status/" + std::to_string(i)));
    }
    std::filesystem::create_directories(volume_ / "@fileindex/status");
    std::ofstream queue(volume_ / "@fileindex/status/queue");
    for (int i = 0; i < kQueueLines; ++i) {
      queue << R"({"event":2,"is_dir":false,"path":")" << volume_.path() << "/status/elsewhere/" << i % 100 << "/file "
            << i << "\"}\n";
    }
  }

 private:
  const test::FakePlatform platform_;
  const test::TempDir volume_;
};

}  // namespace
}  // namespace orbisk::bench

int main(int argc, char** argv) {
  const orbisk::bench::Box box;
  return orbisk::bench::RunWithRatios(
      argc, argv,
      {{"loading 10,000 folders / parsing their JSON", "LoadFoldersFile", "ParseFoldersFile", 3},
       {"governing entry of a path among 10,000: indexed / every entry", "GovernIndexed", "GovernNaively", 1.0 / 20},
       {"kind of a file / 100 ns", "FileType", "HundredNanoseconds", 1},
       {"status of 1,000 folders over a queue / reading it once", "StatusOfThousandFolders", "ReadQueueOnce", 1.5}});
}
