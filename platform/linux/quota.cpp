// Room on a volume: what is free, and what the effective user's quota leaves of it.
#include "nimo/quota.h"

#include <fcntl.h>
#include <sys/quota.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <ctime>
#include <string>

#include "platform/linux/last_error.h"
#include "platform/linux/quota_room.h"
#include "platform/linux/unique_fd.h"

namespace nimo {
namespace {

// True when the quota could be asked. False with errno set when not.
bool GetQuota(const char* path, uid_t uid, dqblk& quota) {
  const UniqueFd folder(open(path, O_PATH | O_CLOEXEC));
  struct stat status {};
  if (!folder.ok() || fstat(folder.get(), &status) != 0) {
    return false;
  }
  auto* const answer = reinterpret_cast<caddr_t>(&quota);
#ifdef SYS_quotactl_fd
  if (syscall(SYS_quotactl_fd, folder.get(), QCMD(Q_GETQUOTA, USRQUOTA), uid, answer) == 0) {
    return true;
  }
  // Kernels before 5.14 have no such call; of file systems without quotas newer ones say the same.
  if (errno != ENOSYS) {
    return false;
  }
#endif
  const std::string device =
      "/dev/block/" + std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev));
  return quotactl(QCMD(Q_GETQUOTA, USRQUOTA), device.c_str(), static_cast<int>(uid), answer) == 0;
}

// What the kernel answers where no quotas are kept.
bool MeansNoQuotas(int error) {
  return error == ESRCH || error == ENOSYS || error == ENOTBLK || error == ENODEV || error == ENOENT ||
         error == EOPNOTSUPP || error == EINVAL;
}

}  // namespace
}  // namespace nimo

int NIMOQuotaIsEnough(int, const char* path, unsigned long long bytes) {
  if (path == nullptr) {
    NIMO_FAIL(EINVAL);
    return 0;
  }
  struct statvfs room {};
  if (statvfs(path, &room) != 0) {
    NIMO_FAIL_ERRNO();
    return 0;
  }
  // In blocks, as the product may be more than 64 bits hold. Some file systems (9P, some FUSE) tell no sizes at all.
  if (room.f_blocks != 0 && room.f_frsize != 0 &&
      bytes / room.f_frsize + (bytes % room.f_frsize != 0 ? 1 : 0) > room.f_bavail) {
    NIMO_FAIL(NIMO_ERR_VOLUME_FULL);
    return 0;
  }
  // The kernel holds root to no quota.
  const uid_t uid = geteuid();
  if (uid == 0) {
    return 1;
  }
  dqblk quota{};
  if (!nimo::GetQuota(path, uid, quota)) {
    if (nimo::MeansNoQuotas(errno)) {
      return 1;
    }
    NIMO_FAIL_ERRNO();
    return 0;
  }
  if (nimo::BytesLeft(quota, time(nullptr)) < bytes) {
    NIMO_FAIL(NIMO_ERR_QUOTA_EXCEEDED);
    return 0;
  }
  return 1;
}
