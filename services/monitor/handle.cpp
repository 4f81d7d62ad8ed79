// File handles.
#include "services/monitor/handle.h"

#include <fcntl.h>
#include <sys/statfs.h>

#include <cerrno>

namespace nimotifyd {
namespace {

// struct file_handle ends in a flexible array; this one has room.
struct alignas(file_handle) Room {
  std::array<char, sizeof(file_handle) + Handle::kMaxBytes> bytes{};
  file_handle* get() { return reinterpret_cast<file_handle*>(bytes.data()); }
};

}  // namespace

std::optional<Handle> HandleOf(const fanotify_event_info_fid& info) {
  const auto* raw = reinterpret_cast<const file_handle*>(info.handle);
  if (raw->handle_bytes > Handle::kMaxBytes) {
    return std::nullopt;
  }
  Handle handle;
  std::memcpy(&handle.file_system, &info.fsid, sizeof(handle.file_system));
  handle.type = raw->handle_type;
  handle.size = raw->handle_bytes;
  std::memcpy(handle.bytes.data(), raw->f_handle, raw->handle_bytes);
  return handle;
}

std::optional<uint64_t> FileSystemId(const std::string& path) {
  struct statfs info {};
  if (statfs(path.c_str(), &info) != 0) {
    return std::nullopt;
  }
  uint64_t id = 0;
  static_assert(sizeof(info.f_fsid) == sizeof(id));
  std::memcpy(&id, &info.f_fsid, sizeof(id));
  return id;
}

std::string NearestIn(uint64_t file_system, const std::string& path) {
  for (std::string at = path; !at.empty(); at.erase(at.rfind('/'))) {
    if (FileSystemId(at) == file_system) {
      return at;
    }
  }
  return FileSystemId("/") == file_system ? "/" : "";
}

std::optional<Handle> HandleAt(uint64_t file_system, int at, const char* path, int flags) {
  Room room;
  room.get()->handle_bytes = Handle::kMaxBytes;
  int mount_id = 0;
  if (name_to_handle_at(at, path, room.get(), &mount_id, flags) != 0) {
    return std::nullopt;
  }
  Handle handle;
  handle.file_system = file_system;
  handle.type = room.get()->handle_type;
  handle.size = room.get()->handle_bytes;
  std::memcpy(handle.bytes.data(), room.get()->f_handle, handle.size);
  return handle;
}

int OpenHandle(int mount, const Handle& handle) {
  Room room;
  room.get()->handle_type = handle.type;
  room.get()->handle_bytes = handle.size;
  std::memcpy(room.get()->f_handle, handle.bytes.data(), handle.size);
  return open_by_handle_at(mount, room.get(), O_PATH | O_CLOEXEC);
}

}  // namespace nimotifyd
