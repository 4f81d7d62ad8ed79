// Shares, as the registry knows them, and their recycle bins.
#include "nimo/share.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstdlib>
#include <cstring>

#include "nimo/error.h"
#include "nimo/filesystem.h"
#include "platform/linux/home_names.h"
#include "platform/linux/last_error.h"
#include "platform/linux/share_registry.h"
#include "platform/linux/share_registry_text.h"
#include "platform/linux/string_list.h"

namespace nimo {
namespace {

using NIMO::SHARE::Entry;

constexpr int kAllHomes = 11;

// The registry keeps names and paths shorter than the fields.
void Fill(const Entry& entry, NIMOSHARE& share) {
  memcpy(share.szName, entry.name.c_str(), entry.name.size() + 1);
  memcpy(share.szPath, entry.path.c_str(), entry.path.size() + 1);
  share.nFTPPrivilege = entry.ftp_privilege;
}

bool IsListed(const NLIB_SHARE_FILTER* filter, const Entry& entry) {
  if (filter == nullptr || filter->pfnSkip == nullptr) {
    return true;
  }
  NIMOSHARE share{};
  Fill(entry, share);
  return filter->pfnSkip(&share, filter->pData) == 0;
}

// Stores what `ask` answers of the share as it is registered now: the record may be older than a change.
template <class Ask>
int GetSetting(const NIMOSHARE* share, int* value, Ask ask) {
  if (share == nullptr || value == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  const auto registry = CurrentShares();
  if (registry->error != 0) {
    return NIMO_FAIL(registry->error);
  }
  const Entry* entry = registry->Find(share->szName);
  if (entry == nullptr) {
    return NIMO_FAIL(ENOENT);
  }
  const int answer = ask(*entry);
  if (answer >= 0) {
    *value = answer;
  }
  return answer < 0 ? -1 : 0;
}

int IsLocked(const Entry& entry) {
  if (entry.encrypted || !entry.encryption) {
    return entry.encrypted ? 1 : 0;
  }
  const int mounted = NIMOFSDirIsMntPoint(entry.path.c_str());
  if (mounted < 0) {
    // Where there is no folder, nothing is mounted.
    return NLIBCErrGet() == ENOENT ? 1 : -1;
  }
  return mounted != 0 ? 0 : 1;
}

int IsReadOnly(const Entry& entry) {
  struct statvfs status {};
  if (entry.read_only) {
    return 1;
  }
  if (statvfs(entry.path.c_str(), &status) != 0) {
    // A folder that is missing (locked, or its volume not mounted) lies on no read-only file system.
    return errno == ENOENT ? 0 : NIMO_FAIL_ERRNO();
  }
  return (status.f_flag & ST_RDONLY) != 0 ? 1 : 0;
}

}  // namespace
}  // namespace nimo

int NIMOShareGet(const char* name, NIMOSHARE** share) {
  if (share == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  *share = nullptr;
  if (name == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  const auto registry = nimo::CurrentShares();
  if (registry->error != 0) {
    return NIMO_FAIL(registry->error);
  }
  const NIMO::SHARE::Entry* entry = registry->Find(name);
  if (entry == nullptr) {
    return NIMO_FAIL(ENOENT);
  }
  // With calloc, as the caller may be C.
  auto* const record = static_cast<NIMOSHARE*>(calloc(1, sizeof(NIMOSHARE)));
  if (record == nullptr) {
    return NIMO_FAIL(ENOMEM);
  }
  nimo::Fill(*entry, *record);
  *share = record;
  return 0;
}

void NIMOShareFree(NIMOSHARE* share) {
  free(share);
}

int NLIBShareEnum(SZLIST** list, NLIB_SHARE_FILTER* filter) {
  if (list == nullptr || *list == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  const auto registry = nimo::CurrentShares();
  if (registry->error != 0) {
    return NIMO_FAIL(registry->error);
  }
  for (const NIMO::SHARE::Entry& entry : registry->shares) {
    if (nimo::IsListed(filter, entry) && !nimo::AppendItem(list, entry.name)) {
      return NIMO_FAIL(ENOMEM);
    }
  }
  return 0;
}

int NLIBShareIsEncryptedGet(NIMOSHARE* share, int* value) {
  return nimo::GetSetting(share, value, nimo::IsLocked);
}

int NLIBShareIsReadOnlyGet(NIMOSHARE* share, int* value) {
  return nimo::GetSetting(share, value, nimo::IsReadOnly);
}

int NLIBShareIsEncryptionGet(NIMOSHARE* share, int* value) {
  return nimo::GetSetting(share, value, [](const NIMO::SHARE::Entry& entry) { return entry.encryption ? 1 : 0; });
}

int NLIBShareRecycleStatusGet(NIMOSHARE* share, int* value) {
  return nimo::GetSetting(share, value, [](const NIMO::SHARE::Entry& entry) { return entry.recycle ? 1 : 0; });
}

int NLIBShareHideUnreadableGet(NIMOSHARE* share, int* value) {
  return nimo::GetSetting(share, value, [](const NIMO::SHARE::Entry& entry) { return entry.hide_unreadable ? 1 : 0; });
}

int NIMOShareNamePathGet(const char* full_path, char* name, size_t name_bytes, char* path, size_t path_bytes) {
  if (full_path == nullptr || name == nullptr || path == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  const auto registry = nimo::CurrentShares();
  if (registry->error != 0) {
    return NIMO_FAIL(registry->error);
  }
  const NIMO::SHARE::Entry* holder = registry->Holder(full_path);
  if (holder == nullptr) {
    return NIMO_FAIL(ENOENT);
  }
  if (holder->name.size() >= name_bytes || holder->path.size() >= path_bytes) {
    return NIMO_FAIL(ENAMETOOLONG);
  }
  memcpy(name, holder->name.c_str(), holder->name.size() + 1);
  memcpy(path, holder->path.c_str(), holder->path.size() + 1);
  return 0;
}

int NIMOShareIsShareRecycle(const char* full_path) {
  if (full_path == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  const auto registry = nimo::CurrentShares();
  if (registry->error != 0) {
    return NIMO_FAIL(registry->error);
  }
  const NIMO::SHARE::Entry* holder = registry->Holder(full_path);
  return holder != nullptr && holder->recycle &&
                 nimo::ComponentsBelow(full_path, holder->path + "/" + nimo::kRecycleBin)
             ? 1
             : 0;
}

int NIMORecycleUserHomePathIsExist(const char* full_path, int kind) {
  if (full_path == nullptr || kind != nimo::kAllHomes) {
    return NIMO_FAIL(EINVAL);
  }
  const auto registry = nimo::CurrentShares();
  if (registry->error != 0) {
    return NIMO_FAIL(registry->error);
  }
  const NIMO::SHARE::Entry* homes = registry->Find(nimo::kHomes);
  const auto below = homes != nullptr ? nimo::ComponentsBelow(full_path, homes->path) : std::nullopt;
  if (!below || below->size() < 2 || (*below)[1] != nimo::kRecycleBin) {
    return 0;
  }
  const std::string bin = homes->path + "/" + std::string((*below)[0]) + "/" + nimo::kRecycleBin;
  struct stat status {};
  if (stat(bin.c_str(), &status) != 0) {
    return errno == ENOENT || errno == ENOTDIR ? 0 : NIMO_FAIL_ERRNO();
  }
  return S_ISDIR(status.st_mode) ? 1 : 0;
}
