// Tests of a file that the user names.
#include "tools/fileindexctl/queue_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace fileindexctl {
namespace {

[[noreturn]] void Refuse(const std::string& path, int error) {
  throw std::runtime_error("cannot read " + path + ": " + strerror(error));
}

}  // namespace

// A folder can be opened as a stream and then reads as an empty file. Opening is left to the reader: a pipe would lose
// its writer here.
void RequireReadableFile(const std::string& path) {
  struct stat attributes {};
  if (stat(path.c_str(), &attributes) != 0) {
    Refuse(path, errno);
  }
  if (S_ISDIR(attributes.st_mode)) {
    Refuse(path, EISDIR);
  }
  if (faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0) {
    Refuse(path, errno);
  }
}

}  // namespace fileindexctl
