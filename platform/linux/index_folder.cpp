// Events are queued for shares that nobody indexes as well, such as the homes. No daemon makes a place for those.
#include "platform/linux/index_folder.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>

#include "nimo/index_location.h"
#include "platform/linux/unique_fd.h"

namespace nimo {
namespace {

std::string ParentOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

// The volume may be a folder of somebody else's, who shall not lead us away by a link.
UniqueFd MakeFolder(int parent, const char* name) {
  if (mkdirat(parent, name, 0755) != 0 && errno != EEXIST) {
    return UniqueFd();
  }
  return UniqueFd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool MakeBoth(const std::string& area, const std::string& folder) {
  const UniqueFd made = MakeFolder(AT_FDCWD, area.c_str());
  return made.ok() && MakeFolder(made.get(), folder.c_str() + area.size() + 1).ok();
}

}  // namespace

void MakeIndexFolder(const std::string& share_path) {
  char queue[PATH_MAX] = "";
  if (FILEIDXQueuePathCompose(share_path.c_str(), queue, sizeof(queue)) < 0) {
    return;  // nobody can ask for it either
  }
  const std::string folder = ParentOf(queue);
  if (!MakeBoth(ParentOf(folder), folder)) {
    const int error = errno;
    syslog(LOG_WARNING, "event=index_folder_missing folder=\"%s\" reason=\"%s\"", folder.c_str(), strerror(error));
  }
}

}  // namespace nimo
