// What the contract suites need from the implementation that they run against. Each program links one answer.
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <string>
#include <vector>

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

/// Makes the platform know no registered queue. False where the machine does not allow it.
bool ForgetRegistrations();

/// The "config" of each registered queue.
std::vector<Json::Value> RegisteredConfigs();

}  // namespace orbisk::test
