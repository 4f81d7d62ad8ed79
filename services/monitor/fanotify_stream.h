// The kernel's fanotify events in order, with a look ahead.
#pragma once

#include <sys/fanotify.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "services/monitor/handle.h"

namespace nimotifyd {

/// One event. Pointers and names live until the next call of FanotifyStream::Next.
struct KernelEvent {
  uint64_t mask = 0;
  int32_t pid = 0;
  const fanotify_event_info_fid* folder = nullptr;      ///< where the object is; of a rename, where it went
  const fanotify_event_info_fid* old_folder = nullptr;  ///< of a rename: where it was
  const fanotify_event_info_fid* target = nullptr;      ///< the object itself
  std::string_view name;                                ///< "." for the folder itself
  std::string_view old_name;

  bool is_dir() const { return (mask & FAN_ONDIR) != 0; }
};

/// Reads one event that starts at `data`; `size` bytes are there. Nothing if it is malformed.
std::optional<KernelEvent> ParseKernelEvent(const char* data, size_t size);

/// Where a folder is: its parent and its name in it.
struct FolderPlace {
  Handle parent;
  std::string name;
};

/// Reads a fanotify group. Events are handed out in the kernel's order; when the place of a folder must be looked up
/// on disk, everything queued meanwhile is read first, so that what the disk says now can be told from what was so at
/// the time of the event in work.
///
/// Threads: one.
class FanotifyStream {
 public:
  /// Reads `fd` (not owned, non-blocking); holds at most about `ahead_bytes` of events not handed out yet.
  FanotifyStream(int fd, size_t ahead_bytes);

  /// The next event, read from the kernel if none is held; nothing when the kernel's queue is empty.
  std::optional<KernelEvent> Next();

  /// Reads until the kernel's queue is empty or the bound is reached. The event in work stays valid.
  void ReadAhead();

  /// Where `folder` was before the first event after the one in work that names it as its object; nothing if no event
  /// read ahead does.
  std::optional<FolderPlace> PlaceByLaterEvent(const Handle& folder);

  /// Whether nothing is held. The kernel may hold more.
  bool drained() const {
    return chunks_.empty() || (chunks_.size() == 1 && chunks_.front().at == chunks_.front().size);
  }

 private:
  struct Chunk {
    uint64_t serial = 0;
    std::unique_ptr<char[]> data;
    size_t size = 0;
    size_t at = 0;       // the next event to hand out
    size_t indexed = 0;  // events before this are in later_
  };
  // Where an event lies in the order: the serial number of its chunk, then its offset.
  using Position = std::pair<uint64_t, size_t>;
  struct Mention {
    Position position;
    FolderPlace place;
  };

  bool ReadChunk();
  void IndexChunk(Chunk& chunk);
  void IndexEvent(const KernelEvent& event, Position position);

  int fd_;
  size_t ahead_bytes_;
  std::deque<Chunk> chunks_;
  std::unique_ptr<char[]> spare_;
  uint64_t next_serial_ = 0;
  Position in_work_{};
  std::unordered_map<Handle, std::vector<Mention>, HandleHash> later_;
};

}  // namespace nimotifyd
