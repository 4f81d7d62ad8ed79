// The fake platform's accounts.
#pragma once

#include <sys/types.h>

#include <map>
#include <mutex>
#include <set>
#include <string>

#include "nimo/user.h"
#include "tests/support/fake_platform.h"

namespace orbisk::test {

/// Knows root (0, 0), who administers the box, alone until a test adds accounts.
class FakeUserService final : public FakeService {
 public:
  FakeUserService();

  FakeFunction<int(const char*, NIMOUSER**)> get;
  FakeFunction<int(uid_t, NIMOUSER**)> get_by_uid;
  FakeFunction<void(NIMOUSER*)> free;
  FakeFunction<int(const char*, int)> is_admin;
  FakeFunction<bool(std::string, bool)> reset_credentials;  ///< account, with group

  void Add(const std::string& name, uid_t uid, gid_t gid);
  /// Makes an account a member of the administrators' group.
  void AddAdmin(const std::string& name);
  /// Records handed out and not yet freed.
  int outstanding() const;
  void Reset() override;

 private:
  struct Account {
    uid_t uid;
    gid_t gid;
  };

  int Get(const char* name, NIMOUSER** user);
  int GetByUID(uid_t uid, NIMOUSER** user);
  int Hand(const std::string& name, const Account& account, NIMOUSER** user);
  int IsAdmin(const char* name);
  bool ResetCredentials(const std::string& name, bool with_group);
  void Free(NIMOUSER* user);

  mutable std::mutex mutex_;  // guards the rest
  std::map<std::string, Account> accounts_;
  std::set<std::string> admins_;
  int outstanding_ = 0;
};

FakeUserService& FakeUsers();

/// Who the process pretends to be. geteuid(2) and getegid(2) answer it in programs that link orbisk_fake_identity;
/// there, ResetCredentialsByName changes it. Root at the beginning and after a reset of the platform.
struct FakeIdentity {
  uid_t euid = 0;
  gid_t egid = 0;
};
FakeIdentity& TheFakeIdentity();

}  // namespace orbisk::test
