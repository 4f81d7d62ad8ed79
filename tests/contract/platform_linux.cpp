// The contract suites against libnimo.
#include <pwd.h>
#include <unistd.h>

#include <system_error>

#include "tests/contract/platform_under_test.h"
#include "tests/support/private_mounts.h"

namespace orbisk::test {

Account KnownAccount() {
  const passwd* account = getpwuid(geteuid());
  if (account == nullptr) {
    return {"root", 0, 0};
  }
  return {account->pw_name, account->pw_uid, account->pw_gid};
}

bool MakeMountPoint(const std::string& path) {
  try {
    EnterPrivateMounts({});
    MountEmptyFileSystem(path, 1024UL * 1024);
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

}  // namespace orbisk::test
