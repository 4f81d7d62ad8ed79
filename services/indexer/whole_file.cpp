// Written beside the old one, then renamed over it.
#include "services/indexer/whole_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <system_error>

#include "services/base/unique_fd.h"

namespace fileindexd {
namespace {

[[noreturn]] void Fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace

void ReplaceFile(const std::string& path, const std::string& text) {
  const std::string next = path + ".new";
  // The folder may be somebody else's, who shall not lead us away by a link.
  unlink(next.c_str());
  const service::UniqueFd file(open(next.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (file.get() < 0) {
    Fail(next);
  }
  errno = ENOSPC;
  if (write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    const int error = errno;
    unlink(next.c_str());
    errno = error;
    Fail(next);
  }
  if (rename(next.c_str(), path.c_str()) != 0) {
    Fail(path);
  }
}

std::string ContentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace fileindexd
