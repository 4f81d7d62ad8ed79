// Accounts of a directory service, for the system's name service.
#pragma once

#include <sys/types.h>

#include <string>

namespace orbisk::test {

/// Makes the service "orbisk_directory" of nsswitch.conf know an account.
void AddDirectoryServiceAccount(const std::string& name, uid_t uid, gid_t gid);

}  // namespace orbisk::test
