// The fake platform's accounts.
#pragma once

#include <sys/types.h>

#include <map>
#include <mutex>
#include <string>

#include "nimo/user.h"
#include "tests/support/fake_platform.h"

namespace orbisk::test {

/// Knows no account until a test adds some.
class FakeUserService final : public FakeService {
 public:
  FakeUserService();

  FakeFunction<int(const char*, NIMOUSER**)> get;
  FakeFunction<void(NIMOUSER*)> free;

  void Add(const std::string& name, uid_t uid, gid_t gid);
  /// Records handed out and not yet freed.
  int outstanding() const;
  void Reset() override;

 private:
  struct Account {
    uid_t uid;
    gid_t gid;
  };

  int Get(const char* name, NIMOUSER** user);
  void Free(NIMOUSER* user);

  mutable std::mutex mutex_;  // guards the rest
  std::map<std::string, Account> accounts_;
  int outstanding_ = 0;
};

FakeUserService& FakeUsers();

}  // namespace orbisk::test
