// The indexing daemon as its clients see it.
#pragma once

#include <atomic>
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
  /// From now on a client may hang up or send nothing: for tests in which its calls fail.
  void ForgiveClients();
  /// Waits until every client that has come is served: one whose call failed goes on before that.
  void Settle() const;
  /// What came so far, each command without the NUL byte at its end. What is no command, because it is cut, too long or
  /// has no such byte, is in brackets, and so is that nobody took an answer, unless clients are forgiven.
  std::vector<std::string> commands() const;

 private:
  void Run();
  void Serve(int connection);
  void Record(const std::string& text);
  void Complain(const std::string& text);

  int listener_;
  mutable std::mutex mutex_;  // guards the two
  std::vector<std::string> commands_;
  std::function<void()> action_;
  std::atomic<bool> forgives_{false};
  std::atomic<bool> serves_{false};
  std::thread thread_;
};

}  // namespace orbisk::test
