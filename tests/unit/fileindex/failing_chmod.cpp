// A chmod(2) that fails on demand: as root, and on a file just made, the real one does not.
#include "tests/unit/fileindex/failing_chmod.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>

namespace orbisk::fileindex::test {
namespace {

std::atomic<int> failing{0};

}  // namespace

FailingChmod::FailingChmod() {
  ++failing;
}

FailingChmod::~FailingChmod() {
  --failing;
}

}  // namespace orbisk::fileindex::test

extern "C" int chmod(const char* path, mode_t mode) noexcept {
  if (orbisk::fileindex::test::failing > 0) {
    errno = EPERM;
    return -1;
  }
  return fchmodat(AT_FDCWD, path, mode, 0);
}
