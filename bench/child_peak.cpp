// Memory of a piece of work, as what a process that does nothing else needs for it.
#include "bench/child_peak.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace orbisk::bench {

size_t PeakOf(const std::function<void()>& work) {
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    work();
    _exit(0);
  }
  int status = 0;
  rusage usage{};
  if (child < 0 || wait4(child, &status, 0, &usage) != child || status != 0) {
    perror("child");
    exit(2);
  }
  return static_cast<size_t>(usage.ru_maxrss) * 1024;
}

}  // namespace orbisk::bench
