// What an account may do with a share, worked out without becoming that account: mode bits and access control lists by
// the kernel's own rules.
#include <acl/libacl.h>
#include <sys/acl.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include "nimo/share.h"
#include "platform/linux/account.h"
#include "platform/linux/last_error.h"

namespace nimo {
namespace {

struct FreeAcl {
  void operator()(void* memory) const {
    const int saved_errno = errno;
    acl_free(memory);
    errno = saved_errno;
  }
};
using UniqueAcl = std::unique_ptr<std::remove_pointer_t<acl_t>, FreeAcl>;

constexpr unsigned kRead = 4;
constexpr unsigned kWrite = 2;
constexpr unsigned kPass = 1;

struct AclEntry {
  acl_tag_t tag;
  id_t id;  // of a named user or group
  unsigned granted;
};

unsigned Granted(acl_entry_t entry) {
  acl_permset_t permissions = nullptr;
  acl_get_permset(entry, &permissions);
  return (acl_get_perm(permissions, ACL_READ) == 1 ? kRead : 0) |
         (acl_get_perm(permissions, ACL_WRITE) == 1 ? kWrite : 0) |
         (acl_get_perm(permissions, ACL_EXECUTE) == 1 ? kPass : 0);
}

AclEntry Convert(acl_entry_t entry) {
  AclEntry result{ACL_UNDEFINED_TAG, 0, Granted(entry)};
  acl_get_tag_type(entry, &result.tag);
  if (const std::unique_ptr<void, FreeAcl> id(acl_get_qualifier(entry)); id != nullptr) {
    result.id = *static_cast<const id_t*>(id.get());
  }
  return result;
}

// The access control list of `path`; where it has none, or the file system keeps none, the mode bits as a list. Nothing
// with errno set when it cannot be read.
std::optional<std::vector<AclEntry>> ReadAcl(const char* path, mode_t mode) {
  UniqueAcl acl(acl_get_file(path, ACL_TYPE_ACCESS));
  if (acl == nullptr && (errno == EOPNOTSUPP || errno == ENOSYS)) {
    acl.reset(acl_from_mode(mode));
  }
  if (acl == nullptr) {
    return std::nullopt;
  }
  std::vector<AclEntry> entries;
  acl_entry_t entry = nullptr;
  for (int which = ACL_FIRST_ENTRY; acl_get_entry(acl.get(), which, &entry) == 1; which = ACL_NEXT_ENTRY) {
    entries.push_back(Convert(entry));
  }
  return entries;
}

class Judge {
 public:
  Judge(const std::vector<AclEntry>& acl, const struct stat& status, const Account& account)
      : acl_(acl), status_(status), account_(account), groups_(GroupsOf(account)) {}

  // The first class of entries that fits the account decides; in the class of groups one entry must grant all.
  bool Grants(unsigned wanted) const {
    if (account_.uid == 0) {
      return true;
    }
    if (account_.uid == status_.st_uid) {
      return (Find(ACL_USER_OBJ)->granted & wanted) == wanted;
    }
    const AclEntry* mask_entry = Find(ACL_MASK);
    const unsigned mask = mask_entry != nullptr ? mask_entry->granted : kRead | kWrite | kPass;
    bool in_a_group = false;
    for (const AclEntry& entry : acl_) {
      if (entry.tag == ACL_USER && entry.id == account_.uid) {
        return (entry.granted & mask & wanted) == wanted;
      }
    }
    for (const AclEntry& entry : acl_) {
      if (FitsGroup(entry)) {
        in_a_group = true;
        if ((entry.granted & mask & wanted) == wanted) {
          return true;
        }
      }
    }
    return !in_a_group && (Find(ACL_OTHER)->granted & wanted) == wanted;
  }

 private:
  bool FitsGroup(const AclEntry& entry) const {
    const bool named = entry.tag == ACL_GROUP;
    const gid_t gid = named ? entry.id : status_.st_gid;
    return (named || entry.tag == ACL_GROUP_OBJ) && std::find(groups_.begin(), groups_.end(), gid) != groups_.end();
  }

  // Not null for the owner's, the group's and the others' entry: every list has them.
  const AclEntry* Find(acl_tag_t tag) const {
    const auto found =
        std::find_if(acl_.begin(), acl_.end(), [tag](const AclEntry& entry) { return entry.tag == tag; });
    return found != acl_.end() ? &*found : nullptr;
  }

  const std::vector<AclEntry>& acl_;
  const struct stat& status_;
  const Account& account_;
  const std::vector<gid_t> groups_;
};

}  // namespace
}  // namespace nimo

int NIMOShareUserPrivCalc(const char* user, NIMOSHARE* share) {
  if (user == nullptr || *user == '\0' || share == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  const std::optional<nimo::Account> account = nimo::FindAccount(user);
  if (!account) {
    return NIMO_FAIL_ERRNO();
  }
  int read_only = 0;
  if (NLIBShareIsReadOnlyGet(share, &read_only) < 0) {
    return -1;
  }
  struct stat status {};
  if (stat(share->szPath, &status) != 0) {
    return NIMO_FAIL_ERRNO();
  }
  const auto acl = nimo::ReadAcl(share->szPath, status.st_mode);
  if (!acl) {
    return NIMO_FAIL_ERRNO();
  }
  const nimo::Judge judge(*acl, status, *account);
  // Names in a folder are of no use to someone who may not pass through it, and changes to one who cannot see them.
  if (!judge.Grants(nimo::kRead | nimo::kPass)) {
    return NIMO_SHARE_PRIVILEGE_NONE;
  }
  const bool may_write = read_only == 0 && judge.Grants(nimo::kRead | nimo::kWrite | nimo::kPass);
  return may_write ? NIMO_SHARE_PRIVILEGE_WRITE : NIMO_SHARE_PRIVILEGE_READ;
}
