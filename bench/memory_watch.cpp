// Watches how much memory all processes of a namespace need together, whoever starts them and however short they live.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace orbisk::bench {
namespace {

using Clock = std::chrono::steady_clock;

// How often it looks. Memory that is there for less time than that may be missed.
constexpr std::chrono::milliseconds kInterval{50};
// How old the difference between a process's resident and its proportional memory may become.
constexpr std::chrono::milliseconds kOldest{1000};

// What a script runs to ask and to wait: no part of what is measured, and each one that comes and goes would have all
// the others measured anew.
constexpr std::array<std::string_view, 5> kHelpers = {"bash\n", "sleep\n", "sed\n", "dbus-send\n", "grep\n"};

volatile std::sig_atomic_t stopped = 0;

std::set<int> Processes() {
  std::set<int> processes;
  DIR* const folder = opendir("/proc");
  if (folder == nullptr) {
    return processes;
  }
  while (const dirent* const entry = readdir(folder)) {
    if (const int pid = atoi(entry->d_name); pid > 0) {
      processes.insert(pid);
    }
  }
  closedir(folder);
  return processes;
}

// What /proc says, "" if the process is gone.
std::string ReadFile(int pid, const char* name) {
  std::array<char, 4096> text;
  const int fd = open(("/proc/" + std::to_string(pid) + "/" + name).c_str(), O_RDONLY | O_CLOEXEC);
  const ssize_t size = fd < 0 ? 0 : read(fd, text.data(), text.size());
  if (fd >= 0) {
    close(fd);
  }
  return {text.data(), static_cast<size_t>(std::max<ssize_t>(size, 0))};
}

bool IsHelper(int pid) {
  return std::find(kHelpers.begin(), kHelpers.end(), ReadFile(pid, "comm")) != kHelpers.end();
}

// Counters that the kernel keeps anyway: it costs microseconds, whatever the size of the process.
long ResidentKib(int pid) {
  static const long page_kib = sysconf(_SC_PAGESIZE) / 1024;
  long all = 0;
  long resident = 0;
  return sscanf(ReadFile(pid, "statm").c_str(), "%ld %ld", &all, &resident) == 2 ? resident * page_kib : 0;
}

// A page that several processes have mapped counts in each of them for its part, so the sum counts it once. The kernel
// walks all pages for it: milliseconds for a large process, in which that can map nothing.
long ProportionalKib(int pid) {
  const std::string text = ReadFile(pid, "smaps_rollup");
  const char* const line = strstr(text.c_str(), "\nPss:");
  return line != nullptr ? strtol(line + 5, nullptr, 10) : 0;
}

// The highest sum of proportional sizes, within a fiftieth. They are taken only when they may be that much higher than
// the highest so far: the resident sizes, less what was shared of them when last seen, say so, since the shared part
// (libraries, what workers have of the process that forked them) hardly changes while the processes are the same.
class Peak {
 public:
  void Look(const std::set<int>& processes, Clock::time_point now) {
    long estimate = 0;
    bool same = processes.size() == sizes_.size();
    for (const int pid : processes) {
      const auto known = sizes_.find(pid);
      same = same && known != sizes_.end();
      estimate += ResidentKib(pid) - (known != sizes_.end() ? known->second.shared_kib : 0);
    }
    if (!same || now - measured_ > kOldest) {
      sizes_.clear();
      measured_ = now;
      Measure(processes);
    } else if (estimate > peak_kib_ + peak_kib_ / 50) {
      Measure(processes);
    }
  }

  long kib() const { return peak_kib_; }

 private:
  struct Size {
    long resident_kib = 0;
    long shared_kib = 0;
  };

  // Of those that are known only what has changed.
  void Measure(const std::set<int>& processes) {
    std::map<int, Size> sizes;
    long sum = 0;
    for (const int pid : processes) {
      const long resident = ResidentKib(pid);
      const auto known = sizes_.find(pid);
      const bool same = known != sizes_.end() && known->second.resident_kib == resident;
      sizes[pid] = {resident, same ? known->second.shared_kib : std::max(0L, resident - ProportionalKib(pid))};
      sum += resident - sizes[pid].shared_kib;
    }
    sizes_ = std::move(sizes);
    peak_kib_ = std::max(peak_kib_, sum);
  }

  std::map<int, Size> sizes_;
  long peak_kib_ = 0;
  Clock::time_point measured_;
};

long WatchUntilStopped() {
  const std::set<int> not_ours = Processes();
  puts("watching");
  fflush(stdout);
  Peak peak;
  while (stopped == 0) {
    std::set<int> ours = Processes();
    for (const int pid : not_ours) {
      ours.erase(pid);
    }
    std::erase_if(ours, IsHelper);
    peak.Look(ours, Clock::now());
    std::this_thread::sleep_for(kInterval);
  }
  return peak.kib();
}

}  // namespace
}  // namespace orbisk::bench

// Prints "watching", and after SIGTERM the highest sum of proportional set sizes that it saw, in KiB, of all processes
// that /proc shows but those that were there before, and helpers of scripts.
int main() {
  std::signal(SIGTERM, [](int) { orbisk::bench::stopped = 1; });
  printf("%ld\n", orbisk::bench::WatchUntilStopped());
  return 0;
}
