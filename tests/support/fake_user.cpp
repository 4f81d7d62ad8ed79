// The fake platform's accounts.
#include "tests/support/fake_user.h"

#include <cstdlib>
#include <cstring>

namespace orbisk::test {

FakeUserService::FakeUserService()
    : get("NIMOUserGet", [this](const char* name, NIMOUSER** user) { return Get(name, user); }),
      free("NIMOUserFree", [this](NIMOUSER* user) { Free(user); }) {}

void FakeUserService::Add(const std::string& name, uid_t uid, gid_t gid) {
  const std::lock_guard lock(mutex_);
  accounts_[name] = {uid, gid};
}

int FakeUserService::outstanding() const {
  const std::lock_guard lock(mutex_);
  return outstanding_;
}

void FakeUserService::Reset() {
  const std::lock_guard lock(mutex_);
  accounts_.clear();
  outstanding_ = 0;
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
  *user = new NIMOUSER{strdup(name), found->second.uid, found->second.gid};
  ++outstanding_;
  return 0;
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
