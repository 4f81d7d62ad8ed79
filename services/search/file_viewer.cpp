// The kernel's word on who may read what.
#include "services/search/file_viewer.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "services/base/unique_fd.h"

namespace nimoelasticd {
namespace {

using service::UniqueFd;

constexpr int kMostLinks = 40;  // as the kernel has it
constexpr int kPlace = O_PATH | O_NOFOLLOW | O_CLOEXEC;

UniqueFd OpenWithoutLinks(const std::string& path) {
  open_how how{};
  how.flags = kPlace;
  how.resolve = RESOLVE_NO_SYMLINKS;
  return UniqueFd(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof(how))));
}

// Where the link that is open leads; "" for what is no link of root's.
std::string RootsLink(int fd) {
  struct stat info {};
  char target[PATH_MAX];
  if (fstat(fd, &info) != 0 || !S_ISLNK(info.st_mode) || info.st_uid != 0) {
    return "";
  }
  const ssize_t size = readlinkat(fd, "", target, sizeof(target));
  return size <= 0 || size == ssize_t{sizeof(target)} ? "" : std::string(target, static_cast<size_t>(size));
}

bool IsLink(int fd) {
  struct stat info {};
  return fstat(fd, &info) != 0 || S_ISLNK(info.st_mode);
}

// A volume may be known by a link that root has made. Step by step, as no flag of the kernel's tells links apart by
// their owners; each step is from an open folder, so that nothing can be exchanged behind it.
UniqueFd OpenThroughRootsLinks(const std::string& path) {
  UniqueFd at(open("/", O_PATH | O_CLOEXEC));
  std::string rest = path;
  for (int links = 0; at.valid() && links <= kMostLinks;) {
    const size_t begin = rest.find_first_not_of('/');
    if (begin == std::string::npos) {
      return at;
    }
    const size_t end = std::min(rest.find('/', begin), rest.size());
    UniqueFd next(openat(at.get(), rest.substr(begin, end - begin).c_str(), kPlace));
    rest.erase(0, end);
    if (!next.valid() || !IsLink(next.get())) {
      at = std::move(next);
      continue;
    }
    const std::string target = rest.empty() ? "" : RootsLink(next.get());
    if (target.empty()) {
      return UniqueFd();
    }
    ++links;
    rest.insert(0, target);
    if (target.front() == '/') {
      at = UniqueFd(open("/", O_PATH | O_CLOEXEC));
    }
  }
  return UniqueFd();
}

bool IsSameFile(int fd, const search::Candidate& candidate) {
  struct statx info {};
  if (statx(fd, "", AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT, STATX_TYPE | STATX_UID | STATX_BTIME, &info) != 0) {
    return false;
  }
  // A link at the end is opened itself whatever was said of links, and everybody may read it.
  if (!S_ISREG(info.stx_mode) && !S_ISDIR(info.stx_mode)) {
    return false;
  }
  // Dates of birth are kept in whole seconds, in which somebody else can make a file, too.
  const bool same_owner = candidate.owner.empty() || candidate.owner == std::to_string(info.stx_uid);
  const bool tells_birth = candidate.created && (info.stx_mask & STATX_BTIME) != 0;
  return same_owner && (!tells_birth || *candidate.created == info.stx_btime.tv_sec);
}

bool MayRead(const search::Candidate& candidate) {
  const std::string& path = candidate.path;
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) {
    return false;
  }
  UniqueFd fd = OpenWithoutLinks(path);
  if (!fd.valid() && errno == ELOOP) {
    fd = OpenThroughRootsLinks(path);
  }
  return fd.valid() && IsSameFile(fd.get(), candidate) &&
         syscall(SYS_faccessat2, fd.get(), "", R_OK, AT_EACCESS | AT_EMPTY_PATH) == 0;
}

}  // namespace

std::vector<bool> FileViewer::MaySee(const std::vector<search::Candidate>& candidates) {
  std::vector<bool> shown;
  shown.reserve(candidates.size());
  const ActingAs acting(account_);
  for (const search::Candidate& candidate : candidates) {
    shown.push_back(MayRead(candidate));
  }
  return shown;
}

}  // namespace nimoelasticd
