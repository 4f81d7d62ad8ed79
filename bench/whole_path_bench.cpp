// What the indexing daemon costs on the way from `folder add` to all being searchable: the same files once through
// extractor, library and search daemon alone, by as many workers as there are cores, and once by the command.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench/disk_box.h"
#include "bench/index_all.h"
#include "orbisk/fileindex/elastic_control.h"

namespace orbisk::bench {
namespace {

namespace elastic = fileindex::elastic;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr double kMostTimes = 1.2;
constexpr std::uintmax_t kLargestBytes = 1U << 20;
constexpr std::chrono::minutes kPatience{60};

double SecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

class Box : public DiskBox {
 public:
  bool Run(const std::string& source, size_t files) {
    SetUp();
    Copy(source, files);
    const double direct = Direct();
    elastic::ShareIndexDelete("docs");
    WriteFolders({});
    StartIndexer();
    const double whole = ByCommand();
    const size_t found = InIndex().size();
    const size_t on_disk = OnDisk().size();
    TearDown();
    printf("%zu files: directly %.2f s, by folder add %.2f s; on disk %zu, in the index %zu\n", paths_.size(), direct,
           whole, on_disk, found);
    const bool kept = Report("folder add to all searchable / indexing directly", whole / direct, "times", kMostTimes);
    return kept && found == on_disk && !paths_.empty();
  }

 private:
  // Flat in folders of a hundred; names say nothing but their kind.
  void Copy(const std::string& source, size_t files) {
    for (const auto& entry : fs::recursive_directory_iterator(source, fs::directory_options::skip_permission_denied)) {
      if (paths_.size() == files) {
        return;
      }
      if (entry.is_regular_file() && !entry.is_symlink() && entry.file_size() < kLargestBytes) {
        const std::string folder = Docs("d" + std::to_string(paths_.size() / 100));
        fs::create_directories(folder);
        paths_.push_back(folder + "/" + std::to_string(paths_.size()) + entry.path().extension().string());
        fs::copy_file(entry.path(), paths_.back());
      }
    }
  }

  double Direct() const {
    const Clock::time_point begin = Clock::now();
    const size_t indexed = IndexAll("docs", paths_, std::thread::hardware_concurrency());
    EXPECT_EQ(indexed, paths_.size());
    return SecondsSince(begin);
  }

  static double ByCommand() {
    const Clock::time_point begin = Clock::now();
    const test::ProcessResult result = test::Fileindexctl({"folder", "add", "/docs"});
    EXPECT_EQ(result.exit_status, 0) << result.errors;
    while (Clock::now() - begin < kPatience) {
      const Json::Value status = StatusOf();
      if (status["state"] == "idle" && status["passes"].asUInt64() > 0) {
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return SecondsSince(begin);
  }

  std::vector<std::string> paths_;
};

int Run(const std::string& source, int files) {
  DiskBox::EnterNamespace();
  const bool kept = Box().Run(source, static_cast<size_t>(files));
  return kept && !testing::UnitTest::GetInstance()->Failed() ? 0 : 1;
}

}  // namespace
}  // namespace orbisk::bench

// The arguments are how many files, and of which folder.
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return orbisk::bench::Run(argc > 2 ? argv[2] : "/usr/share/doc", std::max(1, argc > 1 ? atoi(argv[1]) : 2000));
}
