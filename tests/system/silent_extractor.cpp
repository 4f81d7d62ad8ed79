// Its end of the connections.
#include "tests/system/silent_extractor.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "tests/support/local_socket.h"

namespace orbisk::test {
namespace {

// False for a question about the status, and for one that was not asked to its end.
bool GivesAFile(int request) {
  std::uint64_t bytes = 0;
  if (recv(request, &bytes, sizeof(bytes), MSG_WAITALL) != static_cast<ssize_t>(sizeof(bytes))) {
    return false;
  }
  std::string text(std::min<std::uint64_t>(bytes, 4096), '\0');
  return recv(request, text.data(), text.size(), MSG_WAITALL) == static_cast<ssize_t>(text.size()) &&
         text.rfind("{\"status\":true", 0) != 0;
}

}  // namespace

SilentExtractor::SilentExtractor() : listener_(ListenAt("/var/run/nimocontentextractd.sock")) {}

SilentExtractor::~SilentExtractor() {
  for (const int request : requests_) {
    close(request);
  }
  close(listener_);
}

bool SilentExtractor::OneMoreComes(std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    pollfd asked{listener_, POLLIN, 0};
    if (left <= 0 || poll(&asked, 1, static_cast<int>(left)) != 1) {
      return false;
    }
    const int request = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (GivesAFile(request)) {
      requests_.push_back(request);
      return true;
    }
    close(request);
  }
}

}  // namespace orbisk::test
