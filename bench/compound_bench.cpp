// Memory of renaming a folder of a million documents: one request with a command for each of them.
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "bench/child_peak.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/json.h"
#include "tests/support/private_mounts.h"

namespace orbisk::bench {
namespace {

constexpr size_t kDocuments = 1'000'000;
constexpr size_t kPerFolder = 1'000;
constexpr char kSocket[] = "/run/nimoelasticd.sock";
constexpr char kOld[] = "/volume1/photo/2025/summer";
constexpr char kNew[] = "/volume1/photo/2026/summer holidays";

std::string ParentOf(const char* top, size_t number) {
  return top + std::string("/folder ") + std::to_string(number / kPerFolder);
}

std::string NameOf(size_t number) {
  return "IMG_2025_" + std::to_string(10'000'000 + number) + ".jpeg";
}

std::string Hit(size_t number) {
  const std::string parent = ParentOf(kOld, number);
  return R"({"NIMOMDFSName":")" + NameOf(number) + R"(","NIMOMDParent":")" + parent + R"(","NIMOMDPath":")" + parent +
         "/" + NameOf(number) + "\"}";
}

std::string Done(size_t /*number*/) {
  return R"({"success":true})";
}

void Require(bool done, const char* what) {
  if (!done) {
    perror(what);
    exit(2);
  }
}

// One connection of a daemon that knows a folder of many documents. Nothing of a message is kept but its beginning.
class Exchange {
 public:
  explicit Exchange(int fd) : fd_(fd) {}
  ~Exchange() { close(fd_); }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  // The beginning of the request; its whole size is `bytes`.
  std::string Receive(uint64_t& bytes) {
    std::string buffer(size_t{1} << 20, '\0');
    Require(recv(fd_, &bytes, sizeof(bytes), MSG_WAITALL) == sizeof(bytes), "recv");
    std::string beginning;
    for (uint64_t got = 0; got < bytes;) {
      const ssize_t count = recv(fd_, buffer.data(), std::min<uint64_t>(buffer.size(), bytes - got), 0);
      Require(count > 0, "recv");
      if (got == 0) {
        beginning = buffer.substr(0, static_cast<size_t>(count));
      }
      got += static_cast<uint64_t>(count);
    }
    return beginning;
  }

  // A response with an element of `make` for each document.
  void SendList(std::string (*make)(size_t)) {
    const std::string head = R"({"data":[)";
    const std::string tail = R"(],"success":true})";
    uint64_t bytes = head.size() + tail.size() + kDocuments - 1;
    for (size_t i = 0; i < kDocuments; ++i) {
      bytes += make(i).size();
    }
    std::string piece(reinterpret_cast<const char*>(&bytes), sizeof(bytes));
    piece += head;
    for (size_t i = 0; i < kDocuments; ++i) {
      piece += (i == 0 ? "" : ",") + make(i);
      if (piece.size() > (size_t{1} << 20)) {
        Send(piece);
        piece.clear();
      }
    }
    Send(piece + tail);
  }

  void SendMessage(const std::string& message) {
    const uint64_t bytes = message.size();
    Send(std::string(reinterpret_cast<const char*>(&bytes), sizeof(bytes)) + message);
  }

 private:
  void Send(const std::string& piece) {
    for (size_t sent = 0; sent < piece.size();) {
      const ssize_t count = send(fd_, piece.data() + sent, piece.size() - sent, MSG_NOSIGNAL);
      Require(count > 0, "send");
      sent += static_cast<size_t>(count);
    }
  }

  int fd_;
};

// What the daemon's process tells this one.
struct Seen {
  uint64_t compound_bytes;
};

[[noreturn]] void Serve(int listener, Seen& seen) {
  while (true) {
    Exchange exchange(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    uint64_t bytes = 0;
    const std::string request = exchange.Receive(bytes);
    if (request.rfind(R"({"compound")", 0) == 0) {
      seen.compound_bytes = bytes;
      exchange.SendList(Done);
    } else if (request.find("load_field") != std::string::npos) {
      exchange.SendList(Hit);
    } else {
      exchange.SendMessage(R"({"data":[{}],"success":true})");
    }
  }
}

// Starts the daemon; it ends with this program.
pid_t StartDaemon(Seen& seen) {
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, kSocket, sizeof(kSocket));
  Require(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "bind");
  Require(listen(listener, 8) == 0, "listen");
  const pid_t daemon = fork();
  if (daemon == 0) {
    Serve(listener, seen);
  }
  close(listener);
  return daemon;
}

// The request as a value, and nothing else.
void BuildRequest() {
  Json::Value request;
  request["compound"] = Json::Value(Json::arrayValue);
  for (size_t i = 0; i < kDocuments; ++i) {
    const std::string parent = ParentOf(kNew, i);
    Json::Value command;
    command["command"] = "document_set_by_id";
    Json::Value& data = command["data"];
    data["id"] = "fileindex_photo";
    data["doc_id"] = ParentOf(kOld, i) + "/" + NameOf(i);
    data["data"]["NIMOMDParent"] = parent;
    data["data"]["NIMOMDPath"] = parent + "/" + NameOf(i);
    data["data"]["NIMOMDSearchAncestor"] = parent;
    request["compound"].append(std::move(command));
  }
}

void Rename() {
  fileindex::elastic::IndexRename("photo", kNew, kOld);
  timespec work{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &work);
  printf("renaming a folder of %zu documents: %.1f s of the library's work\n", kDocuments,
         static_cast<double>(work.tv_sec) + static_cast<double>(work.tv_nsec) * 1e-9);
  fflush(stdout);
}

int Run() {
  test::EnterPrivateMounts({"/run"});
  void* const shared = mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Require(shared != MAP_FAILED, "mmap");
  Seen& seen = *static_cast<Seen*>(shared);
  const pid_t daemon = StartDaemon(seen);

  const size_t nothing = PeakOf([] {});
  const size_t value = PeakOf(BuildRequest) - nothing;
  const size_t peak = PeakOf(Rename) - nothing;
  kill(daemon, SIGKILL);

  constexpr double kBound = 1.05;
  const double text = static_cast<double>(seen.compound_bytes);
  const double ratio = static_cast<double>(peak) / (static_cast<double>(value) + text);
  printf("text %.0f bytes, value %.2f times that, peak of the rename %.2f times that\n", text,
         static_cast<double>(value) / text, static_cast<double>(peak) / text);
  printf("peak memory of the rename over one value and its text: %.3f (at most %.2f) %s\n", ratio, kBound,
         ratio <= kBound ? "ok" : "OVER");
  return ratio <= kBound ? 0 : 1;
}

}  // namespace
}  // namespace orbisk::bench

int main() {
  return orbisk::bench::Run();
}
