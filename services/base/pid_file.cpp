// Locks and writes the pid file.
#include "services/base/pid_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace service {
namespace {

[[noreturn]] void Fail(int error, const std::string& path) {
  throw std::system_error(error, std::generic_category(), path);
}

std::string HolderOf(const UniqueFd& file) {
  std::array<char, 16> text;
  const ssize_t length = pread(file.get(), text.data(), text.size(), 0);
  std::string holder(text.data(), length > 0 ? static_cast<size_t>(length) : 0);
  while (!holder.empty() && holder.back() == '\n') {
    holder.pop_back();
  }
  return holder;
}

}  // namespace

PidFile::PidFile(std::string path) : path_(std::move(path)) {
  while (!Lock()) {
  }
  Write();
}

PidFile::~PidFile() {
  unlink(path_.c_str());
}

// False when the file was removed between opening and locking, because its holder stopped just then.
bool PidFile::Lock() {
  file_ = UniqueFd(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (!file_.valid()) {
    Fail(errno, path_);
  }
  if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) {
      throw std::runtime_error("another one runs, process " + HolderOf(file_) + " holds " + path_);
    }
    Fail(errno, path_);
  }
  struct stat ours {};
  struct stat named {};
  return fstat(file_.get(), &ours) == 0 && stat(path_.c_str(), &named) == 0 && ours.st_dev == named.st_dev &&
         ours.st_ino == named.st_ino;
}

void PidFile::Write() {
  const std::string text = std::to_string(getpid()) + "\n";
  if (ftruncate(file_.get(), 0) != 0 || pwrite(file_.get(), text.data(), text.size(), 0) < 0) {
    Fail(errno, path_);
  }
}

}  // namespace service
