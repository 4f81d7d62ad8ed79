// An /etc of the test's own: accounts, groups and the registry of shares.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace orbisk::test {

/// Covers /etc in a private mount namespace, once for the program, and makes it hold root and a group "root" only, with
/// no /etc/nimo. Call it from the main thread. False where the machine does not allow it.
bool MakePrivateEtc();

/// Adds an account, its primary group (with its name) and its membership in `groups`, made if missing with the numbers
/// 5001, 5002 ... in that order. After MakePrivateEtc.
void AddPrivateAccount(const std::string& name, uid_t uid, gid_t gid, const std::vector<std::string>& groups = {});

/// Adds a group without members.
void AddPrivateGroup(const std::string& name, gid_t gid);

}  // namespace orbisk::test
