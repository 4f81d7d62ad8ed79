// Temporary file, fsync, rename, fsync of the folder.
#include "services/search/whole_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "services/base/unique_fd.h"

namespace nimoelasticd {

using service::UniqueFd;

namespace {

void Require(bool done, const std::string& what) {
  if (!done) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

void WriteAll(int fd, std::string_view text, const std::string& path) {
  while (!text.empty()) {
    const ssize_t count = write(fd, text.data(), text.size());
    if (count < 0 && errno == EINTR) {
      continue;
    }
    Require(count > 0, "write " + path);
    text.remove_prefix(static_cast<size_t>(count));
  }
}

}  // namespace

std::string ParentOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

void SyncFolder(const std::string& path) {
  const UniqueFd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  Require(folder.valid() && fsync(folder.get()) == 0, "sync " + path);
}

void WriteWholeFile(const std::string& path, std::string_view text) {
  const std::string temporary = path + ".tmp";
  try {
    UniqueFd file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    Require(file.valid(), "open " + temporary);
    WriteAll(file.get(), text, temporary);
    Require(fsync(file.get()) == 0, "sync " + temporary);
    file.Close();
    Require(rename(temporary.c_str(), path.c_str()) == 0, "rename " + temporary);
  } catch (const std::system_error&) {
    unlink(temporary.c_str());
    throw;
  }
  SyncFolder(ParentOf(path));
}

}  // namespace nimoelasticd
