// The indexing daemon as seen from its socket.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orbisk::fileindex::test {

/// Listens at the daemon's socket and answers every command, one after the other, until its destruction.
class DaemonDouble {
 public:
  DaemonDouble();
  ~DaemonDouble();
  DaemonDouble(const DaemonDouble&) = delete;
  DaemonDouble& operator=(const DaemonDouble&) = delete;

  /// Called in the daemon's thread when a command was read, before it is answered: the sender waits meanwhile.
  void OnCommand(std::function<void()> action);
  /// From now on a client may hang up or send nothing: for tests in which its calls fail.
  void ForgiveClients();
  /// The texts of the commands so far, without the NUL byte at their end, which is required.
  std::vector<std::string> commands() const;

 private:
  void Run();
  void Serve(int connection);
  bool Read(int connection, std::string& text) const;

  int listener_;
  mutable std::mutex mutex_;  // guards the two
  std::vector<std::string> commands_;
  std::function<void()> action_;
  std::atomic<bool> forgives_{false};
  std::thread thread_;
};

}  // namespace orbisk::fileindex::test
