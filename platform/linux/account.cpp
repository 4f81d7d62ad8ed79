// Accounts and groups from the system's name service.
#include "platform/linux/account.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

namespace nimo {
namespace {

constexpr size_t kFirstBufferBytes = 1024;
constexpr size_t kMaxBufferBytes = 1024UL * 1024;

// Calls `ask` (a get..._r function) with more and more room. Null with errno set when it finds nothing; the record
// found points into `buffer`.
template <class Record, class Ask>
const Record* LookUp(Record& record, std::vector<char>& buffer, Ask ask) {
  Record* found = nullptr;
  int result = 0;
  buffer.resize(kFirstBufferBytes);
  while ((result = ask(&record, buffer.data(), buffer.size(), &found)) == ERANGE && buffer.size() < kMaxBufferBytes) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr) {
    // 0, and depending on the name service ENOENT, ESRCH, EBADF or EPERM, all mean that there is no such entry.
    const bool missing = result == 0 || result == ESRCH || result == EBADF || result == EPERM;
    errno = missing ? ENOENT : result;
  }
  return found;
}

template <class Ask>
std::optional<Account> LookUpAccount(Ask ask) {
  passwd record{};
  std::vector<char> buffer;
  const passwd* found = LookUp(record, buffer, ask);
  if (found == nullptr) {
    return std::nullopt;
  }
  return Account{found->pw_name, found->pw_uid, found->pw_gid};
}

}  // namespace

std::optional<Account> FindAccount(const char* name) {
  return LookUpAccount([name](passwd* record, char* buffer, size_t bytes, passwd** found) {
    return getpwnam_r(name, record, buffer, bytes, found);
  });
}

std::optional<Account> FindAccount(uid_t uid) {
  return LookUpAccount([uid](passwd* record, char* buffer, size_t bytes, passwd** found) {
    return getpwuid_r(uid, record, buffer, bytes, found);
  });
}

std::optional<std::vector<std::string>> LocalAccountNames() {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen("/etc/passwd", "re"), fclose);
  if (file == nullptr) {
    return std::nullopt;
  }
  std::vector<std::string> names;
  passwd record{};
  passwd* found = nullptr;
  std::vector<char> buffer(kFirstBufferBytes);
  int result = 0;
  while ((result = fgetpwent_r(file.get(), &record, buffer.data(), buffer.size(), &found)) != ENOENT) {
    if (result == 0) {
      names.emplace_back(record.pw_name);
    } else if (result == ERANGE && buffer.size() < kMaxBufferBytes) {
      buffer.resize(buffer.size() * 2);  // the same line comes again
    } else {
      errno = result;
      return std::nullopt;
    }
  }
  return names;
}

std::optional<gid_t> FindGroup(const char* name) {
  group record{};
  std::vector<char> buffer;
  const group* found = LookUp(record, buffer, [name](group* entry, char* room, size_t bytes, group** result) {
    return getgrnam_r(name, entry, room, bytes, result);
  });
  return found != nullptr ? std::optional<gid_t>(found->gr_gid) : std::nullopt;
}

std::vector<gid_t> GroupsOf(const Account& account) {
  std::vector<gid_t> groups(16);
  int count = static_cast<int>(groups.size());
  while (getgrouplist(account.name.c_str(), account.gid, groups.data(), &count) < 0) {
    // It says how many there are, but may learn of more meanwhile.
    groups.resize(std::max(static_cast<size_t>(count), groups.size() * 2));
    count = static_cast<int>(groups.size());
  }
  groups.resize(static_cast<size_t>(count));
  return groups;
}

}  // namespace nimo
