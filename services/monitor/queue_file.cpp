// Appends to a queue file under its lock.
#include "services/monitor/queue_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

#include "services/base/unique_fd.h"

namespace nimotifyd {

using service::UniqueFd;

namespace {

// A consumer moves the file aside once per pass; losing this race more often means something else is wrong.
constexpr int kReopenTries = 8;

AppendResult Failure(int error) {
  return {AppendOutcome::kFailed, error, false, {}};
}

bool MakeParents(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    if (mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) {
      return false;
    }
  }
  return true;
}

UniqueFd Open(const std::string& path) {
  return UniqueFd(open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
}

// Another writer may have died in the middle of a line: ours must not become the rest of it.
bool EndsInTornLine(int fd, off_t size) {
  char last = '\n';
  return size > 0 && pread(fd, &last, 1, size - 1) == 1 && last != '\n';
}

AppendResult WriteLocked(int fd, const struct stat& before, std::string_view lines) {
  std::string healed;
  if (EndsInTornLine(fd, before.st_size)) {
    healed.reserve(lines.size() + 1);
    healed += '\n';
    healed += lines;
    lines = healed;
  }
  ssize_t written = 0;
  do {
    written = write(fd, lines.data(), lines.size());
  } while (written < 0 && errno == EINTR);
  if (written == static_cast<ssize_t>(lines.size())) {
    return {AppendOutcome::kWritten, 0, before.st_size == 0, {before.st_dev, before.st_ino, before.st_size + written}};
  }
  const int error = written < 0 ? errno : ENOSPC;
  if (written > 0 && ftruncate(fd, before.st_size) != 0) {
    return Failure(errno);
  }
  return Failure(error);
}

}  // namespace

AppendResult AppendToQueueFile(const std::string& path, std::string_view lines, bool make_folders,
                               const std::optional<QueueFileMark>& unless) {
  for (int tries = 0; tries < kReopenTries; ++tries) {
    UniqueFd file = Open(path);
    if (!file.valid() && errno == ENOENT) {
      if (!make_folders) {
        return {AppendOutcome::kNoFolder, ENOENT, false, {}};
      }
      if (MakeParents(path)) {
        file = Open(path);
      }
    }
    if (!file.valid()) {
      return Failure(errno);
    }
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
      return errno == EWOULDBLOCK ? AppendResult{AppendOutcome::kBusy, errno, false, {}} : Failure(errno);
    }
    struct stat locked {};
    struct stat at_path {};
    if (fstat(file.get(), &locked) != 0) {
      return Failure(errno);
    }
    if (!S_ISREG(locked.st_mode)) {
      return Failure(EINVAL);  // a pipe or device would take the lines, and nobody could read them as a queue
    }
    if (stat(path.c_str(), &at_path) != 0 || at_path.st_dev != locked.st_dev || at_path.st_ino != locked.st_ino) {
      continue;  // moved aside between open and lock
    }
    const QueueFileMark mark{locked.st_dev, locked.st_ino, locked.st_size};
    if (unless && mark == *unless) {
      return {AppendOutcome::kUnchanged, 0, false, mark};
    }
    return WriteLocked(file.get(), locked, lines);
  }
  return {AppendOutcome::kBusy, EAGAIN, false, {}};
}

}  // namespace nimotifyd
