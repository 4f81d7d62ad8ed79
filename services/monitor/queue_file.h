// Appending to a queue file that other processes also append to, and that its consumer moves aside.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace nimotifyd {

/// What a queue file looked like after an append: as long as it looks so, nobody has touched it since.
struct QueueFileMark {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  bool operator==(const QueueFileMark&) const = default;
};

enum class AppendOutcome {
  kWritten,    ///< all of the text is in the file
  kUnchanged,  ///< nothing written: the file still looks as the caller said
  kBusy,       ///< another process holds the lock, or moves files faster than we look; worth another try soon
  kNoFolder,   ///< the queue's folder does not exist and was not to be made
  kFailed,     ///< disk full, read-only, not permitted ...; nothing of the text is in the file
};

struct AppendResult {
  AppendOutcome outcome = AppendOutcome::kFailed;
  int error = 0;         ///< errno of kFailed
  bool fresh = false;    ///< the file was empty before: its consumer has taken what was written earlier
  QueueFileMark mark{};  ///< of the file after kWritten or kUnchanged
};

/// Appends whole lines with one write under the exclusive lock of the file at `path`, creating it (mode 0644) if it is
/// missing. After locking, the file is compared with the one at `path`, and opened again if the queue was moved aside
/// meanwhile. A partial write (disk full) is taken back before the lock is released, so readers never see it stay.
///
/// Never waits for the lock. With `make_folders` missing parent folders are made (mode 0755). With `unless`, nothing is
/// written if the file still looks like that.
AppendResult AppendToQueueFile(const std::string& path, std::string_view lines, bool make_folders,
                               const std::optional<QueueFileMark>& unless);

}  // namespace nimotifyd
