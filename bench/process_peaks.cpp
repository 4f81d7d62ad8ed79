// proc(5).
#include "bench/process_peaks.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

namespace orbisk::bench {
namespace {

constexpr std::chrono::milliseconds kBetweenLooks{250};

struct Status {
  std::string name;
  long peak_kib = 0;
};

Status StatusOf(int pid) {
  Status status;
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("Name:\t")) {
      status.name = line.substr(6);
    } else if (line.starts_with("VmHWM:")) {
      status.peak_kib = strtol(line.c_str() + 6, nullptr, 10);
    }
  }
  return status;
}

// Of all its threads.
std::vector<int> ChildrenOf(int pid) {
  std::vector<int> children;
  std::error_code error;
  for (std::filesystem::directory_iterator task("/proc/" + std::to_string(pid) + "/task", error), end;
       !error && task != end; task.increment(error)) {
    std::ifstream file(task->path() / "children");
    children.insert(children.end(), std::istream_iterator<int>(file), std::istream_iterator<int>());
  }
  return children;
}

}  // namespace

const std::map<std::string, long>& ProcessPeaks::Stop() {
  if (thread_.joinable()) {
    stop_ = true;
    thread_.join();
  }
  return peaks_;
}

void ProcessPeaks::Run() {
  const std::string own = StatusOf(getpid()).name;
  while (!stop_) {
    for (const int child : ChildrenOf(getpid())) {
      if (StatusOf(child).name != own) {
        Look(child, "", "");
      }
    }
    std::this_thread::sleep_for(kBetweenLooks);
  }
}

void ProcessPeaks::Look(int pid, const std::string& parent, const std::string& label) {
  const Status status = StatusOf(pid);
  if (status.peak_kib == 0) {
    return;  // it has ended
  }
  const std::string own = status.name == parent ? label + ", child" : status.name;
  long& peak = peaks_[own];
  peak = std::max(peak, status.peak_kib);
  for (const int child : ChildrenOf(pid)) {
    Look(child, status.name, own);
  }
}

}  // namespace orbisk::bench
