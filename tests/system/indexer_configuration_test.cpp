// What the indexing daemon makes of changes that come in odd ways, and of a box that has no room for a worker.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/lock_file.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

constexpr char kStatusLock[] = "/tmp/orbisk_cfg_fi_status.lock";

class IndexerConfiguration : public IndexerBox {
 protected:
  // How much memory the daemon may have, beyond what it has.
  void LimitMemory(std::optional<size_t> more_bytes) {
    const std::string statm = ReadFile("/proc/" + std::to_string(indexer().pid()) + "/statm");
    const size_t bytes = std::stoul(statm) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const rlim_t limit = more_bytes ? bytes + *more_bytes : RLIM_INFINITY;
    const rlimit limits{limit, RLIM_INFINITY};
    ASSERT_EQ(prlimit(indexer().pid(), RLIMIT_AS, &limits, nullptr), 0);
  }
};

TEST_F(IndexerConfiguration, APauseEndsWhenTheStatusIsRemoved) {
  StartWithOneFile();
  WriteFile(kStatusFile, "{\"resume_time\":0}");
  ASSERT_TRUE(Eventually([] { return Command("status")["data"]["paused"].asBool(); }));

  fs::remove(kStatusFile);

  EXPECT_TRUE(Eventually([] { return !Command("status")["data"]["paused"].asBool(); }));
}

TEST_F(IndexerConfiguration, AWorkerCommandWithoutAShareIsToldWhatItLacks) {
  StartIndexer();

  for (const char* const command : {"worker_create", "worker_delete"}) {
    const Json::Value answer = Command(command);
    EXPECT_EQ(answer["success"], Json::Value(false));
    EXPECT_EQ(answer["error"]["msg"], Json::Value(std::string("the command names no share: ") + command));
  }
}

TEST_F(IndexerConfiguration, AFlagIsNotTakenWhileSomebodyElseChangesTheStatus) {
  StartWithOneFile();
  KillMonitor();
  WriteFile(Docs("a.txt"), "dipper");
  const std::string status = "{\"resume_time\":-1,\"share\":{\"docs\":1}}";
  std::optional<LockFile> lock(std::in_place, kStatusLock, true);
  WriteFile(kStatusFile, status);

  EXPECT_TRUE(BecomesEqual());
  EXPECT_TRUE(Eventually([] { return StatusOf()["state"].asString() == "idle"; }));
  EXPECT_EQ(ReadFile(kStatusFile), status);

  lock.reset();
  Command("notify_setting_changed");

  EXPECT_TRUE(Eventually([] { return Parse(ReadFile(kStatusFile))["share"]["docs"] == Json::Value(0); }));
  EXPECT_EQ(Parse(ReadFile(kStatusFile))["resume_time"], Json::Value(-1));
}

// A sanitizer ends the program that gets no memory.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)
TEST_F(IndexerConfiguration, AShareWithoutAThreadCostsTheOthersNothingAndIsServedLater) {
  constexpr rlim_t kStack = rlim_t{8} << 20;
  rlimit stack{};
  ASSERT_EQ(getrlimit(RLIMIT_STACK, &stack), 0);
  const rlimit wanted{std::min(kStack, stack.rlim_max), stack.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_STACK, &wanted), 0);                   // as much has a thread of the daemon
  setenv("GLIBC_TUNABLES", "glibc.pthread.stack_cache_size=0", 1);  // else it has the stacks of threads that ended
  StartWithOneFile();
  unsetenv("GLIBC_TUNABLES");
  ASSERT_EQ(setrlimit(RLIMIT_STACK, &stack), 0);
  AddShare(OnFirst("music"));
  WriteFile(OnFirst("music/b.txt"), "bittern");
  fileindex::elastic::ShareIndexCreate("music");
  LimitMemory(kStack / 2);

  WriteFolders({Entry("/docs", "all"), Entry("/music", "songs")});

  EXPECT_TRUE(Eventually([] {
    return StatusOf("music")["problem"].asString().rfind("there can be no thread", 0) == 0;
  })) << Command("status");
  WriteFile(Docs("a.txt"), "dipper");
  EXPECT_TRUE(BecomesEqual());

  LimitMemory(std::nullopt);
  Command("notify_setting_changed");

  EXPECT_TRUE(BecomesEqual(std::chrono::seconds(30), "music"));
}
#endif

}  // namespace
}  // namespace orbisk::test
