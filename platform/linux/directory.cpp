// Listing directories.
#include "platform/linux/directory.h"

#include <cerrno>

namespace nimo {

bool ReadNames(DIR* stream, std::vector<std::string>* names) {
  errno = 0;
  while (const dirent* const entry = readdir(stream)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names->push_back(name);
    }
    errno = 0;  // the only difference between the end and a failure
  }
  return errno == 0;
}

}  // namespace nimo
