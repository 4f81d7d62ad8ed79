// One object of JSON, with a text for each share.
#include "services/indexer/roots.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cstdint>
#include <cstring>
#include <utility>

#include "orbisk/json.h"
#include "services/base/log.h"

namespace fileindexd {
namespace {

// File systems that know no identifier of their own give 0, or the device's number.
std::string FileSystemOf(const std::string& folder) {
  struct statfs info {};
  std::uint64_t id = 0;
  if (statfs(folder.c_str(), &info) == 0) {
    static_assert(sizeof(info.f_fsid) == sizeof(id));
    memcpy(&id, &info.f_fsid, sizeof(id));
  }
  return std::to_string(id);
}

}  // namespace

std::string IdentityOfFolder(const std::string& path) {
  struct statx info {};
  constexpr unsigned kWanted = STATX_TYPE | STATX_INO | STATX_BTIME;
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, kWanted, &info) != 0 ||
      !S_ISDIR(info.stx_mode)) {
    return "";
  }
  return FileSystemOf(path) + "." + std::to_string(info.stx_ino) + "." + std::to_string(info.stx_btime.tv_sec) + "." +
         std::to_string(info.stx_btime.tv_nsec);
}

bool IsTheShare(const Root& now, const std::string& known) {
  return !now.folder.empty() && (known.empty() || now.folder == known || !now.index.empty());
}

Roots::Roots(std::string path) : path_(std::move(path)) {
  Json::Value stored;
  if (orbisk::fromFile(stored, path_) && stored.isObject()) {
    shares_ = std::move(stored);
  }
}

std::string Roots::Known(const std::string& share) const {
  const std::lock_guard lock(mutex_);
  const Json::Value& folder = std::as_const(shares_)[share];
  return folder.isString() ? folder.asString() : "";
}

void Roots::Remember(const std::string& share, const std::string& folder) {
  const std::lock_guard lock(mutex_);
  Json::Value& stored = shares_[share];
  if (stored != Json::Value(folder)) {
    stored = folder;
    Store();
  }
}

void Roots::KeepOnly(const std::set<std::string>& shares) {
  const std::lock_guard lock(mutex_);
  bool changed = false;
  for (const std::string& share : shares_.getMemberNames()) {
    if (shares.count(share) == 0) {
      shares_.removeMember(share);
      changed = true;
    }
  }
  if (changed) {
    Store();
  }
}

void Roots::Store() const {
  if (!orbisk::toFile(shares_, path_)) {
    service::Record(LOG_WARNING, "roots_not_kept").Add("file", path_);
  }
}

}  // namespace fileindexd
