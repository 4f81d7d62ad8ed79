// The fake platform's shares.
#include "tests/support/fake_share.h"

#include <cstring>
#include <filesystem>

#include "tests/support/fake_string_list.h"

namespace orbisk::test {
namespace {

bool IsSameOrBelow(const std::string& outer, const std::string& inner) {
  return inner.compare(0, outer.size(), outer) == 0 && (inner.size() == outer.size() || inner[outer.size()] == '/');
}

}  // namespace

FakeShareService::FakeShareService()
    : get("NIMOShareGet", [this](const char* name, NIMOSHARE** share) { return Get(name, share); }),
      free("NIMOShareFree", [this](NIMOSHARE* share) { Free(share); }),
      enumerate("NLIBShareEnum", [this](SZLIST** list, NLIB_SHARE_FILTER* filter) { return Enumerate(list, filter); }),
      is_encrypted("NLIBShareIsEncryptedGet",
                   [this](NIMOSHARE* share, int* value) { return Setting(share, &FakeShare::encrypted, value); }),
      is_read_only("NLIBShareIsReadOnlyGet",
                   [this](NIMOSHARE* share, int* value) { return Setting(share, &FakeShare::read_only, value); }),
      is_encryption("NLIBShareIsEncryptionGet",
                    [this](NIMOSHARE* share, int* value) { return Setting(share, &FakeShare::encryption, value); }),
      recycle_status("NLIBShareRecycleStatusGet",
                     [this](NIMOSHARE* share, int* value) { return Setting(share, &FakeShare::recycle, value); }),
      hide_unreadable(
          "NLIBShareHideUnreadableGet",
          [this](NIMOSHARE* share, int* value) { return Setting(share, &FakeShare::hide_unreadable, value); }),
      user_privilege("NIMOShareUserPrivCalc", [](const char*, NIMOSHARE*) { return NIMO_SHARE_PRIVILEGE_WRITE; }),
      name_path_get("NIMOShareNamePathGet",
                    [this](const char* full_path, char* name, size_t name_bytes, char* path, size_t path_bytes) {
                      return NamePathGet(full_path, name, name_bytes, path, path_bytes);
                    }),
      is_share_recycle("NIMOShareIsShareRecycle", [this](const char* full_path) { return IsShareRecycle(full_path); }),
      is_home_recycle("NIMORecycleUserHomePathIsExist",
                      [this](const char* full_path, int) { return IsHomeRecycle(full_path); }) {}

void FakeShareService::Add(const FakeShare& share) {
  const std::lock_guard lock(mutex_);
  shares_[share.name] = share;
}

void FakeShareService::Add(const std::string& name, const std::string& path, bool FakeShare::*setting) {
  FakeShare share{name, path};
  if (setting != nullptr) {
    share.*setting = true;
  }
  Add(share);
}

void FakeShareService::Remove(const std::string& name) {
  const std::lock_guard lock(mutex_);
  shares_.erase(name);
}

int FakeShareService::outstanding() const {
  const std::lock_guard lock(mutex_);
  return outstanding_;
}

void FakeShareService::Reset() {
  const std::lock_guard lock(mutex_);
  shares_.clear();
  outstanding_ = 0;
}

std::optional<FakeShare> FakeShareService::HolderOf(const std::string& full_path) const {
  const std::lock_guard lock(mutex_);
  const FakeShare* const holder = Holder(full_path);
  return holder != nullptr ? std::optional<FakeShare>(*holder) : std::nullopt;
}

int FakeShareService::Get(const char* name, NIMOSHARE** share) {
  if (share == nullptr) {
    return FailPlatform(EINVAL);
  }
  *share = nullptr;
  if (name == nullptr) {
    return FailPlatform(EINVAL);
  }
  const std::lock_guard lock(mutex_);
  const auto found = shares_.find(name);
  if (found == shares_.end()) {
    return FailPlatform(ENOENT);
  }
  auto* const record = new NIMOSHARE{};
  strncpy(record->szName, found->second.name.c_str(), sizeof(record->szName) - 1);
  strncpy(record->szPath, found->second.path.c_str(), sizeof(record->szPath) - 1);
  record->nFTPPrivilege = found->second.ftp_privilege;
  *share = record;
  ++outstanding_;
  return 0;
}

void FakeShareService::Free(NIMOSHARE* share) {
  if (share != nullptr) {
    const std::lock_guard lock(mutex_);
    --outstanding_;
    delete share;
  }
}

int FakeShareService::Enumerate(SZLIST** list, NLIB_SHARE_FILTER* filter) {
  if (list == nullptr || *list == nullptr) {
    return FailPlatform(EINVAL);
  }
  const std::lock_guard lock(mutex_);
  for (const auto& [name, share] : shares_) {
    NIMOSHARE record{};
    strncpy(record.szName, name.c_str(), sizeof(record.szName) - 1);
    strncpy(record.szPath, share.path.c_str(), sizeof(record.szPath) - 1);
    if (filter == nullptr || filter->pfnSkip == nullptr || filter->pfnSkip(&record, filter->pData) == 0) {
      FakeStringLists().Push(list, name);
    }
  }
  return 0;
}

int FakeShareService::Setting(const NIMOSHARE* share, bool FakeShare::*setting, int* value) {
  if (share == nullptr || value == nullptr) {
    return FailPlatform(EINVAL);
  }
  const std::lock_guard lock(mutex_);
  const auto found = shares_.find(share->szName);
  if (found == shares_.end()) {
    return FailPlatform(ENOENT);
  }
  *value = found->second.*setting ? 1 : 0;
  return 0;
}

// The caller holds the mutex.
const FakeShare* FakeShareService::Holder(const std::string& full_path) const {
  const FakeShare* holder = nullptr;
  for (const auto& [name, share] : shares_) {
    if (IsSameOrBelow(share.path, full_path) && (holder == nullptr || holder->path.size() < share.path.size())) {
      holder = &share;
    }
  }
  return holder;
}

int FakeShareService::NamePathGet(const char* full_path, char* name, size_t name_bytes, char* path, size_t path_bytes) {
  if (full_path == nullptr || name == nullptr || path == nullptr) {
    return FailPlatform(EINVAL);
  }
  const std::lock_guard lock(mutex_);
  const FakeShare* const holder = Holder(full_path);
  if (holder == nullptr) {
    return FailPlatform(ENOENT);
  }
  if (holder->name.size() >= name_bytes || holder->path.size() >= path_bytes) {
    return FailPlatform(ENAMETOOLONG);
  }
  memcpy(name, holder->name.c_str(), holder->name.size() + 1);
  memcpy(path, holder->path.c_str(), holder->path.size() + 1);
  return 0;
}

int FakeShareService::IsShareRecycle(const char* full_path) {
  if (full_path == nullptr) {
    return FailPlatform(EINVAL);
  }
  const std::lock_guard lock(mutex_);
  const FakeShare* const holder = Holder(full_path);
  return holder != nullptr && holder->recycle && IsSameOrBelow(holder->path + "/#recycle", full_path) ? 1 : 0;
}

int FakeShareService::IsHomeRecycle(const char* full_path) {
  if (full_path == nullptr) {
    return FailPlatform(EINVAL);
  }
  const std::string path = full_path;
  const std::lock_guard lock(mutex_);
  const auto homes = shares_.find("homes");
  if (homes == shares_.end() || !IsSameOrBelow(homes->second.path, path)) {
    return 0;
  }
  const size_t home_end = path.find('/', homes->second.path.size() + 1);
  const std::string bin = path.substr(0, home_end) + "/#recycle";
  return home_end != std::string::npos && IsSameOrBelow(bin, path) && std::filesystem::is_directory(bin) ? 1 : 0;
}

FakeShareService& FakeShares() {
  static auto* const shares = new FakeShareService;
  return *shares;
}

}  // namespace orbisk::test

using orbisk::test::FakeShares;

int NIMOShareGet(const char* name, NIMOSHARE** share) {
  return FakeShares().get(name, share);
}

void NIMOShareFree(NIMOSHARE* share) {
  FakeShares().free(share);
}

int NLIBShareEnum(SZLIST** list, NLIB_SHARE_FILTER* filter) {
  return FakeShares().enumerate(list, filter);
}

int NLIBShareIsEncryptedGet(NIMOSHARE* share, int* value) {
  return FakeShares().is_encrypted(share, value);
}

int NLIBShareIsReadOnlyGet(NIMOSHARE* share, int* value) {
  return FakeShares().is_read_only(share, value);
}

int NLIBShareIsEncryptionGet(NIMOSHARE* share, int* value) {
  return FakeShares().is_encryption(share, value);
}

int NLIBShareRecycleStatusGet(NIMOSHARE* share, int* value) {
  return FakeShares().recycle_status(share, value);
}

int NLIBShareHideUnreadableGet(NIMOSHARE* share, int* value) {
  return FakeShares().hide_unreadable(share, value);
}

int NIMOShareUserPrivCalc(const char* user, NIMOSHARE* share) {
  return FakeShares().user_privilege(user, share);
}

int NIMOShareNamePathGet(const char* full_path, char* name, size_t name_bytes, char* path, size_t path_bytes) {
  return FakeShares().name_path_get(full_path, name, name_bytes, path, path_bytes);
}

int NIMOShareIsShareRecycle(const char* full_path) {
  return FakeShares().is_share_recycle(full_path);
}

int NIMORecycleUserHomePathIsExist(const char* full_path, int kind) {
  return FakeShares().is_home_recycle(full_path, kind);
}
