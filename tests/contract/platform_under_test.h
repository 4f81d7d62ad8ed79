// What the contract suites need from the implementation that they run against. Each program links one answer.
#pragma once

#include <sys/types.h>

#include <string>

namespace orbisk::test {

struct Account {
  std::string name;
  uid_t uid;
  gid_t gid;
};

/// An account that the platform knows.
Account KnownAccount();

/// Makes the existing directory `path` a mount point. False where the machine does not allow it.
bool MakeMountPoint(const std::string& path);

}  // namespace orbisk::test
