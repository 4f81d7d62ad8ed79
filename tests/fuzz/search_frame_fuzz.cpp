// The bytes of one connection to the search daemon, in pieces of any size: a whole message is answered once, anything
// else never, and no memory stays taken.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "services/base/json_text.h"
#include "services/search/request.h"
#include "services/search/session.h"
#include "tests/support/temp_dir.h"

using nimoelasticd::Session;

namespace {

void Require(bool condition) {
  if (!condition) {
    abort();
  }
}

// With room for nobody: each request is read, and told to come back. What commands do is not looked at here, and they
// would do it to this machine.
struct Daemon {
  orbisk::test::TempDir dir;
  nimoelasticd::Catalog catalog{dir / "indexes.json", {}};
  nimoelasticd::Dispatcher dispatcher{catalog, {.writer_threads = 1, .reader_threads = 1, .max_waiting = 0}};
  nimoelasticd::MemoryGauge memory{1};
  boost::asio::io_context context{1};
};

std::string ReadAll(int descriptor) {
  std::string bytes;
  char buffer[4096];
  for (ssize_t got = 0; (got = read(descriptor, buffer, sizeof(buffer))) > 0;) {
    bytes.append(buffer, static_cast<size_t>(got));
  }
  return bytes;
}

// What the daemon sends to whoever sends `bytes` in pieces of `piece` bytes and then no more.
std::string AnswerTo(Daemon& daemon, const std::string& bytes, size_t piece) {
  int ends[2];
  Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
  std::vector<Session::Phase> phases;
  {
    Session::Socket socket(daemon.context, boost::asio::local::stream_protocol(), ends[0]);
    std::make_shared<Session>(std::move(socket), daemon.dispatcher, daemon.memory, std::chrono::minutes(1),
                              [&](Session&, Session::Phase phase) { phases.push_back(phase); })
        ->Start();
  }
  daemon.context.restart();
  for (size_t at = 0; at < bytes.size(); at += piece) {
    const size_t size = std::min(piece, bytes.size() - at);
    if (send(ends[1], bytes.data() + at, size, MSG_NOSIGNAL) < 0) {
      break;  // it has heard enough
    }
    daemon.context.poll();
  }
  shutdown(ends[1], SHUT_WR);
  daemon.context.restart();
  daemon.context.run();
  Require(!phases.empty() && phases.back() == Session::Phase::kEnded);
  Require(std::count(phases.begin(), phases.end(), Session::Phase::kEnded) == 1);
  Require(daemon.memory.used() == 0);
  std::string answer = ReadAll(ends[1]);
  close(ends[1]);
  return answer;
}

// The length that a frame begins with; nothing if it is not even that long.
std::optional<std::uint64_t> LengthOf(const std::string& frame) {
  std::uint64_t length = 0;
  if (frame.size() < sizeof(length)) {
    return std::nullopt;
  }
  memcpy(&length, frame.data(), sizeof(length));
  return length;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  static Daemon daemon;
  if (size == 0 || size > 60'000) {  // more than a socket takes at once is no business of the daemon's
    return 0;
  }
  const size_t piece = data[0] == 0 ? size : data[0];
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::optional<std::uint64_t> announced = LengthOf(bytes);
  const bool too_long = announced && *announced > nimoelasticd::kMaxMessageBytes;
  const bool whole = announced && *announced <= bytes.size() - sizeof(*announced);

  const std::string frame = AnswerTo(daemon, bytes, piece);

  if (!whole && !too_long) {
    Require(frame.empty());
    return 0;
  }
  const std::optional<std::uint64_t> length = LengthOf(frame);
  Require(length && *length == frame.size() - sizeof(*length));
  const std::optional<Json::Value> answer = service::FromText(frame.substr(sizeof(*length)));
  Require(answer && answer->isObject() && !(*answer)["success"].asBool());
  const int code = (*answer)["error"]["code"].asInt();
  Require(too_long ? code == 1201 : code == 1400 || (code >= 1201 && code <= 1203));
  return 0;
}
