// Homes: the folders right below the share "homes", each with the name of its account.
#include "nimo/home.h"

#include <dirent.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/account.h"
#include "platform/linux/last_error.h"
#include "platform/linux/share_registry.h"
#include "platform/linux/string_list.h"
#include "platform/linux/unique_fd.h"

namespace nimo {
namespace {

constexpr char kHomes[] = "homes";
constexpr char kRecycleBin[] = "/#recycle";

using IsWanted = std::function<bool(const std::string& name)>;

// Names in order. Nothing, with errno set, when the folder cannot be read; a missing one is empty.
std::optional<std::vector<std::string>> NamesIn(const std::string& folder) {
  std::vector<std::string> names;
  const UniqueDir stream(opendir(folder.c_str()));
  if (stream == nullptr) {
    return errno == ENOENT ? std::optional(names) : std::nullopt;
  }
  errno = 0;
  while (const dirent* const entry = readdir(stream.get())) {
    names.emplace_back(entry->d_name);
  }
  if (errno != 0) {
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
    const std::string bin = homes->path + "/" + name + kRecycleBin;
    // "." has the share's own bin, which is nobody's.
    if (name == "." || name == ".." || !IsFolder(bin) || !is_wanted(name)) {
      continue;
    }
    if (!AppendItem(list, bin)) {
      return NIMO_FAIL(ENOMEM);
    }
  }
  return 0;
}

// The names that the box itself keeps.
std::optional<std::vector<std::string>> LocalNames() {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen("/etc/passwd", "re"), fclose);
  if (file == nullptr) {
    return std::nullopt;
  }
  std::vector<std::string> names;
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> buffer(64UL * 1024);
  while (fgetpwent_r(file.get(), &entry, buffer.data(), buffer.size(), &found) == 0) {
    names.emplace_back(entry.pw_name);
  }
  std::sort(names.begin(), names.end());
  return names;
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
  const auto local = nimo::LocalNames();
  if (!local) {
    return NIMO_FAIL_ERRNO();
  }
  return nimo::EnumerateBins(list, [&](const std::string& name) {
    const bool is_local = std::binary_search(local->begin(), local->end(), name);
    return auth == AUTH_LOCAL ? is_local : !is_local && nimo::FindAccount(name.c_str()).has_value();
  });
}
