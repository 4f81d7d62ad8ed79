// What the contract suites need from the implementation that they run against. Each program links one answer.
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "nimo/share_registry.h"

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

/// Makes the platform know no share, and no account but root. False where the machine does not allow it.
bool ForgetSharesAndAccounts();

/// Makes a share known; its folder exists. After ForgetSharesAndAccounts.
void AddShare(const NIMO::SHARE::Entry& share);

/// Makes an account known, and an administrator of the box if wanted. After ForgetSharesAndAccounts.
void AddAccount(const Account& account, bool administrator = false);

/// Makes an account known that a directory service has, and not the box itself. After ForgetSharesAndAccounts.
void AddDirectoryAccount(const Account& account);

/// Makes the platform know no registered queue. False where the machine does not allow it.
bool ForgetRegistrations();

/// Makes the platform know no service but those of AddService. False where the machine does not allow it.
bool ForgetServices();

/// Makes a service known that does nothing, and does not run. After ForgetServices.
void AddService(const std::string& name);

bool IsServiceRunning(const std::string& name);

/// Makes the platform have an SMB server of the test's own, which does not answer Spotlight searches. False where the
/// machine does not allow it.
bool ReplaceSamba();

/// The "config" of each registered queue.
std::vector<Json::Value> RegisteredConfigs();

}  // namespace orbisk::test
