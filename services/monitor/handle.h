// Identity of an object of a file system: what the kernel reports instead of a path.
#pragma once

#include <sys/fanotify.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

namespace nimotifyd {

/// A file handle together with its file system's id. Unlike an inode number it is never given to another object.
struct Handle {
  static constexpr size_t kMaxBytes = 48;

  uint64_t file_system = 0;
  int32_t type = 0;
  uint32_t size = 0;
  std::array<unsigned char, kMaxBytes> bytes{};

  bool operator==(const Handle& other) const {
    return file_system == other.file_system && type == other.type && size == other.size &&
           std::memcmp(bytes.data(), other.bytes.data(), size) == 0;
  }
};

struct HandleHash {
  size_t operator()(const Handle& handle) const {
    uint64_t hash = handle.file_system ^ handle.size;
    for (size_t at = 0; at < handle.size; at += sizeof(uint64_t)) {  // bytes past the size are zero
      uint64_t word = 0;
      std::memcpy(&word, handle.bytes.data() + at, sizeof(word));
      hash = (hash ^ word) * 0x9E3779B97F4A7C15U;
      hash ^= hash >> 32;
    }
    return hash;
  }
};

/// Copies the handle out of an information record; nothing if it is longer than kMaxBytes.
std::optional<Handle> HandleOf(const fanotify_event_info_fid& info);

/// The id that events of the file system of `path` carry; nothing, with errno, if it cannot be had.
std::optional<uint64_t> FileSystemId(const std::string& path);

/// The longest path above or at `path` (absolute) that is there and lies in `file_system`; empty if there is none.
std::string NearestIn(uint64_t file_system, const std::string& path);

/// The handle of the object at `path` below the folder `at` (AT_FDCWD, or a descriptor), which lies in `file_system`.
/// `flags` as for name_to_handle_at. Nothing, with errno, on failure: EOPNOTSUPP if the file system cannot give one
/// and EOVERFLOW if it is too long.
std::optional<Handle> HandleAt(uint64_t file_system, int at, const char* path, int flags);

/// Opens (O_PATH) the folder that `handle` stands for. -1 with errno on failure; ESTALE if it is gone.
/// `mount` is a descriptor, no O_PATH one, of any object in the same file system.
int OpenHandle(int mount, const Handle& handle);

}  // namespace nimotifyd
