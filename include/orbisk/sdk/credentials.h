// Acting as another account for a scope.
#pragma once

#include <sys/types.h>

#include <string>

#include "orbisk/export.h"

namespace orbisk::sdk {

/// Changes the effective user and group of the process for a scope.
///
/// The account that the destructor goes to depends on the constructor. A default guard remembers who it was, so
/// `SDKCredentials guard; guard.AsUser("ann");` comes back. A guard made with a name re-applies that name: it suits
/// processes that are root already and want to be sure of it for a few calls.
///
/// Members of the administrators' group act as root.
///
/// Threads: the identity belongs to the whole process. Guards of different threads may be made side by side but must
/// not overlap. SDKMutex() is taken for each switch: do not hold it.
class ORBISK_EXPORT SDKCredentials {
 public:
  /// Remembers the present identity and makes no switch. Throws Error 503 when the effective user has no account.
  SDKCredentials();

  /// Acts as `user`, even when that is the present identity. Throws as AsUser.
  explicit SDKCredentials(const std::string& user);

  /// Goes to the account described above if the effective user or group is not what it was at construction. A switch
  /// that fails is recorded and leaves the identity as it is; it throws Error 503 unless an exception is under way.
  ~SDKCredentials() noexcept(false);  // NOLINT(bugprone-exception-escape)

  SDKCredentials(const SDKCredentials&) = delete;
  SDKCredentials& operator=(const SDKCredentials&) = delete;

  /// Acts as `user`. Throws Error 503 without a reason, the identity unchanged, when there is no such account or the
  /// switch is refused.
  void AsUser(const std::string& user);

 private:
  uid_t euid_;
  gid_t egid_;
  std::string username_;
};

}  // namespace orbisk::sdk
