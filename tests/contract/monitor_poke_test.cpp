// Registration on stock Linux with a monitor that does not answer, and what is synced. A program of its own, because it
// replaces fsync.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <climits>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "nimo/monitor_queue.h"
#include "tests/support/private_mounts.h"
#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"

namespace {

std::set<std::string> synced;
std::string sync_fails_at;

}  // namespace

// Notes what is synced.
extern "C" [[gnu::visibility("default")]] int fsync(int fd) {
  std::array<char, PATH_MAX> path{};
  const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path.data(), path.size());
  const std::string name(path.data(), length > 0 ? static_cast<size_t>(length) : 0);
  synced.insert(name);
  if (name == sync_fails_at) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fsync, fd));
}

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using NIMO::NIMOTIFYD::MONITOR_QUEUE_TYPE_APPLICATION;
using NIMO::NIMOTIFYD::MonitorQueue;

constexpr char kFolder[] = "/var/lib/nimotifyd/queues.d";
constexpr char kSocket[] = "/var/run/nimotifyd.sock";
constexpr char kSilent[] = "event=monitor_silent socket=/var/run/nimotifyd.sock";

bool Upsert(const std::string& queue) {
  Json::Value description;
  description["queue"] = queue;
  description["config"][0]["path"] = "/a";
  description["config"][0]["mask"] = 65478;
  return MonitorQueue::Upsert(MonitorQueue(description), "fileindex", MONITOR_QUEUE_TYPE_APPLICATION);
}

size_t Registrations() {
  return fs::exists(kFolder) ? static_cast<size_t>(std::distance(fs::directory_iterator(kFolder), {})) : 0;
}

// The monitor's socket, with nobody who reads from it.
class SilentSocket {
 public:
  explicit SilentSocket(int backlog) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    unlink(kSocket);
    const sockaddr_un address = Address();
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(fd_, backlog), 0);
    const timeval patience{10, 0};  // with a client that never comes
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  }
  SilentSocket(const SilentSocket&) = delete;
  SilentSocket& operator=(const SilentSocket&) = delete;
  ~SilentSocket() {
    for (const int client : clients_) {
      close(client);
    }
    close(fd_);
    unlink(kSocket);
  }
  // Connects until no more connections can wait.
  void Fill() {
    const sockaddr_un address = Address();
    int client = -1;
    do {
      client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      clients_.push_back(client);
    } while (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);
    EXPECT_EQ(errno, EAGAIN);
  }
  // Takes all connections that wait; the last one's request is answered.
  std::string Serve() {
    std::string request;
    for (size_t i = 0; i < clients_.size(); ++i) {
      const int connection = accept(fd_, nullptr, nullptr);
      std::array<char, 64> buffer{};
      const bool ours = i + 1 == clients_.size();
      const ssize_t count = ours ? recv(connection, buffer.data(), buffer.size(), 0) : 0;
      request.assign(buffer.data(), count > 0 ? static_cast<size_t>(count) : 0);
      send(connection, "ok\n", 3, MSG_NOSIGNAL);
      close(connection);
    }
    return request;
  }

 private:
  static sockaddr_un Address() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, kSocket, sizeof(kSocket));
    return address;
  }

  int fd_;
  std::vector<int> clients_;
};

class MonitorPokeTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { EnterPrivateMounts({"/var/lib/nimotifyd", "/run"}); }
  void SetUp() override {
    fs::remove_all("/var/lib/nimotifyd");
    synced.clear();
    sync_fails_at.clear();
  }
  // Registers a queue, with a monitor that does not answer.
  void ExpectFiveSecondsAndARecord() {
    const auto begin = Clock::now();

    EXPECT_TRUE(Upsert("/q"));

    const auto took = Clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(4900));
    EXPECT_LT(took, std::chrono::milliseconds(6500));
    EXPECT_EQ(Registrations(), 1U);
    EXPECT_EQ(records_.texts(), std::vector<std::string>{kSilent});
  }
  RecordCapture records_;
};

TEST_F(MonitorPokeTest, MonitorThatNeverAnswersIsWaitedForFiveSecondsAndRecorded) {
  const SilentSocket monitor(8);

  ExpectFiveSecondsAndARecord();
}

TEST_F(MonitorPokeTest, MonitorThatTakesNoConnectionIsWaitedForFiveSecondsAndRecorded) {
  SilentSocket monitor(0);
  monitor.Fill();

  ExpectFiveSecondsAndARecord();
}

TEST_F(MonitorPokeTest, MonitorThatIsBusyForAMomentIsPokedAllTheSame) {
  SilentSocket monitor(0);
  monitor.Fill();
  std::string request;
  std::thread server([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    request = monitor.Serve();
  });

  EXPECT_TRUE(Upsert("/q"));

  server.join();
  EXPECT_EQ(request, "reload\n");
  EXPECT_EQ(records_.texts(), std::vector<std::string>{});
}

TEST_F(MonitorPokeTest, ThatNoMonitorRunsIsNothingToRecordOrWaitFor) {
  unlink(kSocket);
  const auto begin = Clock::now();

  EXPECT_TRUE(Upsert("/q"));
  { const SilentSocket gone(1); }
  EXPECT_TRUE(Upsert("/r"));

  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(2));
  EXPECT_EQ(records_.texts(), std::vector<std::string>{});
}

TEST_F(MonitorPokeTest, FoldersMadeForTheFirstRegistrationAreSyncedInTheirParents) {
  ASSERT_TRUE(Upsert("/q"));

  EXPECT_EQ(synced.count("/var/lib"), 1U);
  EXPECT_EQ(synced.count("/var/lib/nimotifyd"), 1U);
  EXPECT_EQ(synced.count(kFolder), 1U);
  synced.clear();
  ASSERT_TRUE(Upsert("/r"));
  EXPECT_EQ(synced.count("/var/lib/nimotifyd"), 0U);
}

TEST_F(MonitorPokeTest, RegistrationWhoseFolderCannotBeSyncedIsRefusedThoughItStands) {
  ASSERT_TRUE(Upsert("/q"));
  sync_fails_at = kFolder;

  EXPECT_FALSE(Upsert("/r"));

  EXPECT_EQ(Registrations(), 2U);
  ASSERT_EQ(records_.texts().size(), 1U);
  EXPECT_EQ(records_.texts()[0], "event=registration_failed queue=/r reason=" + std::string(strerror(EIO)));
}

}  // namespace
}  // namespace orbisk::test
