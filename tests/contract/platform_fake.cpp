// The contract suites against the fake, so that what unit tests stand on behaves like the real thing.
#include "tests/contract/platform_under_test.h"
#include "tests/support/fake_filesystem.h"
#include "tests/support/fake_user.h"

namespace orbisk::test {

Account KnownAccount() {
  FakeUsers().Add("someone", 1234, 4321);
  return {"someone", 1234, 4321};
}

bool MakeMountPoint(const std::string& path) {
  FakeFileSystem().AddMountPoint(path);
  return true;
}

}  // namespace orbisk::test
