// Sends and receives messages and descriptors.
#include "services/extractor/frame.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace extractor {

using service::UniqueFd;

namespace {

// Room for one descriptor, aligned as the kernel wants it.
union Control {
  cmsghdr align;
  char bytes[CMSG_SPACE(sizeof(int))];
};

void Attach(msghdr& message, Control& control, int fd) {
  message.msg_control = control.bytes;
  message.msg_controllen = sizeof(control.bytes);
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  memcpy(CMSG_DATA(header), &fd, sizeof(int));
}

}  // namespace

std::string Framed(std::string_view message) {
  const FrameHeader header = HeaderFor(message.size());
  std::string framed;
  framed.reserve(header.size() + message.size());
  framed.append(header.data(), header.size());
  framed.append(message);
  return framed;
}

bool SendBytes(int fd, std::string_view bytes, int passed) {
  while (!bytes.empty()) {
    iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    Control control{};
    if (passed >= 0) {
      Attach(message, control, passed);
    }
    const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) {
      continue;
    }
    if (sent < 0) {
      return false;
    }
    passed = -1;
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

bool SendFrame(int fd, std::string_view first, std::string_view second) {
  FrameHeader header = HeaderFor(first.size() + second.size());
  iovec parts[] = {{header.data(), header.size()},
                   {const_cast<char*>(first.data()), first.size()},
                   {const_cast<char*>(second.data()), second.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = std::size(parts);
  ssize_t sent = 0;
  do {
    sent = sendmsg(fd, &message, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) {
    return false;
  }
  // What a signal left.
  auto done = static_cast<size_t>(sent);
  for (const iovec& part : parts) {
    const size_t skip = std::min(done, part.iov_len);
    done -= skip;
    if (!SendBytes(fd, {static_cast<const char*>(part.iov_base) + skip, part.iov_len - skip})) {
      return false;
    }
  }
  return true;
}

ssize_t ReceiveSome(int fd, char* bytes, size_t size, UniqueFd& passed) {
  iovec part{bytes, size};
  Control control{};
  msghdr message{};
  ssize_t got = 0;
  do {
    message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof(control.bytes);
    got = recvmsg(fd, &message, MSG_CMSG_CLOEXEC);
  } while (got < 0 && errno == EINTR);
  const cmsghdr* header = got > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
  if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
    int received = -1;
    memcpy(&received, CMSG_DATA(header), sizeof(int));
    passed = UniqueFd(received);
  }
  return got;
}

std::optional<ReceivedFrame> ReceiveFrame(int fd, size_t longest) {
  ReceivedFrame frame;
  FrameHeader header;
  for (size_t filled = 0; filled < header.size();) {
    const ssize_t got = ReceiveSome(fd, header.data() + filled, header.size() - filled, frame.passed);
    if (got <= 0) {
      return std::nullopt;
    }
    filled += static_cast<size_t>(got);
  }
  const std::optional<size_t> length = FrameLength(header, longest);
  if (!length) {
    return std::nullopt;
  }
  frame.message.resize(*length);
  for (size_t filled = 0; filled < *length;) {
    const ssize_t got = ReceiveSome(fd, frame.message.data() + filled, *length - filled, frame.passed);
    if (got <= 0) {
      return std::nullopt;
    }
    filled += static_cast<size_t>(got);
  }
  return frame;
}

}  // namespace extractor
