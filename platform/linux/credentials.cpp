// Acting as another account: the effective ids and the supplementary groups, all or nothing.
#include <grp.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "nimo/user.h"
#include "platform/linux/account.h"
#include "platform/linux/last_error.h"

namespace nimo {
namespace {

// The identity at construction; puts it back at destruction unless told to keep the new one. The C library changes the
// ids of all threads, which the bare system calls would not.
class IdentityGuard {
 public:
  IdentityGuard() : uid_(geteuid()), gid_(getegid()) {
    const int count = getgroups(0, nullptr);
    groups_.resize(count > 0 ? static_cast<size_t>(count) : 0);
    known_ = count >= 0 && (count == 0 || getgroups(count, groups_.data()) == count);
  }
  IdentityGuard(const IdentityGuard&) = delete;
  IdentityGuard& operator=(const IdentityGuard&) = delete;
  // Root first: only root may set the rest. What was possible a moment ago, when everything was as it is now, is
  // possible again; nobody could be told if it were not.
  ~IdentityGuard() {
    const int saved_errno = errno;
    if (!kept_ && geteuid() == 0) {
      if (groups_changed_) {
        [[maybe_unused]] const int groups_back = setgroups(groups_.size(), groups_.data());
      }
      [[maybe_unused]] const int gid_back = getegid() == gid_ ? 0 : setegid(gid_);
      [[maybe_unused]] const int uid_back = uid_ == 0 ? 0 : seteuid(uid_);
    }
    errno = saved_errno;
  }

  /// Whether everything that would have to be put back is known.
  bool known() const { return known_; }
  void WillChangeGroups() { groups_changed_ = true; }
  void Keep() { kept_ = true; }

 private:
  const uid_t uid_;
  const gid_t gid_;
  std::vector<gid_t> groups_;
  bool known_ = false;
  bool groups_changed_ = false;
  bool kept_ = false;
};

bool Become(const Account& account, bool with_group) {
  IdentityGuard guard;
  if (!guard.known() || (geteuid() != 0 && seteuid(0) != 0)) {
    return false;
  }
  if (with_group) {
    guard.WillChangeGroups();
    if (setegid(account.gid) != 0 || initgroups(account.name.c_str(), account.gid) != 0) {
      return false;
    }
  }
  if (account.uid != 0 && seteuid(account.uid) != 0) {
    return false;
  }
  guard.Keep();
  return true;
}

}  // namespace
}  // namespace nimo

bool ResetCredentialsByName(const std::string& name, bool with_group) {
  if (name.empty() || name.find('\0') != std::string::npos) {
    NIMO_FAIL(EINVAL);
    return false;
  }
  const std::optional<nimo::Account> account = nimo::FindAccount(name.c_str());
  if (!account || !nimo::Become(*account, with_group)) {
    NIMO_FAIL_ERRNO();
    return false;
  }
  return true;
}
