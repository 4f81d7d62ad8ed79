// The status file.
#include "orbisk/fileindex/status_mgr.h"

#include <sys/stat.h>

#include <cstdint>
#include <ctime>

#include "common/check.h"
#include "orbisk/fileindex/communication.h"
#include "orbisk/json.h"
#include "orbisk/lock_file.h"
#include "orbisk/sdk/credentials.h"
#include "orbisk/util.h"

namespace orbisk::fileindex {
namespace {

constexpr char kFileIndexStatusCfgPath[] = "/var/packages/Orbisk/etc/fileindex.status";
constexpr char kStatusLockPath[] = "/tmp/orbisk_cfg_fi_status.lock";
constexpr long kNotPaused = -1;

}  // namespace

StatusMgr::StatusMgr() {
  ORBISK_CHECK_TEXT(IsFileExist(kFileIndexStatusCfgPath) && !fromFile(data_, kFileIndexStatusCfgPath),
                    "IsFileExist(kFileIndexStatusCfgPath) && !data_.fromFile(kFileIndexStatusCfgPath)", 504,
                    std::string("Cannot load json: ") + kFileIndexStatusCfgPath);
}

// The member `key`, or `missing` if there is no such member or no file at all.
template <typename T>
T StatusMgr::Read(const char* key, T missing) const {
  if (!data_.isNull()) {
    GetJsonValue(missing, data_, key, false);
  }
  return missing;
}

long StatusMgr::GetPauseInfo() const {
  return Read("resume_time", kNotPaused);
}

int StatusMgr::GetShareStatus(const std::string& share) const {
  const auto shares = Read("share", Json::Value());
  int flags = 0;
  if (!shares.isNull()) {
    GetJsonValue(flags, shares, share, false);
  }
  return flags;
}

bool StatusMgr::GetVMTouchEnabled() const {
  return Read("vmt_enabled", false);
}

void StatusMgr::Pause(int hours) {
  const LockFile lock(kStatusLockPath, true);
  ORBISK_CHECK(hours < 0, 120, "Pause length should NOT be negative");
  GetPauseInfo();  // throws if this is no object
  long resume_time = 0;
  if (hours > 0) {
    // The product wraps in 32 bits, as it always has.
    const auto seconds = static_cast<std::int32_t>(static_cast<std::uint32_t>(hours) * 3600U);
    resume_time = static_cast<long>(time(nullptr)) + seconds;
  }
  data_["resume_time"] = static_cast<Json::Int64>(resume_time);
  Save();
  Json::Value argument;
  argument["resume_time"] = static_cast<Json::Int64>(resume_time);
  SendCommandToDaemon("pause", argument);
}

void StatusMgr::Resume() {
  const LockFile lock(kStatusLockPath, true);
  GetPauseInfo();  // throws if this is no object
  data_["resume_time"] = static_cast<Json::Int64>(kNotPaused);
  Save();
  SendCommandToDaemon("resume", Json::Value());
}

void StatusMgr::SetShareStatus(const std::string& share, int flags) {
  const LockFile lock(kStatusLockPath, true);
  StoreShareStatus(share, GetShareStatus(share) | flags);
}

void StatusMgr::UnsetShareStatus(const std::string& share, int flags) {
  const LockFile lock(kStatusLockPath, true);
  StoreShareStatus(share, GetShareStatus(share) & ~flags);
}

void StatusMgr::StoreShareStatus(const std::string& share, int flags) {
  data_["share"][share] = flags;
  Save();
}

void StatusMgr::ClearShareStatus(const std::string& share) {
  const LockFile lock(kStatusLockPath, true);
  GetShareStatus(share);  // throws if there is no object to take it from
  Json::Value& shares = data_["share"];
  if (shares.isNull()) {
    shares = Json::Value(Json::objectValue);
  }
  shares.removeMember(share);
  Save();
}

void StatusMgr::SetVMTouchEnabled(bool enabled) {
  const LockFile lock(kStatusLockPath, true);
  GetVMTouchEnabled();  // throws if this is no object
  data_["vmt_enabled"] = enabled;
  Save();
}

void StatusMgr::Save() {
  const sdk::SDKCredentials as_root("root");
  ORBISK_CHECK_TEXT(!toFile(data_, kFileIndexStatusCfgPath), "!data_.toFile(kFileIndexStatusCfgPath)", 505,
                    std::string("Failed to save json: ") + kFileIndexStatusCfgPath);
  ORBISK_CHECK(-1 == chmod(kFileIndexStatusCfgPath, 0644), 502, "chmod failed, reason=" + GetErrnoStr());
}

}  // namespace orbisk::fileindex
