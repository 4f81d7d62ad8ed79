// The fake platform's accounts.
#include "tests/support/fake_user.h"

#include <cstdlib>
#include <cstring>

namespace orbisk::test {

FakeUserService::FakeUserService()
    : get("NIMOUserGet", [this](const char* name, NIMOUSER** user) { return Get(name, user); }),
      get_by_uid("NIMOUserGetByUID", [this](uid_t uid, NIMOUSER** user) { return GetByUID(uid, user); }),
      free("NIMOUserFree", [this](NIMOUSER* user) { Free(user); }),
      is_admin("NLIBGroupIsAdminGroupMem", [this](const char* name, int) { return IsAdmin(name); }),
      reset_credentials("ResetCredentialsByName", [this](const std::string& name, bool with_group) {
        return ResetCredentials(name, with_group);
      }) {
  FakeUserService::Reset();
}

void FakeUserService::Add(const std::string& name, uid_t uid, gid_t gid) {
  const std::lock_guard lock(mutex_);
  accounts_[name] = {uid, gid};
}

void FakeUserService::AddAdmin(const std::string& name) {
  const std::lock_guard lock(mutex_);
  admins_.insert(name);
}

int FakeUserService::outstanding() const {
  const std::lock_guard lock(mutex_);
  return outstanding_;
}

void FakeUserService::Reset() {
  const std::lock_guard lock(mutex_);
  accounts_ = {{"root", {0, 0}}};
  admins_.clear();
  outstanding_ = 0;
  TheFakeIdentity() = FakeIdentity();
}

int FakeUserService::Get(const char* name, NIMOUSER** user) {
  if (user == nullptr) {
    return FailPlatform(EINVAL);
  }
  *user = nullptr;
  if (name == nullptr || *name == '\0') {
    return FailPlatform(EINVAL);
  }
  const std::lock_guard lock(mutex_);
  const auto found = accounts_.find(name);
  if (found == accounts_.end()) {
    return FailPlatform(ENOENT);
  }
  return Hand(name, found->second, user);
}

int FakeUserService::GetByUID(uid_t uid, NIMOUSER** user) {
  if (user == nullptr) {
    return FailPlatform(EINVAL);
  }
  *user = nullptr;
  const std::lock_guard lock(mutex_);
  for (const auto& [name, account] : accounts_) {
    if (account.uid == uid) {
      return Hand(name, account, user);
    }
  }
  return FailPlatform(ENOENT);
}

// The caller holds the mutex.
int FakeUserService::Hand(const std::string& name, const Account& account, NIMOUSER** user) {
  *user = new NIMOUSER{strdup(name.c_str()), account.uid, account.gid};
  ++outstanding_;
  return 0;
}

int FakeUserService::IsAdmin(const char* name) {
  if (name == nullptr || *name == '\0') {
    return FailPlatform(EINVAL);
  }
  const std::lock_guard lock(mutex_);
  if (admins_.count(name) != 0) {
    return 1;
  }
  const auto found = accounts_.find(name);
  return found == accounts_.end() ? FailPlatform(ENOENT) : found->second.uid == 0 ? 1 : 0;
}

bool FakeUserService::ResetCredentials(const std::string& name, bool with_group) {
  const std::lock_guard lock(mutex_);
  const auto found = accounts_.find(name);
  if (found == accounts_.end()) {
    FailPlatform(ENOENT);
    return false;
  }
  TheFakeIdentity().euid = found->second.uid;
  if (with_group) {
    TheFakeIdentity().egid = found->second.gid;
  }
  return true;
}

void FakeUserService::Free(NIMOUSER* user) {
  if (user == nullptr) {
    return;
  }
  const std::lock_guard lock(mutex_);
  --outstanding_;
  std::free(user->szName);
  delete user;
}

FakeIdentity& TheFakeIdentity() {
  static auto* const identity = new FakeIdentity;
  return *identity;
}

FakeUserService& FakeUsers() {
  static auto* const users = new FakeUserService;
  return *users;
}

}  // namespace orbisk::test

int NIMOUserGet(const char* name, NIMOUSER** user) {
  return orbisk::test::FakeUsers().get(name, user);
}

void NIMOUserFree(NIMOUSER* user) {
  orbisk::test::FakeUsers().free(user);
}

int NIMOUserGetByUID(uid_t uid, NIMOUSER** user) {
  return orbisk::test::FakeUsers().get_by_uid(uid, user);
}

int NLIBGroupIsAdminGroupMem(const char* user, int reserved) {
  return orbisk::test::FakeUsers().is_admin(user, reserved);
}

bool ResetCredentialsByName(const std::string& name, bool with_group) {
  return orbisk::test::FakeUsers().reset_credentials(name, with_group);
}
