// Copy and move. A copy is made under a temporary name beside the target and renamed into place, so the target appears
// whole or not at all; a move removes its source last.
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "nimo/filesystem.h"
#include "platform/linux/copy_tree.h"
#include "platform/linux/last_error.h"
#include "platform/linux/unique_fd.h"

namespace nimo {
namespace {

// One end of the operation: a name in an open directory.
struct Place {
  UniqueFd directory;
  std::string name;

  bool Stat(struct stat* status) const {
    return fstatat(directory.get(), name.c_str(), status, AT_SYMLINK_NOFOLLOW) == 0;
  }
};

// Opens the directory that `path` names an entry of. False with errno set.
bool OpenPlace(std::string path, Place* place) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  const size_t slash = path.rfind('/');
  place->name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (place->name.empty() || place->name == "." || place->name == "..") {
    errno = path.empty() ? ENOENT : EINVAL;
    return false;
  }
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  place->directory = UniqueFd(open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return place->directory.ok();
}

bool IsSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool IsSameEntry(const Place& one, const Place& other) {
  struct stat one_directory;
  struct stat other_directory;
  return one.name == other.name && fstat(one.directory.get(), &one_directory) == 0 &&
         fstat(other.directory.get(), &other_directory) == 0 && IsSameFile(one_directory, other_directory);
}

// rename(2) leaves both names of one file, and a copy would replace the file by itself before it is removed.
bool FinishSameFile(const Place& from, const Place& to, const struct stat& status, bool remove_source) {
  if (!remove_source || S_ISDIR(status.st_mode) || IsSameEntry(from, to)) {
    return true;
  }
  return unlinkat(from.directory.get(), from.name.c_str(), 0) == 0;
}

bool MakeTemporaryName(std::string* name) {
  uint64_t number = 0;
  if (getrandom(&number, sizeof(number), 0) != static_cast<ssize_t>(sizeof(number))) {
    return false;
  }
  char text[40];
  snprintf(text, sizeof(text), ".nimo-copy-%016llx", static_cast<unsigned long long>(number));
  *name = text;
  return true;
}

// Everything written so far survives a power cut: only then may the source go.
bool SyncFileSystem(const Place& place) {
  const UniqueFd directory(openat(place.directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.ok()) {
    sync();  // a folder that may be entered and not listed
    return true;
  }
  return syncfs(directory.get()) == 0;
}

// Makes the copy under a temporary name and puts it into place; leaves nothing behind on failure.
bool CopyIntoPlace(TreeCopy& copy, const Place& from, const Place& to, bool verify_source) {
  std::string temporary;
  if (!MakeTemporaryName(&temporary)) {
    return false;
  }
  const int to_directory = to.directory.get();
  if (copy.Copy(from.directory.get(), from.name.c_str(), to_directory, temporary.c_str()) &&
      (!verify_source || copy.SourceIsUnchanged(from.directory.get(), from.name.c_str())) &&
      renameat(to_directory, temporary.c_str(), to_directory, to.name.c_str()) == 0) {
    return true;
  }
  const int saved_errno = errno;
  (void)RemoveTree(to_directory, temporary.c_str());
  errno = saved_errno;
  return false;
}

// A target of the other kind would only be found out by the rename, after the whole copy.
bool MayReplace(const struct stat& from, const struct stat& to) {
  if (S_ISDIR(from.st_mode) == S_ISDIR(to.st_mode)) {
    return true;
  }
  errno = S_ISDIR(to.st_mode) ? EISDIR : ENOTDIR;
  return false;
}

// False with errno set.
bool CopyOrMove(const char* from_path, const char* to_path, const NIMO_COPY_OPTIONS& options,
                NIMO_COPY_PROGRESS progress) {
  Place from;
  Place to;
  struct stat from_status;
  struct stat to_status;
  const bool move = options.nRemoveSource != 0;
  if (!OpenPlace(from_path, &from) || !from.Stat(&from_status) || !OpenPlace(to_path, &to)) {
    return false;
  }
  if (to.Stat(&to_status)) {
    if (IsSameFile(from_status, to_status)) {
      return FinishSameFile(from, to, from_status, move);
    }
    if (!MayReplace(from_status, to_status)) {
      return false;
    }
  }
  if (move) {
    if (renameat(from.directory.get(), from.name.c_str(), to.directory.get(), to.name.c_str()) == 0) {
      return true;
    }
    if (errno != EXDEV) {
      return false;
    }
  }
  TreeCopy copy(options.nKeepAttributes != 0, from_path, progress);
  if (!CopyIntoPlace(copy, from, to, move)) {
    return false;
  }
  return !move || (SyncFileSystem(to) && copy.RemoveSource(from.directory.get(), from.name.c_str()));
}

}  // namespace
}  // namespace nimo

int NIMOFileCopy(const char* from, const char* to, const NIMO_COPY_OPTIONS* options, NIMO_COPY_PROGRESS progress) {
  if (from == nullptr || to == nullptr || options == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  return nimo::CopyOrMove(from, to, *options, progress) ? 0 : NIMO_FAIL_ERRNO();
}
