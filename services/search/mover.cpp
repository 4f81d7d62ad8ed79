// Rename where it works; copy, sync and rename where it does not.
#include "services/search/mover.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "services/base/unique_fd.h"
#include "services/search/whole_file.h"

namespace nimoelasticd {

using service::UniqueFd;

namespace {

namespace fs = std::filesystem;

void Require(bool done, const std::string& what) {
  if (!done) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

std::string CopyPlace(const std::string& to) {
  return to + ".moving";
}

// Goes to the end of the file as it is now, also where the kernel cannot copy by itself.
void CopyBytes(int source, int target, const std::string& path) {
  char buffer[1 << 16];
  while (true) {
    const ssize_t got = read(source, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    Require(got >= 0, "read " + path);
    if (got == 0) {
      return;
    }
    for (ssize_t done = 0; done < got;) {
      const ssize_t count = write(target, buffer + done, static_cast<size_t>(got - done));
      if (count < 0 && errno == EINTR) {
        continue;
      }
      Require(count > 0, "write the copy of " + path);
      done += count;
    }
  }
}

void CopyFile(const std::string& from, const std::string& to) {
  const UniqueFd source(open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!source.valid() && errno == ENOENT) {
    return;
  }
  struct stat info {};
  Require(source.valid() && fstat(source.get(), &info) == 0, "open " + from);
  const UniqueFd target(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  Require(target.valid(), "open " + to);
  CopyBytes(source.get(), target.get(), from);
  Require(fchown(target.get(), info.st_uid, info.st_gid) == 0, "chown " + to);
  Require(fchmod(target.get(), info.st_mode & 07777) == 0, "chmod " + to);
  Require(fsync(target.get()) == 0, "sync " + to);
}

void CopyFolder(const std::string& from, const std::string& to, const std::vector<std::string>& names) {
  const std::string copy = CopyPlace(to);
  DropPartialCopy(to);
  try {
    fs::create_directory(copy, from);
    for (const std::string& name : names) {
      CopyFile(fs::path(from) / name, fs::path(copy) / name);
    }
    SyncFolder(copy);
    Require(rename(copy.c_str(), to.c_str()) == 0, "rename " + copy);
  } catch (const std::system_error&) {
    DropPartialCopy(to);
    throw;
  }
}

}  // namespace

bool HasIndexFiles(const std::string& folder, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    struct stat info {};
    if (lstat((fs::path(folder) / name).c_str(), &info) == 0) {
      return true;
    }
  }
  return false;
}

void PlaceIndex(const std::string& from, const std::string& to, const std::vector<std::string>& names) {
  fs::create_directories(ParentOf(to));
  DropPartialCopy(to);
  if (rename(from.c_str(), to.c_str()) != 0) {
    // Another file system, or another mount of this one; EBUSY when the folder is a mount point.
    Require(errno == EXDEV || errno == EBUSY, "rename " + from);
    CopyFolder(from, to, names);
  }
  try {
    SyncFolder(ParentOf(to));
    SyncFolder(ParentOf(from));
  } catch (const std::system_error&) {
    // It is there. Should a power cut undo the rename, whoever wrote down the move finds the files where they were.
  }
}

void DropPartialCopy(const std::string& to) {
  std::error_code ignored;
  fs::remove_all(CopyPlace(to), ignored);
}

}  // namespace nimoelasticd
