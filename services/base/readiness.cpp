// One datagram: not worth a library that every daemon would have to load.
#include "services/base/readiness.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "services/base/log.h"
#include "services/base/unique_fd.h"

namespace service {
namespace {

// False with errno.
bool Send(std::string_view message, std::string_view name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (name.size() >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    return false;
  }
  memcpy(address.sun_path, name.data(), name.size());
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  if (address.sun_path[0] == '@') {
    address.sun_path[0] = '\0';
  }
  const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return fd.valid() && sendto(fd.get(), message.data(), message.size(), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&address), length) >= 0;
}

}  // namespace

void TellReady() {
  const char* const name = getenv("NOTIFY_SOCKET");
  if (name != nullptr && *name != '\0' && !Send("READY=1", name)) {
    const int error = errno;
    Record(LOG_WARNING, "readiness_not_told").Add("socket", name).AddErrno("reason", error);
  }
}

}  // namespace service
