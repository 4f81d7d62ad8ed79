// The lock between processes.
#include "orbisk/lock_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "common/check.h"

namespace orbisk {
namespace {

constexpr int kMaxAttempts = 64;
constexpr int kPauses = 10;
constexpr useconds_t kPauseStepMicroseconds = 100000;

// Processes that met at the lock once should not meet again: the pause is random, and may be none at all.
void Pause() {
  usleep(static_cast<useconds_t>(rand() % kPauses) * kPauseStepMicroseconds);
}

// Opens the lock file, making it if it is missing. Lock files lie in /tmp, where anybody may put something first: a
// link would have root make a file of that user's choice, and a fifo would be waited for.
//
// With fs.protected_regular the kernel refuses O_CREAT, also to root, for a file in /tmp that belongs to somebody else:
// one user's failed try would lock the box's own programs out.
int OpenOrMake(const std::string& path) {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK;
  const int fd = open(path.c_str(), kFlags | O_CREAT, 0644);
  if (0 <= fd || EACCES != errno) {
    return fd;
  }
  const int present = open(path.c_str(), kFlags);
  if (0 > present) {
    errno = EACCES;
  }
  return present;
}

// Whether `path` still leads to the file behind `fd`. A queue file can be moved aside between opening and locking it;
// the lock would then exclude nobody.
bool IsFileAt(const std::string& path, int fd) {
  struct stat opened;
  struct stat current;
  return 0 == fstat(fd, &opened) && 0 == stat(path.c_str(), &current) && opened.st_dev == current.st_dev &&
         opened.st_ino == current.st_ino;
}

}  // namespace

LockFile::LockFile(const std::string& path, bool exclusive) : fd_(-1), path_(path) {
  const int operation = (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB;
  int attempts_left = kMaxAttempts;
  while (true) {
    // Afresh each time: the file at the path may be another one by now.
    ORBISK_CHECK_TEXT(0 > (fd_ = OpenOrMake(path_)), "0 > (fd_ = open(path_.c_str(), O_RDONLY | O_CREAT, 0644))", 506,
                      "open failed, path=" + path_ + ", reason=" + GetErrnoStr());
    const bool refused = 0 != flock(fd_, operation);
    if (refused) {
      // The descriptor stays open here.
      ORBISK_CHECK(EINTR != errno && EWOULDBLOCK != errno, 506, GetErrnoStr());
    } else if (IsFileAt(path_, fd_)) {
      return;
    }
    close(fd_);
    fd_ = -1;
    if (refused) {
      Pause();
    }
    ORBISK_CHECK(0 == --attempts_left, 506, "Exceed max retry, path=" + path_);
  }
}

LockFile::~LockFile() {
  if (0 > fd_) {
    return;
  }
  flock(fd_, LOCK_UN);
  close(fd_);
}

}  // namespace orbisk
