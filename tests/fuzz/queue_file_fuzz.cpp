// A whole queue file: it always folds, delivers live operations with plain paths, and answers the two questions.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "orbisk/error.h"
#include "orbisk/fileindex/queue_mgr.h"

namespace {

using namespace orbisk::fileindex;

void Require(bool condition) {
  if (!condition) {
    abort();
  }
}

// A regular file with the input, the same for the whole run.
const std::string& QueueFile(const std::uint8_t* data, size_t size) {
  static int fd = -1;
  static const std::string path = [] {
    char name[] = "/tmp/queue_file_fuzz_XXXXXX";
    fd = mkstemp(name);
    return std::string(name);
  }();
  static const int removed_at_exit = atexit([] { unlink(path.c_str()); });
  Require(fd >= 0 && removed_at_exit == 0);
  Require(ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));
  return path;
}

void CheckDelivered(const std::shared_ptr<OP>& op) {
  Require(op->op > OP_NONE && op->op <= OP_QUEUE_CRASHED);
  const std::string path = op->node->GetPath();
  Require(op->op == OP_QUEUE_CRASHED ? path.empty() : path.size() > 1 && path.front() == '/' && path.back() != '/');
  std::ostringstream printed;
  printed << op;
  Require(printed.str().find(path) != std::string::npos);
}

template <typename Question>
void Ask(Question question) {
  try {
    question();
  } catch (const orbisk::Error& error) {
    Require(error.code() == 906 || error.code() == 120);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  const std::string& path = QueueFile(data, size);
  QueueMgr queue(path);
  int delivered = 0;
  const int count = queue.ProcessOP(
      [&](std::shared_ptr<OP> op) {
        CheckDelivered(op);
        ++delivered;
      },
      false);
  Require(delivered <= count);
  Ask([&] { queue.IsFullPathProcessing("/a"); });
  Ask([&] { queue.IsFullPathHasReindex("/a/b"); });
  return 0;
}
