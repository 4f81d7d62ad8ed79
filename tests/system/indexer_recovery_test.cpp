// After a power cut the search daemon has its databases to check; indexing begins when it is done, and not at the
// library's next try.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "tests/support/local_socket.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

constexpr char kSearchSocket[] = "/var/run/nimoelasticd.sock";

// A search daemon that still opens its databases.
class OpeningSearchDaemon {
 public:
  OpeningSearchDaemon() : listener_(ListenAt(kSearchSocket)), thread_([this] { Run(); }) {}
  ~OpeningSearchDaemon() {
    shutdown(listener_, SHUT_RDWR);  // wakes the thread
    thread_.join();
    close(listener_);
    unlink(kSearchSocket);
  }
  OpeningSearchDaemon(const OpeningSearchDaemon&) = delete;
  OpeningSearchDaemon& operator=(const OpeningSearchDaemon&) = delete;

  int asked() const { return asked_; }

 private:
  void Run() {
    for (int client = 0; (client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      Answer(client);
      close(client);
    }
  }

  void Answer(int client) {
    std::uint64_t bytes = 0;
    if (recv(client, &bytes, sizeof(bytes), MSG_WAITALL) != static_cast<ssize_t>(sizeof(bytes))) {
      return;
    }
    std::string text(bytes, '\0');
    if (recv(client, text.data(), bytes, MSG_WAITALL) != static_cast<ssize_t>(bytes)) {
      return;
    }
    text = R"({"error":{"code":606,"msg":"the index is being opened"},"success":false})";
    bytes = text.size();
    if (send(client, &bytes, sizeof(bytes), MSG_NOSIGNAL) > 0 && send(client, text.data(), bytes, MSG_NOSIGNAL) > 0) {
      ++asked_;
    }
  }

  int listener_;
  std::atomic<int> asked_{0};
  std::thread thread_;
};

class IndexerRecovery : public IndexerBox {
 protected:
  static size_t Count(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++count;
    }
    return count;
  }
};

TEST_F(IndexerRecovery, IndexingBeginsSoonAfterTheSearchDaemonHasItsDatabasesOpen) {
  constexpr std::chrono::seconds kSoon{20};  // the library waits 30 s between two tries
  WriteFile(Docs("a.txt"), "kingfisher");
  StartIndexer();
  ASSERT_TRUE(BecomesEqual());
  KillIndexer();
  KillSearchDaemon();
  WriteFile(Docs("b.txt"), "bittern");

  {
    const OpeningSearchDaemon opening;
    StartIndexer();
    EXPECT_TRUE(Eventually([&] { return opening.asked() >= 3; }, kSoon)) << opening.asked();
    EXPECT_EQ(StatusOf()["state"].asString(), "failing");
    EXPECT_EQ(Count(IndexerLog(), "error 606"), 1U) << IndexerLog();
  }
  StartSearchDaemon();

  EXPECT_TRUE(BecomesEqual(kSoon));
}

TEST_F(IndexerRecovery, AChangeIsIndexedSoonThoughTheSearchDaemonBeganAnewMeanwhile) {
  constexpr std::chrono::seconds kSoon{20};
  WriteFile(Docs("a.txt"), "kingfisher");
  StartIndexer();
  ASSERT_TRUE(BecomesEqual());
  KillSearchDaemon();

  {
    const OpeningSearchDaemon opening;
    WriteFile(Docs("b.txt"), "bittern");
    EXPECT_TRUE(Eventually([&] { return opening.asked() >= 3; }, kSoon)) << opening.asked();
  }
  StartSearchDaemon();

  EXPECT_TRUE(BecomesEqual(kSoon));
}

}  // namespace
}  // namespace orbisk::test
