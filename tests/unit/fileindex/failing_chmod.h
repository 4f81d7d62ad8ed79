// A chmod(2) that fails on demand: as root, and on a file just made, the real one does not.
#pragma once

namespace orbisk::fileindex::test {

/// While one lives, chmod(2) fails with EPERM.
class FailingChmod {
 public:
  FailingChmod();
  ~FailingChmod();
  FailingChmod(const FailingChmod&) = delete;
  FailingChmod& operator=(const FailingChmod&) = delete;
};

}  // namespace orbisk::fileindex::test
