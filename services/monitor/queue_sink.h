// The lines on their way to one queue file.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "services/monitor/line.h"
#include "services/monitor/options.h"
#include "services/monitor/queue_file.h"

namespace nimotifyd {

/// Names that may be in a set, in fixed memory: "maybe" or "certainly not".
class PathFilter {
 public:
  void Add(std::string_view path);
  bool MayHold(std::string_view path) const;
  void Merge(const PathFilter& other);
  void Clear();
  bool empty() const { return empty_; }

 private:
  static constexpr size_t kBits = size_t{1} << 16;
  std::array<uint64_t, kBits / 64> bits_{};
  bool empty_ = true;
};

/// Keeps lines in memory until they are in the queue file. Bounded: past the limit the lines are dropped and one
/// queue-crashed line takes their place, because to its reader a crashed line stands for everything before it.
///
/// Threads: one.
class QueueSink {
 public:
  /// `limit_bytes`: memory for lines that cannot be written yet.
  QueueSink(std::string path, size_t limit_bytes);

  const std::string& path() const { return path_; }

  /// The folder that a queue-crashed line names, and whether the queue's reader asked for that event at all.
  void SetFirstFolder(std::string folder, bool wants_crashed);
  /// Whether a registered folder of the queue is there. Without one the queue's own folder is not made either: its
  /// volume may be away, and a folder made meanwhile would lie hidden under the mount.
  void SetPresent(bool present);

  /// Takes an event that is no rename. Ignored while a queue-crashed line waits, which covers it.
  void Add(uint32_t event, bool is_dir, const Place& place);
  void AddRename(bool is_dir, const Place& from, const Place& to);

  /// Events were lost: the next thing written is one queue-crashed line. It is left out if such a line is already the
  /// last of the file, so that a storm of losses costs its reader one rescan.
  void Crash(std::string_view reason);

  /// Tries to write what is pending, unless an earlier failure asks to wait longer than `now`.
  void Flush(Clock::time_point now);

  /// As Flush, without waiting out an earlier failure.
  void FlushNow(Clock::time_point now);

  bool pending() const { return !lines_.empty() || crash_pending_; }
  size_t pending_bytes() const { return lines_.size() - written_; }
  /// Lines that are not in the queue file yet; a queue-crashed line that waits is one.
  size_t pending_lines() const { return crash_pending_ ? 1 : line_count_; }

  /// When to call Flush again for lines that could not be written.
  std::optional<Clock::time_point> retry_time() const { return retry_time_; }

 private:
  bool Room();
  void Succeeded(const AppendResult& result);
  void Failed(const AppendResult& result, Clock::time_point now);
  std::string CrashedLine() const;
  void ClearLines();

  std::string path_;
  size_t limit_bytes_;
  std::string escaped_first_folder_;
  bool wants_crashed_ = false;
  bool present_ = true;

  std::string lines_;  // pending lines; the first written_ bytes are in the file already
  size_t written_ = 0;
  size_t line_count_ = 0;  // of those not written
  bool dropping_ = false;  // past the limit, and said so
  bool crash_pending_ = false;
  std::optional<QueueFileMark> crash_mark_;  // the file as a crashed line left it

  // Files deleted since the reader last took the queue: of the lines in the file, and of those pending.
  PathFilter deleted_in_file_;
  PathFilter deleted_pending_;

  int failures_ = 0;
  std::optional<Clock::time_point> retry_time_;
};

}  // namespace nimotifyd
