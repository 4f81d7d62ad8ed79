// The accounts of the machine, and acting as one of them where the kernel judges.
#pragma once

#include <linux/capability.h>
#include <sys/types.h>

#include <array>
#include <string>
#include <vector>

namespace nimoelasticd {

/// Whom the kernel takes somebody for. The groups are sorted, and the account's own one is among them.
struct Account {
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> groups;
};

/// Asks the machine's account database, anew each time. Throws Refusal kNoSuchAccount; kCannotActAs when the database
/// cannot be read.
Account AccountOf(const std::string& name);

/// From construction to destruction, files are opened and judged by the kernel as if `account` asked, with nothing of
/// what this daemon may do besides.
///
/// That holds for the calling thread alone, which does nothing else meanwhile: a database that it opened would be
/// opened as that account, too. Only the identity for files is changed, so that the account can neither signal nor
/// trace the daemon. Going back cannot be refused by the kernel; if it is, the process ends itself.
class ActingAs {
 public:
  /// Throws Refusal kCannotActAs, with everything as it was, when the daemon may not become that account.
  explicit ActingAs(const Account& account);
  ~ActingAs() { GoBack(); }
  ActingAs(const ActingAs&) = delete;
  ActingAs& operator=(const ActingAs&) = delete;

 private:
  using Capabilities = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

  bool Become(const Account& account);
  void GoBack() noexcept;

  uid_t user_ = 0;
  gid_t group_ = 0;
  std::vector<gid_t> groups_;
  Capabilities capabilities_{};
  bool other_groups_ = false;
};

}  // namespace nimoelasticd
