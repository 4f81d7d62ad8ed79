// The queue's lock with real processes: writers append while a consumer freezes, reads and deletes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/fileindex/queue_mgr.h"
#include "orbisk/lock_file.h"
#include "orbisk/util.h"
#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"

namespace orbisk::fileindex {
namespace {

constexpr int kWriters = 8;
constexpr int kLinesEach = 400;

std::string FilePath(int writer, int number) {
  return "/volume1/share/writer" + std::to_string(writer) + "/" + std::to_string(number);
}

bool Write(int fd, std::string_view text) {
  return write(fd, text.data(), text.size()) == ssize_t(text.size());
}

// Appends one line in two writes: without the lock, lines of two writers would mix.
bool Append(const std::string& queue, const std::string& line) {
  const LockFile lock(queue, true);
  const int fd = open(queue.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  const size_t half = line.size() / 2;
  const bool written = fd >= 0 && Write(fd, line.substr(0, half)) && usleep(50) == 0 && Write(fd, line.substr(half));
  close(fd);
  return written;
}

// The exit status of a writer process.
int RunWriter(const std::string& queue, int writer) {
  srand(static_cast<unsigned>(getpid()));
  for (int number = 0; number < kLinesEach; ++number) {
    try {
      if (!Append(queue, R"({"event":64,"path":")" + FilePath(writer, number) + "\"}\n")) {
        return 1;
      }
    } catch (const Error&) {
      return 2;
    }
  }
  return 0;
}

// One pass of the consumer: adds what is delivered to `delivered`.
void Consume(const std::string& queue, std::map<std::string, int>& delivered) {
  QueueMgr manager(queue);
  manager.ProcessOP([&](std::shared_ptr<OP> op) { ++delivered[op->node->GetPath()]; }, true);
  manager.DeleteTmp();
}

TEST(QueueLock, EveryLineOfEightWritersIsDeliveredOnceAndNoneIsTorn) {
  const test::TempDir folder;
  const std::string queue = folder / "queue";
  const test::RecordCapture records;
  std::vector<pid_t> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      _exit(RunWriter(queue, writer));
    }
    writers.push_back(child);
  }

  std::map<std::string, int> delivered;
  for (size_t running = writers.size(); running > 0;) {
    Consume(queue, delivered);
    int status = 0;
    if (waitpid(-1, &status, WNOHANG) > 0) {
      EXPECT_EQ(0, status);
      --running;
    }
  }
  Consume(queue, delivered);

  EXPECT_EQ(std::vector<std::string>(), records.texts());
  EXPECT_EQ(size_t{kWriters} * kLinesEach, delivered.size());
  for (const auto& [path, times] : delivered) {
    EXPECT_EQ(1, times) << path;
  }
  EXPECT_FALSE(IsFileExist(queue));
  EXPECT_FALSE(IsFileExist(queue + ".tmp"));
}

}  // namespace
}  // namespace orbisk::fileindex
