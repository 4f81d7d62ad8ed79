// Permissions and mount points, asked of the kernel.
#include "nimo/filesystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/last_error.h"

namespace nimo {
namespace {

// Whether the effective user may do `mode`; false with errno set when not. The kernel weighs access control lists,
// capabilities and read-only mounts, which comparing mode bits would miss.
bool MayAccess(const char* path, int mode) {
  return faccessat(AT_FDCWD, path, mode, AT_EACCESS) == 0;
}

// An answer of the kernel's, as opposed to a failure to answer.
bool IsRefusal(int error) {
  return error == EACCES || error == EPERM || error == EROFS || error == ETXTBSY;
}

}  // namespace
}  // namespace nimo

int NIMOACLPermGet(const char* path, int* permissions) {
  if (path == nullptr || permissions == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  *permissions = 0;
  // Also fails where a folder on the way may not be passed: then nothing can be known of the file itself.
  if (!nimo::MayAccess(path, F_OK)) {
    return NIMO_FAIL_ERRNO();
  }
  static constexpr struct {
    int mode;
    int permission;
  } kQuestions[] = {{R_OK, NIMO_ACL_READ}, {W_OK, NIMO_ACL_WRITE}, {X_OK, NIMO_ACL_EXECUTE}};
  int granted = 0;
  for (const auto& question : kQuestions) {
    if (nimo::MayAccess(path, question.mode)) {
      granted |= question.permission;
    } else if (!nimo::IsRefusal(errno)) {
      return NIMO_FAIL_ERRNO();
    }
  }
  *permissions = granted;
  return 0;
}

int NIMOFSDirIsMntPoint(const char* path) {
  if (path == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  struct statx status;
  if (statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE, &status) != 0) {
    return NIMO_FAIL_ERRNO();
  }
  // Kernels since 5.8 say it of every file; comparing devices with the parent would miss bind mounts.
  if ((status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0) {
    return NIMO_FAIL(EOPNOTSUPP);
  }
  return S_ISDIR(status.stx_mode) && (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 ? 1 : 0;
}
