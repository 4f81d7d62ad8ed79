// inotify(7).
#include "services/indexer/file_watch.h"

#include <sys/inotify.h>

#include <boost/asio/buffer.hpp>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

namespace fileindexd {
namespace {

constexpr std::chrono::seconds kLookAgain{30};
// A queue file is made first and written to then, so its creation is no news.
constexpr std::uint32_t kEvents = IN_MODIFY | IN_MOVED_TO | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

int Open() {
  const int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (fd < 0) {
    throw std::system_error(errno, std::generic_category(), "inotify");
  }
  return fd;
}

}  // namespace

FileWatch::FileWatch(boost::asio::io_context& context) : inotify_(context, Open()), timer_(context), buffer_{} {
  Read();
}

FileWatch::Id FileWatch::Add(const std::string& path, bool creation, std::function<void()> on_change) {
  const size_t slash = path.rfind('/');
  const Id id = next_id_++;
  File& file = files_[id];
  file.folder = path.substr(0, slash);
  file.name = path.substr(slash + 1);
  file.on_change = std::move(on_change);
  file.creation = creation;
  if (!Arm(file)) {
    WaitForMissing();
  }
  return id;
}

void FileWatch::Remove(Id id) {
  const auto found = files_.find(id);
  if (found == files_.end()) {
    return;
  }
  const int watch = found->second.watch;
  files_.erase(found);
  bool shared = watch < 0;
  for (const auto& [other, file] : files_) {
    shared = shared || file.watch == watch;  // one folder, two files
  }
  if (!shared) {
    inotify_rm_watch(inotify_.native_handle(), watch);
  }
}

void FileWatch::LookForMissing() {
  std::vector<std::function<void()>> changed;
  bool missing = false;
  for (auto& [id, file] : files_) {
    if (file.watch < 0 && Arm(file)) {
      changed.push_back(file.on_change);
    }
    missing = missing || file.watch < 0;
  }
  if (missing) {
    WaitForMissing();
  }
  for (const auto& on_change : changed) {
    on_change();
  }
}

bool FileWatch::Arm(File& file) {
  const std::uint32_t events = kEvents | IN_MASK_ADD | (file.creation ? IN_CREATE : 0U);
  file.watch = inotify_add_watch(inotify_.native_handle(), file.folder.c_str(), events);
  return file.watch >= 0;
}

void FileWatch::Read() {
  inotify_.async_read_some(boost::asio::buffer(buffer_), [this](const boost::system::error_code& error, size_t bytes) {
    if (error == boost::asio::error::operation_aborted) {
      return;
    }
    if (!error) {
      Take(bytes);
    }
    Read();
  });
}

void FileWatch::Take(size_t bytes) {
  std::map<Id, std::function<void()>> changed;
  for (size_t at = 0; at + sizeof(inotify_event) <= bytes;) {
    inotify_event event{};
    memcpy(&event, buffer_.data() + at, sizeof(event));
    const std::string name = event.len > 0 ? buffer_.data() + at + sizeof(event) : "";
    at += sizeof(event) + event.len;
    if ((event.mask & IN_MOVE_SELF) != 0) {
      inotify_rm_watch(inotify_.native_handle(), event.wd);
    }
    if ((event.mask & (IN_IGNORED | IN_MOVE_SELF)) != 0) {
      Lose(event.wd);
    }
    for (const auto& [id, file] : files_) {
      const bool named =
          file.watch == event.wd && file.name == name && ((event.mask & IN_CREATE) == 0 || file.creation);
      if (named || (event.mask & IN_Q_OVERFLOW) != 0) {
        changed[id] = file.on_change;
      }
    }
  }
  for (const auto& [id, on_change] : changed) {
    if (files_.count(id) != 0) {  // not removed by one before it
      on_change();
    }
  }
}

void FileWatch::Lose(int watch) {
  for (auto& [id, file] : files_) {
    if (file.watch == watch) {
      file.watch = -1;
      WaitForMissing();
    }
  }
}

void FileWatch::WaitForMissing() {
  if (std::exchange(waiting_, true)) {
    return;
  }
  timer_.expires_after(kLookAgain);
  timer_.async_wait([this](const boost::system::error_code& error) {
    waiting_ = false;
    if (!error) {
      LookForMissing();
    }
  });
}

}  // namespace fileindexd
