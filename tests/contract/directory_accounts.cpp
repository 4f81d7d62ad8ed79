// Accounts of a directory service: a module of the system's name service, which takes it from the program that has
// loaded it already.
#include "tests/contract/directory_accounts.h"

#include <nss.h>
#include <pwd.h>

#include <cerrno>
#include <map>

namespace orbisk::test {
namespace {

struct Ids {
  uid_t uid;
  gid_t gid;
};

// Never destroyed: look-ups may come while the program ends.
std::map<std::string, Ids>& Accounts() {
  static auto* const accounts = new std::map<std::string, Ids>;
  return *accounts;
}

nss_status Fill(const std::string& name, const Ids& ids, passwd* record, char* buffer, size_t bytes, int* error) {
  static char empty[] = "";
  if (name.size() >= bytes) {
    *error = ERANGE;
    return NSS_STATUS_TRYAGAIN;
  }
  buffer[name.copy(buffer, name.size())] = '\0';
  *record = {buffer, empty, ids.uid, ids.gid, empty, empty, empty};
  return NSS_STATUS_SUCCESS;
}

}  // namespace

void AddDirectoryServiceAccount(const std::string& name, uid_t uid, gid_t gid) {
  Accounts()[name] = {uid, gid};
}

}  // namespace orbisk::test

extern "C" nss_status _nss_orbisk_directory_getpwnam_r(const char* name, passwd* record, char* buffer, size_t bytes,
                                                       int* error) {
  const auto& accounts = orbisk::test::Accounts();
  const auto found = accounts.find(name);
  if (found == accounts.end()) {
    *error = ENOENT;
    return NSS_STATUS_NOTFOUND;
  }
  return orbisk::test::Fill(found->first, found->second, record, buffer, bytes, error);
}
