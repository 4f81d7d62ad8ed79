// Accounts from NSS. What the C library offers for changing identities changes all threads, so the kernel is called.
#include "services/search/account.h"

#include <grp.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "services/base/log.h"
#include "services/search/refusal.h"

namespace nimoelasticd {
namespace {

constexpr size_t kMostBytes = size_t{1} << 20;
constexpr int kMostGroups = 65536;  // the kernel's own bound

[[noreturn]] void CannotLookUp(const std::string& name, int error) {
  throw Refusal(Code::kCannotActAs,
                "the account " + name + " cannot be looked up: " + std::generic_category().message(error));
}

std::vector<gid_t> GroupsOf(const std::string& name, gid_t group) {
  int count = 64;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  while (getgrouplist(name.c_str(), group, groups.data(), &count) < 0) {
    if (groups.size() >= size_t{kMostGroups}) {
      CannotLookUp(name, E2BIG);  // with some of them missing, a file that denies one of the groups would be shown
    }
    count = std::min(kMostGroups, std::max(count, static_cast<int>(2 * groups.size())));
    groups.resize(static_cast<size_t>(count));
  }
  groups.resize(static_cast<size_t>(count));
  return groups;
}

void Sort(std::vector<gid_t>& groups) {
  std::sort(groups.begin(), groups.end());
  groups.erase(std::unique(groups.begin(), groups.end()), groups.end());
}

std::vector<gid_t> OwnGroups() {
  const int count = getgroups(0, nullptr);
  std::vector<gid_t> groups(static_cast<size_t>(std::max(count, 0)));
  if (count > 0) {
    groups.resize(static_cast<size_t>(std::max(getgroups(count, groups.data()), 0)));
  }
  return groups;
}

// setgroups(2) of the calling thread. Where there are two, the older one takes numbers of 16 bits.
#ifdef SYS_setgroups32
constexpr long kSetGroups = SYS_setgroups32;
#else
constexpr long kSetGroups = SYS_setgroups;
#endif

bool SetGroups(const std::vector<gid_t>& groups) {
  return syscall(kSetGroups, groups.size(), groups.data()) == 0;
}

template <typename Data>
bool Capability(long call, Data* data) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  return syscall(call, &header, data) == 0;
}

// These two tell what it was and no errors; an impossible number asks without changing anything.
bool IsFileUser(uid_t user) {
  return static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))) == user;
}
bool IsFileGroup(gid_t group) {
  return static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1))) == group;
}

}  // namespace

Account AccountOf(const std::string& name) {
  if (name.empty() || name.find('\0') != std::string::npos) {
    throw Refusal(Code::kNoSuchAccount, "no such account: \"\"");
  }
  std::vector<char> buffer(1024);
  passwd entry{};
  passwd* found = nullptr;
  int error = getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
  while (error == ERANGE && buffer.size() < kMostBytes) {
    buffer.resize(buffer.size() * 2);
    error = getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
  }
  // Some sources of accounts say these of a name that they do not know.
  if (found == nullptr && (error == 0 || error == ENOENT || error == ESRCH)) {
    throw Refusal(Code::kNoSuchAccount, "no such account: " + name);
  }
  if (found == nullptr) {
    CannotLookUp(name, error);
  }
  Account account{found->pw_uid, found->pw_gid, GroupsOf(name, found->pw_gid)};
  account.groups.push_back(account.group);
  Sort(account.groups);
  return account;
}

ActingAs::ActingAs(const Account& account) : user_(geteuid()), group_(getegid()), groups_(OwnGroups()) {
  const bool known = Capability(SYS_capget, capabilities_.data());
  if (known && Become(account)) {
    return;
  }
  if (known) {
    GoBack();
  }
  throw Refusal(Code::kCannotActAs,
                "the search daemon may not act as another account: it lacks CAP_SETUID, CAP_SETGID");
}

bool ActingAs::Become(const Account& account) {
  std::vector<gid_t> own = groups_;
  own.push_back(group_);
  Sort(own);
  other_groups_ = own != account.groups;
  if (other_groups_ && !SetGroups(account.groups)) {
    other_groups_ = false;
    return false;
  }
  setfsgid(account.group);
  setfsuid(account.user);
  if (!IsFileGroup(account.group) || !IsFileUser(account.user)) {
    return false;
  }
  if (account.user == 0) {
    return true;  // may what root may
  }
  // The kernel takes them from a thread that leaves root's number, but not from one that never had it.
  Capabilities none = capabilities_;
  for (__user_cap_data_struct& part : none) {
    part.effective = 0;
  }
  return Capability(SYS_capset, none.data());
}

void ActingAs::GoBack() noexcept {
  // A thread may always take its own numbers for files again, and capabilities that it is permitted.
  setfsuid(user_);
  setfsgid(group_);
  const bool back = Capability(SYS_capset, capabilities_.data()) && (!other_groups_ || SetGroups(groups_)) &&
                    IsFileUser(user_) && IsFileGroup(group_);
  if (!back) {
    service::Record(LOG_CRIT, "stuck_as_account").Add("user", static_cast<long long>(user_));
    std::abort();  // a thread with a wrong identity must not touch a database
  }
}

}  // namespace nimoelasticd
