// What a quota leaves, apart from asking the kernel for it.
#pragma once

#include <sys/quota.h>

#include <cstdint>
#include <ctime>
#include <limits>

namespace nimo {

/// How many bytes an account may still write at time `now` under `quota`. Beyond the soft limit it may write up to the
/// hard one until its grace time is over, and nothing afterwards.
inline uint64_t BytesLeft(const dqblk& quota, time_t now) {
  constexpr uint64_t kBlockBytes = 1024;  // the unit of limits, whatever the file system's own
  constexpr uint64_t kNoLimit = std::numeric_limits<uint64_t>::max();
  const uint64_t used = quota.dqb_curspace;
  const bool beyond_soft = quota.dqb_bsoftlimit != 0 && used > quota.dqb_bsoftlimit * kBlockBytes;
  if (beyond_soft && quota.dqb_btime != 0 && quota.dqb_btime <= static_cast<uint64_t>(now)) {
    return 0;
  }
  if (quota.dqb_bhardlimit == 0) {
    return kNoLimit;
  }
  const uint64_t limit = quota.dqb_bhardlimit * kBlockBytes;
  return limit > used ? limit - used : 0;
}

}  // namespace nimo
