// The fake platform's connections to daemons: requests are kept, replies are scripted.
#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "nimo/daemon_connection.h"
#include "tests/support/fake_platform.h"

namespace orbisk::test {

/// One daemon behind every path. Without a script it answers {"success":true} to each message.
class FakeConnectionService final : public FakeService {
 public:
  FakeConnectionService();

  FakeFunction<bool(std::string, long)> connect;  ///< path, timeout
  FakeFunction<bool(std::string)> send;           ///< message
  FakeFunction<bool(std::string*)> receive;       ///< where the message goes

  /// The next message that is received and has no script yet.
  void Reply(const std::string& message);
  /// The messages that were sent.
  std::vector<std::string> requests() const;
  /// Connections made and not yet closed.
  int open() const;
  void NoteClosed();
  void Reset() override;

 private:
  bool Receive(std::string* message);

  mutable std::mutex mutex_;  // guards the rest
  std::deque<std::string> replies_;
  int open_ = 0;
};

FakeConnectionService& FakeConnections();

}  // namespace orbisk::test
