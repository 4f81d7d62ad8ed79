// The file that says which process is the daemon, and keeps a second one out.
#pragma once

#include <string>

#include "services/base/unique_fd.h"

namespace service {

/// Holds the pid file locked from construction to destruction, and removes it then. The kernel drops the lock when its
/// holder dies, so a file that is left over keeps nobody out.
///
/// Threads: one object is used by one thread at a time.
class PidFile {
 public:
  /// Writes this process's number into the file at `path`. Throws std::runtime_error, which names the holder, when
  /// another process holds it, std::system_error when it cannot be written.
  explicit PidFile(std::string path);
  ~PidFile();
  PidFile(const PidFile&) = delete;
  PidFile& operator=(const PidFile&) = delete;

 private:
  bool Lock();
  void Write();

  std::string path_;
  UniqueFd file_;
};

}  // namespace service
