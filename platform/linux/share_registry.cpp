// The registry of shares: /etc/nimo/shares.json, replaced whole under a lock, read without one.
#include "platform/linux/share_registry.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <compare>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "platform/linux/index_folder.h"
#include "platform/linux/share_registry_text.h"
#include "platform/linux/unique_fd.h"

namespace nimo {
namespace {

using NIMO::SHARE::Entry;

constexpr char kFolder[] = "/etc/nimo";
constexpr char kRegistry[] = "/etc/nimo/shares.json";
constexpr char kTemporary[] = "/etc/nimo/shares.json.tmp";
constexpr char kLock[] = "/etc/nimo/shares.json.lock";
// Some 20,000 shares with long paths; a larger file is a mistake, and not worth the memory to find out.
constexpr off_t kLargestBytes = off_t{16} * 1024 * 1024;

class RegistryError : public std::runtime_error {
 public:
  RegistryError(const std::string& reason, int error) : std::runtime_error(reason), error_(error) {}
  int error() const { return error_; }

 private:
  int error_;
};

[[noreturn]] void ThrowErrno(const std::string& what) {
  const int error = errno;
  throw RegistryError(what + ": " + strerror(error), error);
}

// Which file was read, and in which state.
struct FileState {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  int64_t modified_ns = 0;
  int64_t changed_ns = 0;

  auto operator<=>(const FileState&) const = default;
};

constexpr int64_t kSecondNs = 1000000000;

FileState StateOf(const struct stat& status) {
  return {status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec * kSecondNs + status.st_mtim.tv_nsec,
          status.st_ctim.tv_sec * kSecondNs + status.st_ctim.tv_nsec};
}

// Timestamps move in ticks of up to 10 ms, and a replaced file's inode number is soon used again: a file that changed
// just now may change again and look the same.
bool IsSettled(const FileState& state) {
  constexpr int64_t kUnsettledNs = kSecondNs / 10;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const int64_t age = now.tv_sec * kSecondNs + now.tv_nsec - state.changed_ns;
  return age > kUnsettledNs;
}

std::string ReadAll(int fd) {
  std::string text;
  char buffer[16384];
  ssize_t received = 0;
  while ((received = read(fd, buffer, sizeof(buffer))) != 0) {
    if (received < 0 && errno != EINTR) {
      ThrowErrno("cannot read it");
    }
    text.append(buffer, static_cast<size_t>(std::max<ssize_t>(received, 0)));
    if (text.size() > static_cast<size_t>(kLargestBytes)) {
      throw std::runtime_error("too large");
    }
  }
  return text;
}

// Reads the registry and says which file that was. Throws RegistryError, or std::runtime_error for what the file holds.
void Load(ShareRegistry& registry, FileState& state) {
  const UniqueFd file(open(kRegistry, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.ok() && errno == ENOENT) {
    return;
  }
  struct stat status {};
  if (!file.ok() || fstat(file.get(), &status) != 0) {
    ThrowErrno("cannot open it");
  }
  state = StateOf(status);
  if (!S_ISREG(status.st_mode)) {
    throw std::runtime_error("no regular file");
  }
  registry.shares = ParseShares(ReadAll(file.get()));
}

std::string Reason(const std::exception& error) {
  return std::string(kRegistry) + ": " + error.what();
}

class Cache {
 public:
  std::shared_ptr<const ShareRegistry> Current() {
    struct stat status {};
    const bool present = stat(kRegistry, &status) == 0;
    const std::lock_guard lock(mutex_);
    if (registry_ != nullptr && present && settled_ && StateOf(status) == state_) {
      return registry_;
    }
    auto registry = std::make_shared<ShareRegistry>();
    FileState state;
    try {
      Load(*registry, state);
    } catch (const RegistryError& error) {
      registry->error = error.error();
      registry->reason = Reason(error);
    } catch (const std::exception& error) {
      registry->error = EBADMSG;
      registry->reason = Reason(error);
    }
    LogFailure(*registry, state);
    registry_ = std::move(registry);
    settled_ = state != FileState() && IsSettled(state);
    state_ = state;
    return registry_;
  }

 private:
  // Once for each state of the file: look-ups are many.
  void LogFailure(const ShareRegistry& registry, const FileState& state) {
    if (!registry.reason.empty() && (registry.reason != logged_reason_ || state != logged_state_)) {
      syslog(LOG_ERR, "event=share_registry_unreadable reason=\"%s\"", registry.reason.c_str());
    }
    logged_reason_ = registry.reason;
    logged_state_ = state;
  }

  std::mutex mutex_;  // guards the rest
  std::shared_ptr<const ShareRegistry> registry_;
  FileState state_;
  bool settled_ = false;  // the state tells whether the file is still the one that was read
  std::string logged_reason_;
  FileState logged_state_;
};

// Keeps other writers out, in this process and in others, while it lives.
class WriteLock {
 public:
  WriteLock() {
    // Readers of every identity must get to the registry, whatever the mask of the process that made the folder.
    if (mkdir(kFolder, 0755) == 0) {
      chmod(kFolder, 0755);
    } else if (errno != EEXIST) {
      ThrowErrno(std::string("cannot make ") + kFolder);
    }
    // Who can open it can lock it, and keep everybody else out: the writers alone, also where it had another mode.
    file_ = UniqueFd(open(kLock, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file_.ok() || fchmod(file_.get(), 0600) != 0 || !Lock(file_.get())) {
      ThrowErrno(std::string("cannot lock ") + kLock);
    }
  }

 private:
  static bool Lock(int fd) {
    int locked = -1;
    do {
      locked = flock(fd, LOCK_EX);
    } while (locked != 0 && errno == EINTR);
    return locked == 0;
  }

  UniqueFd file_;
};

void WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      ThrowErrno(std::string("cannot write ") + kTemporary);
    }
    text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(written, 0)));
  }
}

void SyncFolder() {
  const UniqueFd folder(open(kFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.ok() || fsync(folder.get()) != 0) {
    ThrowErrno(std::string("cannot sync ") + kFolder);
  }
}

// Only under the lock: the temporary file has one name, so that one left by a killed writer is taken over.
void Save(const std::vector<Entry>& shares) {
  UniqueFd file(open(kTemporary, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (!file.ok()) {
    ThrowErrno(std::string("cannot write ") + kTemporary);
  }
  try {
    WriteAll(file.get(), FormatShares(shares));
    if (fchmod(file.get(), 0644) != 0 || fsync(file.get()) != 0 || !file.Close() ||
        rename(kTemporary, kRegistry) != 0) {
      ThrowErrno(std::string("cannot write ") + kRegistry);
    }
  } catch (const std::runtime_error&) {
    unlink(kTemporary);
    throw;
  }
  SyncFolder();
}

// Not from the cache: what is written back must be what is there under the lock.
std::vector<Entry> LoadForChange() {
  ShareRegistry registry;
  FileState ignored;
  try {
    Load(registry, ignored);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(Reason(error));
  }
  return std::move(registry.shares);
}

std::string RealPath(const std::string& path) {
  const std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), &free);
  if (resolved == nullptr) {
    ThrowErrno(path);
  }
  return resolved.get();
}

void RequireRoomFor(const Entry& entry, const std::vector<Entry>& shares) {
  if (const std::string reason = ReasonAgainst(entry); !reason.empty()) {
    throw std::runtime_error(reason);
  }
  struct stat status {};
  if (lstat(entry.path.c_str(), &status) != 0) {
    ThrowErrno(entry.path);
  }
  if (!S_ISDIR(status.st_mode)) {
    throw std::runtime_error(entry.path + ": not a folder");
  }
  // Through a link a share could lie in another one unseen, and nothing in it would ever be indexed.
  const std::string plain = RealPath(entry.path);
  if (plain != entry.path) {
    throw std::runtime_error(entry.path + " leads through a link, to " + plain);
  }
  for (const Entry& other : shares) {
    if (other.name != entry.name &&
        (ComponentsBelow(entry.path, other.path) || ComponentsBelow(other.path, entry.path))) {
      throw std::runtime_error(entry.path + " lies in the folder of the share " + other.name + " or around it");
    }
  }
}

}  // namespace

const Entry* ShareRegistry::Find(std::string_view name) const {
  const auto found = std::find_if(shares.begin(), shares.end(), [&](const Entry& share) { return share.name == name; });
  return found != shares.end() ? &*found : nullptr;
}

const Entry* ShareRegistry::Holder(std::string_view path) const {
  const Entry* holder = nullptr;
  for (const Entry& share : shares) {
    if ((holder == nullptr || holder->path.size() < share.path.size()) && ComponentsBelow(path, share.path)) {
      holder = &share;
    }
  }
  return holder;
}

std::shared_ptr<const ShareRegistry> CurrentShares() {
  static auto* const cache = new Cache;  // never destroyed: look-ups may come while the program ends
  return cache->Current();
}

}  // namespace nimo

namespace NIMO::SHARE {

std::vector<Entry> List() {
  const auto registry = nimo::CurrentShares();
  if (registry->error != 0) {
    throw std::runtime_error(registry->reason);
  }
  return registry->shares;
}

void Register(const Entry& entry) {
  const nimo::WriteLock lock;
  std::vector<Entry> shares = nimo::LoadForChange();
  nimo::RequireRoomFor(entry, shares);
  const auto present =
      std::find_if(shares.begin(), shares.end(), [&](const Entry& share) { return share.name == entry.name; });
  if (present != shares.end()) {
    *present = entry;
  } else {
    shares.push_back(entry);
  }
  nimo::MakeIndexFolder(entry.path);  // first: who finds the share may queue events for it
  nimo::Save(shares);
}

void Replace(const std::string& name, const Entry& entry) {
  const nimo::WriteLock lock;
  std::vector<Entry> shares = nimo::LoadForChange();
  const auto place = std::find_if(shares.begin(), shares.end(), [&](const Entry& share) { return share.name == name; });
  if (place == shares.end()) {
    throw std::runtime_error("no such share: " + name);
  }
  std::vector<Entry> others = shares;
  others.erase(others.begin() + (place - shares.begin()));
  if (std::any_of(others.begin(), others.end(), [&](const Entry& share) { return share.name == entry.name; })) {
    throw std::runtime_error("there is a share " + entry.name + " already");
  }
  nimo::RequireRoomFor(entry, others);
  *place = entry;
  nimo::MakeIndexFolder(entry.path);
  nimo::Save(shares);
}

bool Unregister(const std::string& name) {
  const nimo::WriteLock lock;
  std::vector<Entry> shares = nimo::LoadForChange();
  if (std::erase_if(shares, [&](const Entry& share) { return share.name == name; }) == 0) {
    return false;
  }
  nimo::Save(shares);
  return true;
}

}  // namespace NIMO::SHARE
