// All three are kept by the kernel for each thread.
#include "services/indexer/limits.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace fileindexd {

void LowerPriority(int nice) {
  // The C library has no names for the disk's priorities.
  constexpr int kWhoThread = 1;
  constexpr int kClassShift = 13;
  constexpr int kBestEffort = 2;
  constexpr int kLowest = 7;

  const sched_param none{};
  sched_setscheduler(0, SCHED_BATCH, &none);
  setpriority(PRIO_PROCESS, 0, nice);
  syscall(SYS_ioprio_set, kWhoThread, 0, (kBestEffort << kClassShift) | kLowest);
}

}  // namespace fileindexd
