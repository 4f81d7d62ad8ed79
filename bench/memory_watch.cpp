// Watches how much memory all processes of a namespace need together, whoever starts them and however short they live.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <thread>

namespace orbisk::bench {
namespace {

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

// A page that several processes have mapped counts in each of them for its part, so the sum counts it once. A process
// that ends meanwhile counts nothing.
long ProportionalKib(int pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("Pss:")) {
      return strtol(line.c_str() + 4, nullptr, 10);
    }
  }
  return 0;
}

long WatchUntilStopped() {
  const std::set<int> not_ours = Processes();
  puts("watching");
  fflush(stdout);
  long peak = 0;
  while (stopped == 0) {
    long sum = 0;
    for (const int pid : Processes()) {
      sum += not_ours.contains(pid) ? 0 : ProportionalKib(pid);
    }
    peak = std::max(peak, sum);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return peak;
}

}  // namespace
}  // namespace orbisk::bench

// Prints "watching", and after SIGTERM the highest sum of proportional set sizes that it saw, in KiB, of all processes
// that /proc shows but those that were there before.
int main() {
  std::signal(SIGTERM, [](int) { orbisk::bench::stopped = 1; });
  printf("%ld\n", orbisk::bench::WatchUntilStopped());
  return 0;
}
