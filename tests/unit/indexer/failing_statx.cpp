// Stands before the C library's function of this name.
#include "tests/unit/indexer/failing_statx.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace fileindexd {
namespace {

int failure = 0;
std::string failing_path;

bool Fails(const std::string& path) {
  return failure != 0 && path.compare(0, failing_path.size(), failing_path) == 0;
}

}  // namespace

FailingStatx::FailingStatx(int error, std::string path) {
  failure = error;
  failing_path = std::move(path);
}

FailingStatx::~FailingStatx() {
  failure = 0;
}

}  // namespace fileindexd

extern "C" int statx(int folder, const char* path, int flags, unsigned wanted, struct statx* info) noexcept {
  if (fileindexd::Fails(path)) {
    errno = fileindexd::failure;
    return -1;
  }
  return static_cast<int>(syscall(SYS_statx, folder, path, flags, wanted, info));
}
