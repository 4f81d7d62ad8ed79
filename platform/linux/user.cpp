// The box's accounts, and who administers it.
#include "nimo/user.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/linux/account.h"
#include "platform/linux/last_error.h"

namespace nimo {
namespace {

// Those of a storage box first; a plain machine has the other.
constexpr const char* kAdministratorGroups[] = {"administrators", "sudo"};

// A record of its own, or null when memory is out. With malloc, as the caller may be C.
NIMOUSER* NewUser(const Account& account) {
  auto* user = static_cast<NIMOUSER*>(malloc(sizeof(NIMOUSER)));
  if (user == nullptr) {
    return nullptr;
  }
  *user = {strdup(account.name.c_str()), account.uid, account.gid};
  if (user->szName == nullptr) {
    free(user);
    return nullptr;
  }
  return user;
}

// Stores a record of the account, or null when none was found (errno says why).
int Hand(const std::optional<Account>& account, NIMOUSER** user) {
  if (!account) {
    return NIMO_FAIL_ERRNO();
  }
  *user = NewUser(*account);
  return *user != nullptr ? 0 : NIMO_FAIL(ENOMEM);
}

}  // namespace
}  // namespace nimo

int NIMOUserGet(const char* name, NIMOUSER** user) {
  if (user == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  *user = nullptr;
  if (name == nullptr || *name == '\0') {
    return NIMO_FAIL(EINVAL);
  }
  return nimo::Hand(nimo::FindAccount(name), user);
}

int NIMOUserGetByUID(uid_t uid, NIMOUSER** user) {
  if (user == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  *user = nullptr;
  return nimo::Hand(nimo::FindAccount(uid), user);
}

void NIMOUserFree(NIMOUSER* user) {
  if (user != nullptr) {
    free(user->szName);
    free(user);
  }
}

int NLIBGroupIsAdminGroupMem(const char* user, int) {
  if (user == nullptr || *user == '\0') {
    return NIMO_FAIL(EINVAL);
  }
  const std::optional<nimo::Account> account = nimo::FindAccount(user);
  if (!account) {
    return NIMO_FAIL_ERRNO();
  }
  if (account->uid == 0) {
    return 1;
  }
  for (const char* name : nimo::kAdministratorGroups) {
    if (const std::optional<gid_t> group = nimo::FindGroup(name)) {
      const std::vector<gid_t> groups = nimo::GroupsOf(*account);
      return std::find(groups.begin(), groups.end(), *group) != groups.end() ? 1 : 0;
    }
    if (errno != ENOENT) {
      return NIMO_FAIL_ERRNO();
    }
  }
  return 0;
}
