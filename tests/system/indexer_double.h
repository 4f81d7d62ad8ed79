// The indexing daemon as its clients see it.
#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orbisk::test {

/// Listens at the indexing daemon's socket from construction to destruction, and answers every command with {}.
class IndexerDouble {
 public:
  /// Throws std::system_error.
  IndexerDouble();
  ~IndexerDouble();
  IndexerDouble(const IndexerDouble&) = delete;
  IndexerDouble& operator=(const IndexerDouble&) = delete;

  /// What came so far, each command as it was sent, the NUL byte at its end included.
  std::vector<std::string> commands() const;

 private:
  void Run();

  int listener_;
  mutable std::mutex mutex_;  // guards commands_
  std::vector<std::string> commands_;
  std::thread thread_;
};

}  // namespace orbisk::test
