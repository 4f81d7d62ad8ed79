// Walks paths as the kernel does, and notes each name that is looked up.
#include "services/monitor/way.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <unordered_set>

namespace nimotifyd {
namespace {

constexpr int kMostLinks = 40;  // the kernel's own limit

std::string Below(const std::string& folder, const std::string& name) {
  return (folder == "/" ? "" : folder) + "/" + name;
}

// `known` are folders that the steps lead to already: of a thousand neighbours each has a name of its own to look up,
// and all the names above it in common.
void AppendWay(const std::string& path, std::unordered_set<std::string>& known, std::vector<WayStep>& steps) {
  std::string at = "/";
  std::string rest = path;
  for (int links = 0; !rest.empty();) {
    const size_t end = std::min(rest.find('/'), rest.size());
    const std::string name = rest.substr(0, end);
    rest.erase(0, end + 1);
    if (name.empty() || name == ".") {
      continue;
    }
    if (name == "..") {  // only a link's target holds one
      at.erase(std::max<size_t>(at.rfind('/'), 1));
      continue;
    }
    const std::string next = Below(at, name);
    if (known.count(next) != 0) {
      at = next;
      continue;
    }
    struct stat info {};
    const bool present = lstat(next.c_str(), &info) == 0;
    steps.push_back({at, name, present && S_ISDIR(info.st_mode), present && S_ISREG(info.st_mode)});
    if (steps.back().is_folder) {
      known.insert(next);
      at = next;
      continue;
    }
    std::array<char, PATH_MAX> target;
    const ssize_t size = present && S_ISLNK(info.st_mode) ? readlink(next.c_str(), target.data(), target.size()) : -1;
    if (size <= 0 || ++links > kMostLinks) {
      return;
    }
    at = target[0] == '/' ? "/" : at;
    rest.insert(0, std::string(target.data(), static_cast<size_t>(size)) + "/");
  }
}

}  // namespace

std::vector<WayStep> WaysTo(const std::vector<std::string>& paths) {
  std::vector<WayStep> steps;
  std::unordered_set<std::string> known;
  for (const std::string& path : paths) {
    AppendWay(path, known, steps);
  }
  std::sort(steps.begin(), steps.end());
  steps.erase(std::unique(steps.begin(), steps.end()), steps.end());
  return steps;
}

}  // namespace nimotifyd
