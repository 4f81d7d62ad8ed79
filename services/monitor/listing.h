// Reads folders by descriptor, so that a folder that moves meanwhile is still the one that is read.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

namespace nimotifyd {

/// What is in a folder, without "." and "..".
///
/// Threads: one.
class Listing {
 public:
  /// `folder`: a descriptor of it (O_PATH will do), not owned and needed no longer. A folder that cannot be read looks
  /// empty.
  explicit Listing(int folder) {
    const int fd = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    listing_ = fd >= 0 ? fdopendir(fd) : nullptr;
    if (listing_ == nullptr && fd >= 0) {
      close(fd);
    }
  }
  Listing(const Listing&) = delete;
  Listing& operator=(const Listing&) = delete;
  ~Listing() {
    if (listing_ != nullptr) {
      closedir(listing_);
    }
  }

  /// Null at the end. Valid until the next call.
  const dirent* Next() {
    while (const dirent* item = listing_ != nullptr ? readdir(listing_) : nullptr) {
      if (strcmp(item->d_name, ".") != 0 && strcmp(item->d_name, "..") != 0) {
        return item;
      }
    }
    return nullptr;
  }

 private:
  DIR* listing_ = nullptr;
};

}  // namespace nimotifyd
