// Accounts from the system's name service (local files, and whatever else the machine is set up to ask).
#include "nimo/user.h"

#include <pwd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/linux/last_error.h"

namespace nimo {
namespace {

constexpr size_t kFirstBufferBytes = 1024;
constexpr size_t kMaxBufferBytes = 1024UL * 1024;

// A record of its own, or null when memory is out. With malloc, as the caller may be C.
NIMOUSER* NewUser(const passwd& account) {
  auto* user = static_cast<NIMOUSER*>(malloc(sizeof(NIMOUSER)));
  if (user == nullptr) {
    return nullptr;
  }
  *user = {strdup(account.pw_name), account.pw_uid, account.pw_gid};
  if (user->szName == nullptr) {
    free(user);
    return nullptr;
  }
  return user;
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
  std::vector<char> buffer(nimo::kFirstBufferBytes);
  passwd account{};
  passwd* found = nullptr;
  int result = 0;
  while ((result = getpwnam_r(name, &account, buffer.data(), buffer.size(), &found)) == ERANGE &&
         buffer.size() < nimo::kMaxBufferBytes) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr) {
    // 0, and depending on the name service ENOENT, ESRCH, EBADF or EPERM, all mean that there is no such account.
    const bool missing = result == 0 || result == ESRCH || result == EBADF || result == EPERM;
    return NIMO_FAIL(missing ? ENOENT : result);
  }
  *user = nimo::NewUser(account);
  return *user != nullptr ? 0 : NIMO_FAIL(ENOMEM);
}

void NIMOUserFree(NIMOUSER* user) {
  if (user != nullptr) {
    free(user->szName);
    free(user);
  }
}
