// Accounts and groups from the system's name service (local files, and whatever else the machine is set up to ask).
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace nimo {

struct Account {
  std::string name;  ///< as the name service spells it
  uid_t uid;
  gid_t gid;  ///< its primary group
};

/// The account called `name`, or the one with the number `uid`. Nothing, with errno set, when there is none (ENOENT) or
/// it cannot be looked up. Threads: any.
std::optional<Account> FindAccount(const char* name);
std::optional<Account> FindAccount(uid_t uid);

/// The names of the accounts that the machine itself keeps, in its order. Nothing, with errno set, when they cannot be
/// read to the end. Threads: any.
std::optional<std::vector<std::string>> LocalAccountNames();

/// The number of the group called `name`. Nothing, with errno set, when there is none (ENOENT) or it cannot be looked
/// up. Threads: any.
std::optional<gid_t> FindGroup(const char* name);

/// All groups that the account belongs to, its primary one among them. Threads: any.
std::vector<gid_t> GroupsOf(const Account& account);

}  // namespace nimo
