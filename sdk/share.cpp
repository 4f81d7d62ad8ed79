// The gateway to the box's share service.
#include "orbisk/sdk/share.h"

#include "common/check.h"
#include "nimo/error.h"
#include "nimo/index_location.h"
#include "nimo/quota.h"
#include "nimo/share.h"
#include "orbisk/lock_mutex.h"
#include "orbisk/sdk/sdk_mutex.h"

namespace orbisk::sdk {
namespace {

constexpr unsigned long long kSpaceNeededBytes = 100ULL * 1024 * 1024;
constexpr int kFirstShareListItems = 1024;
constexpr size_t kPathBytes = 4096;
constexpr size_t kIndexIDBytes = 1024;

// Releases the list that stands in the caller's variable at the end: an enumeration may replace the first one.
class ListReleaser {
 public:
  explicit ListReleaser(SZLIST*& list) : list_(list) {}
  ~ListReleaser() { NLIBCSzListFree(list_); }
  ListReleaser(const ListReleaser&) = delete;
  ListReleaser& operator=(const ListReleaser&) = delete;

 private:
  SZLIST*& list_;
};

}  // namespace

SDKShare::SDKShare(const std::string& share_name) : share_name_(share_name) {
  const LockMutex lock(SDKMutex());
  ORBISK_CHECK(0 > NIMOShareGet(share_name.c_str(), &share_info_) || !share_info_, 800, share_name);
}

SDKShare::~SDKShare() {
  const LockMutex lock(SDKMutex());
  NIMOShareFree(share_info_);
}

std::string SDKShare::GetName() const {
  return share_info_->szName;
}

std::string SDKShare::GetPath() const {
  return share_info_->szPath;
}

bool SDKShare::CanBeIndexed() const {
  int is_encrypted = 0;
  int is_readonly = 0;
  const LockMutex lock(SDKMutex());
  // The spelling inside the two reasons is what log readers know.
  ORBISK_CHECK(0 > NLIBShareIsEncryptedGet(share_info_, &is_encrypted), 502,
               "NLIBShareis_encryptedGet failed, share=" + share_name_);
  ORBISK_CHECK(0 > NLIBShareIsReadOnlyGet(share_info_, &is_readonly), 502,
               "NLIBShareis_readonlyGet failed, share=" + share_name_);
  return 0 == is_encrypted && 0 == is_readonly;
}

bool SDKShare::IsEncryption() const {
  int is_encryption = 0;
  const LockMutex lock(SDKMutex());
  ORBISK_CHECK(0 > NLIBShareIsEncryptionGet(share_info_, &is_encryption), 502,
               "NLIBShareIsEncryptionGet failed, share=" + share_name_);
  return 1 == is_encryption;
}

bool SDKShare::IsEnableRecycleBin() const {
  int is_enabled = 0;
  const LockMutex lock(SDKMutex());
  ORBISK_CHECK(0 > NLIBShareRecycleStatusGet(share_info_, &is_enabled), 502,
               "NLIBShareRecycleStatusGet failed, share=" + share_name_);
  return 1 == is_enabled;
}

bool SDKShare::IsHideUnReadable() const {
  int is_hidden = 0;
  return 0 <= NLIBShareHideUnreadableGet(share_info_, &is_hidden) && 1 == is_hidden;
}

bool SDKShare::IsSpaceEnough() const {
  const LockMutex lock(SDKMutex());
  if (0 != NIMOQuotaIsEnough(0, share_info_->szPath, kSpaceNeededBytes)) {
    return true;
  }
  const int error = NLIBCErrGet();
  return NIMO_ERR_VOLUME_FULL != error && NIMO_ERR_QUOTA_EXCEEDED != error;
}

int SDKShare::GetFTPPrivilege() const {
  return share_info_->nFTPPrivilege;
}

int SDKShare::GetPrivilege(const std::string& user) const {
  const auto known = privileges_.find(user);
  if (known != privileges_.end()) {
    return known->second;
  }
  const int privilege = NIMOShareUserPrivCalc(user.c_str(), share_info_);
  privileges_.emplace(user, privilege);
  return privilege;
}

std::string SDKShare::GetQueuePath() const {
  if (queue_path_.empty()) {
    char path[kPathBytes] = {};
    const LockMutex lock(SDKMutex());
    ORBISK_CHECK(0 > FILEIDXQueuePathCompose(share_info_->szPath, path, sizeof(path)), 502,
                 "FILEIDXQueuePathCompose failed, share=" + share_name_);
    queue_path_ = path;
  }
  return queue_path_;
}

std::string SDKShare::GetDBPath() const {
  if (db_path_.empty()) {
    char path[kPathBytes] = {};
    const LockMutex lock(SDKMutex());
    ORBISK_CHECK(0 > FILEIDXDBPathCompose(share_info_->szPath, path, sizeof(path)), 502,
                 "FILEIDXDBPathCompose failed, share=" + share_name_);
    db_path_ = path;
  }
  return db_path_;
}

std::string SDKShare::GetDBName() const {
  if (db_name_.empty()) {
    char name[kIndexIDBytes] = {};
    const LockMutex lock(SDKMutex());
    ORBISK_CHECK(0 > FILEIDXGetIndexID(share_info_->szName, name, sizeof(name)), 502,
                 "FILEIDXGetIndexID failed, share=" + share_name_);
    db_name_ = name;
  }
  return db_name_;
}

std::set<std::string> SDKShare::Enum() {
  SZLIST* share_list = nullptr;
  const ListReleaser releaser(share_list);
  // The record names another room than is asked for; log readers know it so.
  ORBISK_CHECK_TEXT(nullptr == (share_list = NLIBCSzListAlloc(kFirstShareListItems)),
                    "nullptr == (share_list = NLIBCSzListAlloc(BUFSIZ))", 121, "NLIBCSzListAlloc failed");
  NLIB_SHARE_FILTER enum_func = {[](const NIMOSHARE*, void*) { return 0; }, nullptr};
  ORBISK_CHECK(0 > NLIBShareEnum(&share_list, &enum_func), 121, "NLIBShareEnum failed");
  std::set<std::string> names;
  for (int i = 0; i < share_list->nItem; ++i) {
    if (const char* const name = NLIBCSzListGet(share_list, i)) {
      names.insert(name);
    }
  }
  return names;
}

}  // namespace orbisk::sdk
