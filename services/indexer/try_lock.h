// The locks of those who change the configuration, for a caller that must not wait for them.
#pragma once

#include <string>

#include "services/base/unique_fd.h"

namespace fileindexd {

constexpr char kFoldersLock[] = "/tmp/orbisk_cfg_folder.lock";
constexpr char kStatusLock[] = "/tmp/orbisk_cfg_fi_status.lock";

/// The lock that orbisk::LockFile takes at `path`, held as long as the result lives; without a descriptor if somebody
/// else holds it, or there can be none.
service::UniqueFd TryLock(const std::string& path);

}  // namespace fileindexd
