// Homes: the folders right below the share "homes", each with the name of its account.
#include "nimo/home.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/account.h"
#include "platform/linux/directory.h"
#include "platform/linux/home_names.h"
#include "platform/linux/last_error.h"
#include "platform/linux/share_registry.h"
#include "platform/linux/string_list.h"
#include "platform/linux/unique_fd.h"

namespace nimo {
namespace {

using IsWanted = std::function<bool(const std::string& name)>;

// Names in order. Nothing, with errno set, when the folder cannot be read; a missing one is empty.
std::optional<std::vector<std::string>> NamesIn(const std::string& folder) {
  std::vector<std::string> names;
  const UniqueDir stream(opendir(folder.c_str()));
  if (stream == nullptr) {
    return errno == ENOENT ? std::optional(names) : std::nullopt;
  }
  if (!ReadNames(stream.get(), &names)) {
    return std::nullopt;
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool IsFolder(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

int EnumerateBins(SZLIST** list, const IsWanted& is_wanted) {
  if (list == nullptr || *list == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  const auto registry = CurrentShares();
  if (registry->error != 0) {
    return NIMO_FAIL(registry->error);
  }
  const NIMO::SHARE::Entry* const homes = registry->Find(kHomes);
  if (homes == nullptr) {
    return 0;
  }
  const auto names = NamesIn(homes->path);
  if (!names) {
    return NIMO_FAIL_ERRNO();
  }
  for (const std::string& name : *names) {
    const std::string bin = homes->path + "/" + name + "/" + kRecycleBin;
    if (!IsFolder(bin) || !is_wanted(name)) {
      continue;
    }
    if (!AppendItem(list, bin)) {
      return NIMO_FAIL(ENOMEM);
    }
  }
  return 0;
}

}  // namespace
}  // namespace nimo

int NIMORecycleHomeEnumRecyclePath(SZLIST** list) {
  return nimo::EnumerateBins(list, [](const std::string&) { return true; });
}

int NIMORecycleHomeEnumRecyclePathForAuthType(SZLIST** list, AUTH_TYPE auth) {
  if (auth != AUTH_LOCAL && auth != AUTH_DIRECTORY) {
    return NIMO_FAIL(EINVAL);
  }
  auto local = nimo::LocalAccountNames();
  if (!local) {
    return NIMO_FAIL_ERRNO();
  }
  std::sort(local->begin(), local->end());
  return nimo::EnumerateBins(list, [&](const std::string& name) {
    const bool is_local = std::binary_search(local->begin(), local->end(), name);
    return auth == AUTH_LOCAL ? is_local : !is_local && nimo::FindAccount(name.c_str()).has_value();
  });
}
