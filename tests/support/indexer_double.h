// The indexing daemon as its clients see it.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orbisk::test {

/// Listens at the indexing daemon's socket from construction to destruction, and answers every command, one after the
/// other, with {}.
class IndexerDouble {
 public:
  /// Throws std::system_error.
  IndexerDouble();
  ~IndexerDouble();
  IndexerDouble(const IndexerDouble&) = delete;
  IndexerDouble& operator=(const IndexerDouble&) = delete;

  /// Called in the daemon's thread when a command was read, before it is answered: the sender waits meanwhile.
  void OnCommand(std::function<void()> action);
  /// What came so far, each command without the NUL byte at its end. What is no command, because it is cut, too long or
  /// has no such byte, is in brackets.
  std::vector<std::string> commands() const;

 private:
  void Run();

  int listener_;
  mutable std::mutex mutex_;  // guards the two
  std::vector<std::string> commands_;
  std::function<void()> action_;
  std::thread thread_;
};

}  // namespace orbisk::test
