// Replaces geteuid(2) and getegid(2) by who the process pretends to be.
#include <unistd.h>

#include "tests/support/fake_user.h"

uid_t geteuid() noexcept {
  return orbisk::test::TheFakeIdentity().euid;
}

gid_t getegid() noexcept {
  return orbisk::test::TheFakeIdentity().egid;
}
