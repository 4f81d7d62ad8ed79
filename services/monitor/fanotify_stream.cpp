// Reads and parses fanotify events.
#include "services/monitor/fanotify_stream.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace nimotifyd {
namespace {

constexpr size_t kChunkBytes = size_t{256} << 10;
// The kernel refuses a read that has no room for the next event; three handles and two names of the longest fit.
constexpr size_t kRoomForEvents = size_t{4} << 10;

// Events and their records are aligned to 4 bytes, but the metadata's type to 8: it is copied out.
constexpr size_t kAlignment = 4;

fanotify_event_metadata MetadataOf(const char* event) {
  fanotify_event_metadata metadata;
  memcpy(&metadata, event, sizeof(metadata));
  return metadata;
}

size_t LengthOf(const char* event) {
  return MetadataOf(event).event_len;
}

// The name stands behind the handle, ended by a NUL and padded.
std::string_view NameOf(const fanotify_event_info_fid& info) {
  const auto* handle = reinterpret_cast<const file_handle*>(info.handle);
  const auto* name = reinterpret_cast<const char*>(handle->f_handle) + handle->handle_bytes;
  const auto* end = reinterpret_cast<const char*>(&info) + info.hdr.len;
  if (name >= end) {
    return {};
  }
  return {name, strnlen(name, static_cast<size_t>(end - name))};
}

bool TakeInfo(const fanotify_event_info_fid& info, KernelEvent& event) {
  const size_t fixed = sizeof(info) + sizeof(file_handle);
  if (info.hdr.len < fixed || reinterpret_cast<const file_handle*>(info.handle)->handle_bytes > info.hdr.len - fixed) {
    return false;
  }
  switch (info.hdr.info_type) {
    case FAN_EVENT_INFO_TYPE_DFID_NAME:
    case FAN_EVENT_INFO_TYPE_NEW_DFID_NAME:
      event.folder = &info;
      event.name = NameOf(info);
      break;
    case FAN_EVENT_INFO_TYPE_OLD_DFID_NAME:
      event.old_folder = &info;
      event.old_name = NameOf(info);
      break;
    case FAN_EVENT_INFO_TYPE_DFID:
      event.folder = &info;
      event.name = ".";
      break;
    case FAN_EVENT_INFO_TYPE_FID:
      event.target = &info;
      break;
    default:  // kinds that later kernels add
      break;
  }
  return true;
}

}  // namespace

std::optional<KernelEvent> ParseKernelEvent(const char* data, size_t size) {
  if (size < sizeof(fanotify_event_metadata)) {
    return std::nullopt;
  }
  const fanotify_event_metadata metadata = MetadataOf(data);
  if (metadata.event_len > size || metadata.event_len < metadata.metadata_len ||
      metadata.metadata_len < sizeof(metadata) || metadata.event_len % kAlignment != 0 ||
      metadata.metadata_len % kAlignment != 0) {
    return std::nullopt;
  }
  KernelEvent event;
  event.mask = metadata.mask;
  event.pid = metadata.pid;
  size_t at = metadata.metadata_len;
  while (at + sizeof(fanotify_event_info_header) <= metadata.event_len) {
    const auto* info = reinterpret_cast<const fanotify_event_info_fid*>(data + at);
    if (info->hdr.len < sizeof(info->hdr) || info->hdr.len % kAlignment != 0 ||
        at + info->hdr.len > metadata.event_len) {
      return std::nullopt;
    }
    if (info->hdr.info_type <= FAN_EVENT_INFO_TYPE_DFID || info->hdr.info_type >= FAN_EVENT_INFO_TYPE_OLD_DFID_NAME) {
      if (!TakeInfo(*info, event)) {
        return std::nullopt;
      }
    }
    at += info->hdr.len;
  }
  return event;
}

FanotifyStream::FanotifyStream(int fd, size_t ahead_bytes) : fd_(fd), ahead_bytes_(ahead_bytes) {}

bool FanotifyStream::ReadChunk() {
  if (chunks_.empty() || kChunkBytes - chunks_.back().size < kRoomForEvents) {
    Chunk chunk;
    chunk.serial = next_serial_++;
    chunk.data = spare_ != nullptr ? std::move(spare_) : std::make_unique_for_overwrite<char[]>(kChunkBytes);
    chunks_.push_back(std::move(chunk));
  }
  Chunk& chunk = chunks_.back();
  ssize_t count = 0;
  do {
    count = read(fd_, chunk.data.get() + chunk.size, kChunkBytes - chunk.size);
  } while (count < 0 && errno == EINTR);
  if (count <= 0) {
    return false;
  }
  chunk.size += static_cast<size_t>(count);
  return true;
}

std::optional<KernelEvent> FanotifyStream::Next() {
  while (!chunks_.empty() && chunks_.front().at == chunks_.front().size) {
    spare_ = std::move(chunks_.front().data);
    chunks_.pop_front();
  }
  if (chunks_.empty()) {
    later_.clear();
    if (!ReadChunk()) {
      return std::nullopt;
    }
  }
  Chunk& chunk = chunks_.front();
  const char* data = chunk.data.get() + chunk.at;
  in_work_ = {chunk.serial, chunk.at};
  std::optional<KernelEvent> event = ParseKernelEvent(data, chunk.size - chunk.at);
  if (!event) {
    chunk.at = chunk.size;
    event.emplace().mask = FAN_Q_OVERFLOW;  // whatever the rest of this read held is lost
    return event;
  }
  chunk.at += LengthOf(data);
  return event;
}

void FanotifyStream::ReadAhead() {
  while (chunks_.size() * kChunkBytes < ahead_bytes_ && ReadChunk()) {
  }
  for (auto chunk = chunks_.rbegin(); chunk != chunks_.rend() && chunk->indexed < chunk->size; ++chunk) {
    IndexChunk(*chunk);
  }
}

void FanotifyStream::IndexChunk(Chunk& chunk) {
  for (size_t at = std::max(chunk.at, chunk.indexed); at < chunk.size;) {
    const char* data = chunk.data.get() + at;
    const std::optional<KernelEvent> event = ParseKernelEvent(data, chunk.size - at);
    if (!event) {
      break;
    }
    IndexEvent(*event, {chunk.serial, at});
    at += LengthOf(data);
  }
  chunk.indexed = chunk.size;
}

void FanotifyStream::IndexEvent(const KernelEvent& event, Position position) {
  const bool moved = event.old_folder != nullptr;
  const fanotify_event_info_fid* where = moved ? event.old_folder : event.folder;
  if (!event.is_dir() || event.target == nullptr || where == nullptr) {
    return;
  }
  const std::optional<Handle> target = HandleOf(*event.target);
  const std::optional<Handle> parent = HandleOf(*where);
  if (target && parent) {
    later_[*target].push_back({position, {*parent, std::string(moved ? event.old_name : event.name)}});
  }
}

std::optional<FolderPlace> FanotifyStream::PlaceByLaterEvent(const Handle& folder) {
  const auto found = later_.find(folder);
  if (found == later_.end()) {
    return std::nullopt;
  }
  const Mention* first = nullptr;
  for (const Mention& mention : found->second) {
    if (mention.position > in_work_ && (first == nullptr || mention.position < first->position)) {
      first = &mention;
    }
  }
  return first != nullptr ? std::optional<FolderPlace>(first->place) : std::nullopt;
}

}  // namespace nimotifyd
