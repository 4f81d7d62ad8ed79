// One connection: a request in, an answer out.
#pragma once

#include <array>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "services/search/dispatcher.h"
#include "services/search/memory_gauge.h"

namespace nimoelasticd {

/// Reads a message (a length of 8 bytes in host byte order, then that many bytes), has it answered, writes the answer
/// in the same form, and closes.
///
/// A length over kMaxMessageBytes is refused before anything else is read. A message for which memory is short is read
/// and thrown away, and told 1401: a client that still sends would not hear the answer otherwise. A client that neither
/// sends nor takes kStepBytes within its patience is cut off.
///
/// Threads: the event loop's.
class Session : public std::enable_shared_from_this<Session> {
 public:
  using Socket = boost::asio::local::stream_protocol::socket;
  static constexpr std::size_t kStepBytes = std::size_t{256} * 1024;
  enum class Phase { kReading, kWorking, kWriting, kEnded };

  /// `on_change` is told of each new phase, kEnded the last. All that is referred to outlives the event loop.
  Session(Socket socket, Dispatcher& dispatcher, MemoryGauge& memory, std::chrono::milliseconds patience,
          std::function<void(Session&, Phase)> on_change);

  void Start();
  /// Closes the connection as it is. While it works on a request nothing happens before that has ended.
  void Cut();

 private:
  void ExpectProgress();
  void ReadStep();
  bool MakeSpace(std::size_t step);
  void Submit();
  void Answer(std::string text);
  void WriteStep(std::size_t written);
  void Become(Phase phase);
  void End();

  Socket socket_;
  boost::asio::steady_timer deadline_;
  Dispatcher& dispatcher_;
  MemoryGauge& memory_;
  const std::chrono::milliseconds patience_;
  const std::function<void(Session&, Phase)> on_change_;
  Phase phase_ = Phase::kReading;
  std::uint64_t length_ = 0;                             // of the message, then of the answer
  std::uint64_t received_ = 0;                           // of the message
  std::size_t held_bytes_ = 0;                           // in memory_
  std::unique_ptr<std::array<char, kStepBytes>> waste_;  // where it is thrown away
  bool refused_ = false;                                 // the message is thrown away
  std::string text_;                                     // the message, then the answer
};

}  // namespace nimoelasticd
