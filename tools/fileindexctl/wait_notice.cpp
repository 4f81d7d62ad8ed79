// A word to a person who waits, lest it be taken for a hang.
#include "tools/fileindexctl/wait_notice.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace fileindexctl {
namespace {

constexpr std::chrono::seconds kBeforeNotice{3};

}  // namespace

WaitNotice::WaitNotice() {
  if (isatty(STDERR_FILENO) != 0) {
    thread_ = std::thread([this] { Run(); });
  }
}

WaitNotice::~WaitNotice() {
  if (!thread_.joinable()) {
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    is_over_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void WaitNotice::Run() {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, kBeforeNotice, [this] { return is_over_; })) {
    fputs("fileindexctl: still waiting for the search daemon or for another change; what is done so far stays\n",
          stderr);
  }
}

}  // namespace fileindexctl
