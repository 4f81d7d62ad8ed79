// Messages on stream sockets: an unsigned 64-bit length in host order, then that many bytes.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "services/base/unique_fd.h"

namespace extractor {

using FrameHeader = std::array<char, sizeof(uint64_t)>;

/// The length that `header` announces; nothing if it is more than `longest`.
inline std::optional<size_t> FrameLength(const FrameHeader& header, size_t longest) {
  uint64_t length = 0;
  memcpy(&length, header.data(), header.size());
  if (length > longest) {
    return std::nullopt;
  }
  return static_cast<size_t>(length);
}

/// What goes before a message of `length` bytes.
inline FrameHeader HeaderFor(size_t length) {
  const uint64_t wide = length;
  FrameHeader header;
  memcpy(header.data(), &wide, header.size());
  return header;
}

/// `message` with its header.
std::string Framed(std::string_view message);

/// Sends all of `bytes` over the socket `fd`, with the descriptor `passed` beside the first of them if it is not -1.
/// False, with errno, when the other end is gone or, on a socket that does not block, when it takes no more.
bool SendBytes(int fd, std::string_view bytes, int passed = -1);

/// Sends the message that `first` and `second` make together, without putting them together. As SendBytes.
bool SendFrame(int fd, std::string_view first, std::string_view second);

/// A message and the descriptor that came with it, if one did.
struct ReceivedFrame {
  std::string message;
  service::UniqueFd passed;
};

/// Waits for a whole message of at most `longest` bytes. Nothing when the other end is gone or announces more.
std::optional<ReceivedFrame> ReceiveFrame(int fd, size_t longest);

/// Waits for some bytes, at most `size`, and takes a descriptor that comes with them into `passed`. Returns how many,
/// 0 when the other end is gone, -1 with errno on failure.
ssize_t ReceiveSome(int fd, char* bytes, size_t size, service::UniqueFd& passed);

}  // namespace extractor
