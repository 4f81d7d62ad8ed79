// The contract suites against the fake, so that what unit tests stand on behaves like the real thing.
#include "tests/contract/platform_under_test.h"
#include "tests/support/fake_filesystem.h"
#include "tests/support/fake_home.h"
#include "tests/support/fake_monitor_queue.h"
#include "tests/support/fake_service.h"
#include "tests/support/fake_share.h"
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

bool ForgetSharesAndAccounts() {
  FakeShares().Reset();
  FakeUsers().Reset();
  FakeHomes().Reset();
  return true;
}

void AddShare(const NIMO::SHARE::Entry& share) {
  FakeShares().Add({share.name, share.path, share.encrypted, share.encryption, share.read_only, share.recycle,
                    share.hide_unreadable, share.ftp_privilege});
}

void AddAccount(const Account& account, bool administrator) {
  FakeUsers().Add(account.name, account.uid, account.gid);
  if (administrator) {
    FakeUsers().AddAdmin(account.name);
  }
}

void AddDirectoryAccount(const Account& account) {
  FakeUsers().Add(account.name, account.uid, account.gid);
  FakeHomes().AddToDirectory(account.name);
}

bool ForgetRegistrations() {
  FakeMonitorQueues().Reset();
  return true;
}

bool ForgetServices() {
  FakeServices().Reset();
  return true;
}

void AddService(const std::string& name) {
  FakeServices().Add(name);
}

bool IsServiceRunning(const std::string& name) {
  return FakeServices().IsRunning(name);
}

bool ReplaceSamba() {
  FakeServices().Reset();
  return true;
}

std::vector<Json::Value> RegisteredConfigs() {
  std::vector<Json::Value> configs;
  for (const auto& [identity, description] : FakeMonitorQueues().registrations()) {
    configs.push_back(description["config"]);
  }
  return configs;
}

}  // namespace orbisk::test
