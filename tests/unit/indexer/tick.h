// The clock that the kernel stamps files with.
#pragma once

#include <unistd.h>

#include <ctime>

namespace fileindexd {

/// Waits until that clock has gone on: what is written from then on has another date than what was written before.
inline void AwaitTick() {
  timespec before{};
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &before);
  do {
    usleep(100);
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
  } while (now.tv_sec == before.tv_sec && now.tv_nsec == before.tv_nsec);
}

}  // namespace fileindexd
