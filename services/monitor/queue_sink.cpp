// Pending lines of a queue: bounded memory, retries with growing pauses, and the queue-crashed line as last resort.
#include "services/monitor/queue_sink.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "services/base/log.h"

namespace nimotifyd {

using service::Record;

namespace {

// The lock is held while this much is written; the reader takes the same lock with a limited number of tries.
constexpr size_t kSliceBytes = size_t{4} << 20;

constexpr std::chrono::milliseconds kFirstBusyPause{1};
constexpr std::chrono::milliseconds kLongestBusyPause{250};
constexpr std::chrono::milliseconds kFirstFailurePause{50};
constexpr std::chrono::milliseconds kLongestFailurePause{5000};

std::chrono::milliseconds Pause(std::chrono::milliseconds first, std::chrono::milliseconds longest, int failures) {
  const int doublings = std::min(failures, 16);
  return std::min(longest, first * (1 << doublings));
}

// The first part of `lines` that ends with a line and is not longer than a slice, or one longer line.
std::string_view NextSlice(std::string_view lines) {
  if (lines.size() <= kSliceBytes) {
    return lines;
  }
  size_t end = lines.rfind('\n', kSliceBytes - 1);
  if (end == std::string_view::npos) {
    end = lines.find('\n');
  }
  return lines.substr(0, end + 1);
}

std::string FullPath(const Place& place) {
  std::string path(place.escaped_folder);
  if (!place.name.empty()) {
    path += '/';
    AppendEscaped(path, place.name);
  }
  return path;
}

}  // namespace

void PathFilter::Add(std::string_view path) {
  const size_t hash = std::hash<std::string_view>()(path);
  bits_[hash % kBits / 64] |= uint64_t{1} << (hash % 64);
  const size_t second = hash >> 32;
  bits_[second % kBits / 64] |= uint64_t{1} << (second % 64);
  empty_ = false;
}

bool PathFilter::MayHold(std::string_view path) const {
  if (empty_) {
    return false;
  }
  const size_t hash = std::hash<std::string_view>()(path);
  const size_t second = hash >> 32;
  return (bits_[hash % kBits / 64] >> (hash % 64) & 1) != 0 && (bits_[second % kBits / 64] >> (second % 64) & 1) != 0;
}

void PathFilter::Merge(const PathFilter& other) {
  if (!other.empty_) {
    for (size_t i = 0; i < bits_.size(); ++i) {
      bits_[i] |= other.bits_[i];
    }
    empty_ = false;
  }
}

void PathFilter::Clear() {
  if (!empty_) {
    bits_.fill(0);
    empty_ = true;
  }
}

QueueSink::QueueSink(std::string path, size_t limit_bytes) : path_(std::move(path)), limit_bytes_(limit_bytes) {}

void QueueSink::SetFirstFolder(std::string folder, bool wants_crashed) {
  escaped_first_folder_.clear();
  AppendEscaped(escaped_first_folder_, folder == "/" ? "" : folder);
  wants_crashed_ = wants_crashed;
}

void QueueSink::SetPresent(bool present) {
  if (present && !present_) {
    retry_time_.reset();
  }
  present_ = present;
}

bool QueueSink::Room() {
  if (crash_pending_) {
    return false;
  }
  if (pending_bytes() < limit_bytes_) {
    return true;
  }
  if (!dropping_ || wants_crashed_) {  // said once: the reader without crashed lines loses event after event
    dropping_ = true;
    Record(LOG_ERR, "queue_dropped").Add("queue", path_).Add("bytes", static_cast<long long>(pending_bytes()));
    Crash("memory_limit");
  }
  return false;
}

void QueueSink::Add(uint32_t event, bool is_dir, const Place& place) {
  if (!Room()) {
    return;
  }
  if (event == kDelete && !is_dir) {
    deleted_pending_.Add(FullPath(place));
  }
  if (event == kCreate && is_dir && !(deleted_in_file_.empty() && deleted_pending_.empty())) {
    // The fold drops the re-index of a folder while a delete of a file of the same path is pending; a create of the
    // file takes that delete back first.
    const std::string path = FullPath(place);
    if (deleted_in_file_.MayHold(path) || deleted_pending_.MayHold(path)) {
      AppendLine(lines_, kCreate, false, place);
      ++line_count_;
    }
  }
  AppendLine(lines_, event, is_dir, place);
  ++line_count_;
}

void QueueSink::AddRename(bool is_dir, const Place& from, const Place& to) {
  if (Room()) {
    AppendRenameLine(lines_, is_dir, from, to);
    ++line_count_;
  }
}

void QueueSink::Crash(std::string_view reason) {
  if (!wants_crashed_) {
    Record(LOG_WARNING, "events_lost").Add("queue", path_).Add("reason", reason);
    return;
  }
  if (!crash_pending_) {
    Record(LOG_WARNING, "queue_crashed").Add("queue", path_).Add("reason", reason);
  }
  ClearLines();
  crash_pending_ = true;
}

std::string QueueSink::CrashedLine() const {
  std::string line;
  AppendLine(line, kQueueCrashed, true, {escaped_first_folder_, {}});
  return line;
}

void QueueSink::ClearLines() {
  lines_.clear();
  written_ = 0;
  line_count_ = 0;
  deleted_pending_.Clear();
  if (lines_.capacity() > kSliceBytes) {
    lines_.shrink_to_fit();
  }
}

void QueueSink::Flush(Clock::time_point now) {
  if (!retry_time_ || *retry_time_ <= now) {
    FlushNow(now);
  }
}

void QueueSink::FlushNow(Clock::time_point now) {
  while (pending()) {
    const std::string crashed = crash_pending_ ? CrashedLine() : std::string();
    const std::string_view text =
        crash_pending_ ? std::string_view(crashed) : NextSlice(std::string_view(lines_).substr(written_));
    const AppendResult result =
        AppendToQueueFile(path_, text, present_, crash_pending_ ? crash_mark_ : std::optional<QueueFileMark>());
    if (result.outcome != AppendOutcome::kWritten && result.outcome != AppendOutcome::kUnchanged) {
      Failed(result, now);
      return;
    }
    if (!crash_pending_) {
      written_ += text.size();
      line_count_ -= static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    }
    Succeeded(result);
  }
}

void QueueSink::Succeeded(const AppendResult& result) {
  if (failures_ > 0) {
    Record(LOG_INFO, "queue_writable").Add("queue", path_).Add("failures", failures_);
  }
  failures_ = 0;
  dropping_ = false;
  retry_time_.reset();
  if (result.fresh) {
    deleted_in_file_.Clear();
  }
  deleted_in_file_.Merge(deleted_pending_);
  if (crash_pending_) {
    crash_pending_ = false;
    crash_mark_ = result.mark;
  } else {
    crash_mark_.reset();  // the crashed line is not the last one any more
  }
  if (written_ == lines_.size()) {
    ClearLines();
  } else if (written_ >= kSliceBytes) {
    lines_.erase(0, written_);
    written_ = 0;
  }
}

void QueueSink::Failed(const AppendResult& result, Clock::time_point now) {
  if (failures_ == 0) {
    const int priority = result.outcome == AppendOutcome::kBusy ? LOG_DEBUG : LOG_WARNING;
    Record(priority, "queue_blocked").Add("queue", path_).AddErrno("reason", result.error);
  }
  switch (result.outcome) {
    case AppendOutcome::kBusy:
      retry_time_ = now + Pause(kFirstBusyPause, kLongestBusyPause, failures_);
      break;
    case AppendOutcome::kNoFolder:
      retry_time_ = Clock::time_point::max();  // SetPresent ends the wait
      break;
    default:
      retry_time_ = now + Pause(kFirstFailurePause, kLongestFailurePause, failures_);
  }
  ++failures_;
}

}  // namespace nimotifyd
