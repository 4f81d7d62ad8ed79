// Folders that are what they are by their names: snapshots, and the box's own metadata.
#include <algorithm>
#include <iterator>
#include <string_view>

#include "nimo/filesystem.h"
#include "platform/linux/home_names.h"
#include "platform/linux/last_error.h"
#include "platform/linux/share_registry.h"
#include "platform/linux/share_registry_text.h"

namespace nimo {
namespace {

constexpr std::string_view kSnapshots = "#snapshot";
constexpr std::string_view kHiddenFolders[] = {"@eaDir", "@fileindex", "@tmp"};

}  // namespace
}  // namespace nimo

int NLIBFhsPathInSnapshot(const char* path, int* flag) {
  if (path == nullptr || flag == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  const auto registry = nimo::CurrentShares();
  if (registry->error != 0) {
    return NIMO_FAIL(registry->error);
  }
  *flag = 0;
  const NIMO::SHARE::Entry* holder = registry->Holder(path);
  const auto below = holder != nullptr ? nimo::ComponentsBelow(path, holder->path) : std::nullopt;
  if (!below) {
    return 0;
  }
  // Shares have snapshots, and so have homes, which lie right below the share of homes.
  const bool of_share = !below->empty() && (*below)[0] == nimo::kSnapshots;
  const bool of_home = holder->name == nimo::kHomes && below->size() > 1 && (*below)[1] == nimo::kSnapshots;
  *flag = of_share || of_home ? 1 : 0;
  return 0;
}

int NIMOEAIsHiddenDir(const char* name) {
  return name != nullptr && std::find(std::begin(nimo::kHiddenFolders), std::end(nimo::kHiddenFolders), name) !=
                                std::end(nimo::kHiddenFolders)
             ? 1
             : 0;
}
