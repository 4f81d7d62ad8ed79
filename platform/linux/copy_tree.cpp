// Copying and removing whole trees, entry by entry.
#include "platform/linux/copy_tree.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <functional>
#include <utility>

#include "platform/linux/copy_file.h"
#include "platform/linux/directory.h"
#include "platform/linux/unique_fd.h"

namespace nimo {
namespace {

constexpr mode_t kPermissionBits = 0777;

UniqueFd OpenDirectory(int directory, const char* name) {
  return UniqueFd(openat(directory, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool StatEntry(int directory, const char* name, struct stat* status) {
  return fstatat(directory, name, status, AT_SYMLINK_NOFOLLOW) == 0;
}

// The names in an open directory that was not listed before. False with errno set.
bool ListNames(int directory, std::vector<std::string>* names) {
  const int duplicate = fcntl(directory, F_DUPFD_CLOEXEC, 0);
  const UniqueDir stream(duplicate >= 0 ? fdopendir(duplicate) : nullptr);
  if (!stream) {
    const UniqueFd closed(duplicate);
    return false;
  }
  return ReadNames(stream.get(), names);
}

// Calls `visit(directory, name)` for every entry; ends at the first false. Names are gathered first: removing and
// adding entries while a directory is read can hide others, and the stream would hold a descriptor on every level.
bool ForEachEntry(const UniqueFd& directory, const std::function<bool(int, const char*)>& visit) {
  std::vector<std::string> names;
  if (!directory.ok() || !ListNames(directory.get(), &names)) {
    return false;
  }
  for (const std::string& name : names) {
    if (!visit(directory.get(), name.c_str())) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool TreeCopy::Copy(int from_directory, const char* from_name, int to_directory, const char* to_name) {
  to_root_ = to_directory;
  return CopyEntry(from_directory, from_name, to_directory, to_name);
}

bool TreeCopy::CopyEntry(int from_directory, const char* from_name, int to_directory, const char* to_name) {
  struct stat status;
  if (!StatEntry(from_directory, from_name, &status)) {
    return false;
  }
  if (S_ISDIR(status.st_mode) && FileId(status.st_dev, status.st_ino) == root_id_) {
    errno = EINVAL;  // a copy into itself would not end
    return false;
  }
  switch (status.st_mode & S_IFMT) {
    case S_IFDIR:
      return CopyDirectory(from_directory, from_name, to_directory, to_name);
    case S_IFREG:
      return CopyFile(from_directory, from_name, to_directory, to_name);
    case S_IFLNK:
      return CopyLink(from_directory, from_name, to_directory, to_name, status);
    default:
      return CopySpecial(to_directory, to_name, status);
  }
}

bool TreeCopy::CopyDirectory(int from_directory, const char* from_name, int to_directory, const char* to_name) {
  struct stat status;
  const UniqueFd from = OpenDirectory(from_directory, from_name);
  if (!from.ok() || fstat(from.get(), &status) != 0) {
    return false;
  }
  // Ours to fill until it is complete, whatever the mode that it ends with.
  const mode_t mode = keep_attributes_ ? S_IRWXU : (status.st_mode & kPermissionBits) | S_IRWXU;
  struct stat made;
  if (mkdirat(to_directory, to_name, mode) != 0) {
    return false;
  }
  const UniqueFd to = OpenDirectory(to_directory, to_name);
  if (!to.ok() || fstat(to.get(), &made) != 0) {
    return false;
  }
  if (trail_.empty()) {
    root_id_ = {made.st_dev, made.st_ino};
  }
  trail_.emplace_back(to_name);
  const bool filled =
      ForEachEntry(from, [&](int directory, const char* name) { return CopyEntry(directory, name, to.get(), name); });
  trail_.pop_back();
  if (!filled) {
    return false;
  }
  Remember(status);
  if (keep_attributes_) {
    return CopyAttributes(from.get(), to.get(), status);
  }
  const mode_t missing = S_IRWXU & ~status.st_mode;
  return missing == 0 || fchmod(to.get(), made.st_mode & kPermissionBits & ~missing) == 0;
}

bool TreeCopy::CopyFile(int from_directory, const char* from_name, int to_directory, const char* to_name) {
  // Not blocking: a fifo may have taken the file's place since it was looked at.
  const UniqueFd from(openat(from_directory, from_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status;
  if (!from.ok() || fstat(from.get(), &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    errno = EBUSY;
    return false;
  }
  if (LinkToEarlierCopy(status, to_directory, to_name)) {
    return true;
  }
  const mode_t mode = keep_attributes_ ? S_IRUSR | S_IWUSR : status.st_mode & kPermissionBits;
  UniqueFd to(openat(to_directory, to_name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (!to.ok()) {
    return false;
  }
  const auto on_copied = [this](unsigned long long bytes) {
    copied_bytes_ += bytes;
    return progress_ == nullptr || progress_(path_, copied_bytes_) == 0;
  };
  if (!CopyContent(from.get(), to.get(), on_copied) ||
      (keep_attributes_ && !CopyAttributes(from.get(), to.get(), status))) {
    return false;
  }
  Remember(status);
  if (status.st_nlink > 1) {
    hard_links_[{status.st_dev, status.st_ino}] = RelativePath(to_name);
  }
  return to.Close();
}

bool TreeCopy::CopyLink(int from_directory, const char* from_name, int to_directory, const char* to_name,
                        const struct stat& status) {
  char target[PATH_MAX];
  const ssize_t length = readlinkat(from_directory, from_name, target, sizeof(target) - 1);
  if (length < 0) {
    return false;
  }
  target[length] = '\0';
  if (symlinkat(target, to_directory, to_name) != 0) {
    return false;
  }
  Remember(status);
  return !keep_attributes_ || CopyEntryAttributes(to_directory, to_name, status);
}

bool TreeCopy::CopySpecial(int to_directory, const char* to_name, const struct stat& status) {
  if (mknodat(to_directory, to_name, status.st_mode & (S_IFMT | kPermissionBits), status.st_rdev) != 0) {
    return false;
  }
  Remember(status);
  return !keep_attributes_ || CopyEntryAttributes(to_directory, to_name, status);
}

// Keeps several names of one file several names of one file.
bool TreeCopy::LinkToEarlierCopy(const struct stat& status, int to_directory, const char* to_name) const {
  const auto earlier = hard_links_.find({status.st_dev, status.st_ino});
  return earlier != hard_links_.end() && linkat(to_root_, earlier->second.c_str(), to_directory, to_name, 0) == 0;
}

std::string TreeCopy::RelativePath(const char* name) const {
  std::string path;
  for (const std::string& part : trail_) {
    path += part + "/";
  }
  return path + name;
}

void TreeCopy::Remember(const struct stat& status) {
  copied_[{status.st_dev, status.st_ino}] = {status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

bool TreeCopy::IsWhatWasCopied(const struct stat& status) const {
  const auto found = copied_.find({status.st_dev, status.st_ino});
  if (found == copied_.end()) {
    return false;
  }
  const Copied& copied = found->second;
  // A directory's content is compared entry by entry. Not the change time: unlinking another name of a file moves it.
  return S_ISDIR(status.st_mode) ||
         (copied.size == status.st_size && copied.modified_seconds == status.st_mtim.tv_sec &&
          copied.modified_nanoseconds == status.st_mtim.tv_nsec);
}

bool TreeCopy::SourceIsUnchanged(int from_directory, const char* from_name) const {
  return Sweep(from_directory, from_name, false);
}

bool TreeCopy::RemoveSource(int from_directory, const char* from_name) const {
  return Sweep(from_directory, from_name, true);
}

bool TreeCopy::Sweep(int directory, const char* name, bool remove) const {
  struct stat status;
  if (!StatEntry(directory, name, &status)) {
    return errno == ENOENT;  // removed by others: gone is what it should be
  }
  if (!IsWhatWasCopied(status)) {
    errno = EBUSY;
    return false;
  }
  const bool is_directory = S_ISDIR(status.st_mode);
  if (is_directory && !ForEachEntry(OpenDirectory(directory, name), [this, remove](int inside, const char* entry) {
        return Sweep(inside, entry, remove);
      })) {
    return false;
  }
  return !remove || unlinkat(directory, name, is_directory ? AT_REMOVEDIR : 0) == 0;
}

bool RemoveTree(int directory, const char* name) {
  struct stat status;
  if (!StatEntry(directory, name, &status)) {
    return errno == ENOENT;
  }
  if (!S_ISDIR(status.st_mode)) {
    return unlinkat(directory, name, 0) == 0;
  }
  return fchmodat(directory, name, S_IRWXU, 0) == 0 && ForEachEntry(OpenDirectory(directory, name), RemoveTree) &&
         unlinkat(directory, name, AT_REMOVEDIR) == 0;
}

}  // namespace nimo
