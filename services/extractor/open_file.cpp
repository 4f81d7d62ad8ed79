// Walks paths.
#include "services/extractor/open_file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <climits>
#include <system_error>
#include <vector>

namespace extractor {

using service::UniqueFd;

namespace {

constexpr int kMostLinks = 40;  // the kernel's own bound
constexpr int kLook = O_PATH | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void Fail(int error, const char* what) {
  throw std::system_error(error, std::generic_category(), what);
}

// The kernel walks the path itself. Fails with ELOOP when there is a link before the last name.
UniqueFd OpenWithoutLinks(const std::string& path) {
  open_how how{};
  how.flags = kLook;
  how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  return UniqueFd(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof(how))));
}

// Puts the names of `path` on the stack so that its first one is on top.
void Push(std::vector<std::string>& names, const std::string& path) {
  size_t end = path.size();
  while (end > 0) {
    const size_t slash = path.rfind('/', end - 1);
    const size_t start = slash == std::string::npos ? 0 : slash + 1;
    if (start < end) {
      names.push_back(path.substr(start, end - start));
    }
    end = start == 0 ? 0 : start - 1;
  }
}

UniqueFd OpenRoot() {
  UniqueFd root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root.valid()) {
    Fail(errno, "cannot open the root folder");
  }
  return root;
}

std::string TargetOf(const UniqueFd& link) {
  std::string target(PATH_MAX, '\0');
  const ssize_t length = readlinkat(link.get(), "", target.data(), target.size());
  if (length < 0) {
    Fail(errno, "cannot read a link");
  }
  target.resize(static_cast<size_t>(length));
  return target;
}

// Name by name, following links that may be trusted.
UniqueFd OpenByNames(const std::string& path) {
  std::vector<std::string> names;
  Push(names, path);
  UniqueFd at = OpenRoot();
  for (int links = 0; !names.empty();) {
    const std::string name = std::move(names.back());
    names.pop_back();
    UniqueFd next(openat(at.get(), name.c_str(), kLook));
    struct stat attributes {};
    if (!next.valid() || fstat(next.get(), &attributes) != 0) {
      Fail(errno, "cannot be opened");
    }
    if (!S_ISLNK(attributes.st_mode) || names.empty()) {
      at = std::move(next);
      continue;
    }
    if (attributes.st_uid != 0 && attributes.st_uid != geteuid()) {
      Fail(EPERM, "a folder of the path is a link that a user made");
    }
    if (++links > kMostLinks) {
      Fail(ELOOP, "cannot be opened");
    }
    const std::string target = TargetOf(next);
    Push(names, target);
    if (target.front() == '/') {
      at = OpenRoot();
    }
  }
  return at;
}

}  // namespace

UniqueFd OpenSubject(const std::string& path) {
  UniqueFd subject = OpenWithoutLinks(path);
  if (subject.valid()) {
    return subject;
  }
  // Kernels before 5.6 and some containers do not have the call.
  if (errno != ELOOP && errno != ENOSYS && errno != EPERM) {
    Fail(errno, "cannot be opened");
  }
  return OpenByNames(path);
}

UniqueFd OpenForReading(const UniqueFd& subject) {
  // Through /proc it is the same file, whatever happened to the path meanwhile.
  const std::string again = "/proc/self/fd/" + std::to_string(subject.get());
  constexpr int kRead = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  UniqueFd file(open(again.c_str(), kRead | O_NOATIME));
  if (!file.valid() && errno == EPERM) {
    file = UniqueFd(open(again.c_str(), kRead));
  }
  if (!file.valid()) {
    Fail(errno, "cannot be opened for reading");
  }
  return file;
}

}  // namespace extractor
