// Fixed paths of the system, private to one test program.
#include "tests/support/private_mounts.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

bool entered = false;  // only touched by the main thread

void Require(bool done, const std::string& what) {
  if (done) {
    return;
  }
  // Of user namespaces, ENOSPC: this machine has room for none; ENOSYS: its kernel has none.
  if (errno == EPERM || errno == EACCES || errno == ENOSYS || (!entered && errno == ENOSPC)) {
    throw NotAllowed(errno, std::generic_category(), what);
  }
  throw std::system_error(errno, std::generic_category(), what);
}

void WriteProcFile(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  Require(fd >= 0, path);
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int saved_errno = errno;
  close(fd);
  errno = saved_errno;
  Require(written, path);
}

void Enter() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (uid == 0) {
    Require(unshare(CLONE_NEWNS) == 0, "unshare");
  } else {
    Require(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare");
    WriteProcFile("/proc/self/setgroups", "deny");
    WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  }
  // Without this, what is mounted here would appear on the whole machine.
  Require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount --make-rprivate /");
  entered = true;
}

std::vector<fs::path> covered;  // only touched by the main thread

bool IsCovered(const fs::path& path) {
  for (const fs::path& cover : covered) {
    const fs::path inside = path.lexically_relative(cover);
    if (!inside.empty() && *inside.begin() != "..") {
      return true;
    }
  }
  return false;
}

void Cover(const std::string& path) {
  fs::path existing = path;
  while (!fs::is_directory(existing)) {
    existing = existing.parent_path();
  }
  // The folder itself, where a link leads: /var/run is one.
  existing = fs::canonical(existing);
  if (existing == "/") {
    throw std::invalid_argument("will not cover / for " + path);
  }
  if (!IsCovered(existing)) {
    MountEmptyFileSystem(existing, size_t{64} * 1024 * 1024);
    covered.push_back(existing);
  }
}

}  // namespace

void EnterPrivateMounts(const std::vector<std::string>& paths) {
  if (!entered) {
    Enter();
  }
  for (const std::string& path : paths) {
    Cover(path);
  }
  // Only now: one cover may have hidden another.
  for (const std::string& path : paths) {
    fs::create_directories(path);
  }
}

void MountEmptyFileSystem(const std::string& path, size_t size_bytes) {
  if (!entered) {
    throw std::logic_error("not in a private mount namespace");
  }
  const std::string options = "mode=0755,size=" + std::to_string(size_bytes);
  Require(mount("tmpfs", path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0, "mount tmpfs " + path);
}

void MountBind(const std::string& from, const std::string& to) {
  if (!entered) {
    throw std::logic_error("not in a private mount namespace");
  }
  Require(mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) == 0, "mount --bind " + to);
}

}  // namespace orbisk::test
