// Copying what one file holds, and what is known of it.
#include "platform/linux/copy_file.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace nimo {
namespace {

constexpr size_t kPieceBytes = 16UL * 1024 * 1024;
constexpr size_t kBufferBytes = 128UL * 1024;
constexpr off_t kToTheEnd = std::numeric_limits<off_t>::max();
constexpr char kAccessList[] = "system.posix_acl_access";
constexpr char kDefaultList[] = "system.posix_acl_default";

bool WriteAll(int to, const char* data, size_t length, off_t position) {
  while (length > 0) {
    const ssize_t written = pwrite(to, data, length, position);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    data += written;
    length -= static_cast<size_t>(written);
    position += written;
  }
  return true;
}

// Copies one piece of at most `length` bytes through this process. Bytes copied, 0 at the end of the file, -1 on error.
ssize_t CopyThroughBuffer(int from, int to, off_t position, size_t length, std::vector<char>& buffer) {
  buffer.resize(kBufferBytes);
  ssize_t count = 0;
  do {
    count = pread(from, buffer.data(), std::min(length, buffer.size()), position);
  } while (count < 0 && errno == EINTR);
  if (count > 0 && !WriteAll(to, buffer.data(), static_cast<size_t>(count), position)) {
    return -1;
  }
  return count;
}

// Copies the bytes of one file to the same places of another.
class ContentCopy {
 public:
  ContentCopy(int from, int to, const std::function<bool(unsigned long long)>& on_copied)
      : from_(from), to_(to), on_copied_(on_copied) {}

  // Copies [position, end) or to the end of the file if that comes first; the place reached, -1 on error.
  off_t CopyRange(off_t position, off_t end) {
    while (position < end) {
      const ssize_t count = CopyPiece(position, static_cast<size_t>(std::min<off_t>(end - position, kPieceBytes)));
      if (count < 0) {
        return -1;
      }
      if (count == 0) {
        break;
      }
      position += count;
      if (!on_copied_(static_cast<unsigned long long>(count))) {
        errno = ECANCELED;
        return -1;
      }
    }
    return position;
  }

 private:
  ssize_t CopyPiece(off_t position, size_t length) {
    while (in_kernel_) {
      off_t from_position = position;
      off_t to_position = position;
      const ssize_t count = copy_file_range(from_, &from_position, to_, &to_position, length, 0);
      if (count > 0) {
        return count;
      }
      if (count < 0 && errno == EINTR) {
        continue;
      }
      if (count < 0 && errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP && errno != EPERM) {
        return -1;
      }
      // Not between these file systems; or nothing, which it also says of files whose size is not what they yield.
      in_kernel_ = false;
    }
    return CopyThroughBuffer(from_, to_, position, length, buffer_);
  }

  int from_;
  int to_;
  const std::function<bool(unsigned long long)>& on_copied_;
  bool in_kernel_ = true;
  std::vector<char> buffer_;
};

// Where data begins at or after `position` and where it ends. False when there is none; `*error` is 0 then.
bool NextData(int from, off_t position, off_t* begin, off_t* end, int* error) {
  *error = 0;
  *begin = lseek(from, position, SEEK_DATA);
  if (*begin >= 0) {
    *end = lseek(from, *begin, SEEK_HOLE);
    if (*end >= 0) {
      return true;
    }
  }
  if (errno == ENXIO) {
    return false;
  }
  if (errno != EINVAL && errno != EOPNOTSUPP) {
    *error = errno;
    return false;
  }
  *begin = position;  // a file system without holes
  *end = kToTheEnd;
  return true;
}

// Whether failing to set this attribute means only that the target cannot hold it, or this user may not set it.
bool MayBeLeftOut(std::string_view name, int error) {
  return error == EOPNOTSUPP || (error == EPERM && !name.starts_with("user."));
}

bool CopyAttribute(int from, int to, const char* name) {
  const ssize_t size = fgetxattr(from, name, nullptr, 0);
  std::vector<char> value(size > 0 ? static_cast<size_t>(size) : 0);
  const ssize_t length = size < 0 ? size : fgetxattr(from, name, value.data(), value.size());
  if (length < 0) {
    return errno == ENODATA || MayBeLeftOut(name, errno);  // removed meanwhile
  }
  return fsetxattr(to, name, value.data(), static_cast<size_t>(length), 0) == 0 || MayBeLeftOut(name, errno);
}

// A list that the target inherited from its folder and the source does not have would change who may do what.
bool DropInheritedList(int to, const char* name) {
  return fremovexattr(to, name) == 0 || errno == ENODATA || MayBeLeftOut(name, errno);
}

bool CopyExtendedAttributes(int from, int to, bool is_directory) {
  const ssize_t size = flistxattr(from, nullptr, 0);
  if (size < 0 && errno != EOPNOTSUPP) {
    return false;
  }
  std::vector<char> names(size > 0 ? static_cast<size_t>(size) : 0);
  const ssize_t length = names.empty() ? 0 : flistxattr(from, names.data(), names.size());
  if (length < 0) {
    return false;
  }
  bool has_access_list = false;
  bool has_default_list = false;
  for (size_t at = 0; at < static_cast<size_t>(length);) {
    const char* name = names.data() + at;
    has_access_list |= std::string_view(name) == kAccessList;
    has_default_list |= std::string_view(name) == kDefaultList;
    if (!CopyAttribute(from, to, name)) {
      return false;
    }
    at += std::string_view(name).size() + 1;
  }
  return (has_access_list || DropInheritedList(to, kAccessList)) &&
         (!is_directory || has_default_list || DropInheritedList(to, kDefaultList));
}

// Only root may give files away. A file that did not get its owner must not run with the rights of another.
mode_t ModeFor(const struct stat& status, bool owner_kept) {
  return status.st_mode & (owner_kept ? 07777U : 01777U);
}

}  // namespace

bool CopyContent(int from, int to, const std::function<bool(unsigned long long)>& on_copied) {
  ContentCopy copy(from, to, on_copied);
  off_t reached = 0;
  off_t begin = 0;
  off_t end = 0;
  int error = 0;
  while (NextData(from, reached, &begin, &end, &error)) {
    const off_t position = copy.CopyRange(begin, end);
    if (position < 0) {
      return false;
    }
    const bool at_end = position < end;
    reached = position;
    if (at_end) {
      break;
    }
  }
  if (error != 0) {
    errno = error;
    return false;
  }
  struct stat status;
  if (fstat(from, &status) != 0) {
    return false;
  }
  return ftruncate(to, std::max(reached, status.st_size)) == 0;  // a hole at the end
}

bool CopyAttributes(int from, int to, const struct stat& status) {
  bool owner_kept = fchown(to, status.st_uid, status.st_gid) == 0;
  if (!owner_kept) {
    if (errno != EPERM) {
      return false;
    }
    (void)!fchown(to, static_cast<uid_t>(-1), status.st_gid);  // as much of it as is allowed
  }
  const timespec times[2] = {status.st_atim, status.st_mtim};
  return fchmod(to, ModeFor(status, owner_kept)) == 0 && CopyExtendedAttributes(from, to, S_ISDIR(status.st_mode)) &&
         futimens(to, times) == 0;
}

bool CopyEntryAttributes(int to_directory, const char* to_name, const struct stat& status) {
  const bool owner_kept = fchownat(to_directory, to_name, status.st_uid, status.st_gid, AT_SYMLINK_NOFOLLOW) == 0;
  if (!owner_kept && errno != EPERM) {
    return false;
  }
  // Links have no mode of their own.
  if (!S_ISLNK(status.st_mode) && fchmodat(to_directory, to_name, ModeFor(status, owner_kept), 0) != 0) {
    return false;
  }
  const timespec times[2] = {status.st_atim, status.st_mtim};
  return utimensat(to_directory, to_name, times, AT_SYMLINK_NOFOLLOW) == 0;
}

}  // namespace nimo
