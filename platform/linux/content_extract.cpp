// Content from the extractor daemon of this tree.
#include "nimo/content_extract.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "platform/linux/content_extract.h"
#include "platform/linux/unique_fd.h"

namespace nimo {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kSocket[] = "/var/run/nimocontentextractd.sock";
// Well above the daemon's own bound on one file, because requests of others may have to be answered first.
constexpr std::chrono::seconds kLimit{300};
constexpr uint64_t kLongestMessage = uint64_t{1} << 30;
constexpr size_t kPieceBytes = size_t{1} << 20;

[[noreturn]] void Fail(const std::string& reason) {
  throw std::runtime_error("content extractor: " + reason);
}

[[noreturn]] void FailErrno(const char* what) {
  const int error = errno;
  Fail(std::string(what) + ": " + strerror(error));
}

// A connection on which nothing is waited for beyond a moment.
class Conversation {
 public:
  Conversation(const std::string& socket_path, std::chrono::milliseconds limit)
      : end_(Clock::now() + limit), fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!fd_.ok() || socket_path.size() >= sizeof(address.sun_path)) {
      Fail("no socket can be made");
    }
    memcpy(address.sun_path, socket_path.c_str(), socket_path.size() + 1);
    // Connecting waits for room in the daemon's backlog as long as sending may wait.
    const timeval wait{limit.count() / 1000, limit.count() % 1000 * 1000};
    setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof(wait));
    while (connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      if (errno != EINTR) {
        FailErrno("it does not answer");
      }
    }
  }

  void Send(std::string_view bytes) {
    while (!bytes.empty()) {
      Wait(POLLOUT);
      const ssize_t sent = send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && !IsPassing(errno)) {
        FailErrno("it hung up");
      }
      bytes.remove_prefix(static_cast<size_t>(std::max<ssize_t>(sent, 0)));
    }
  }

  void Receive(char* bytes, size_t size) {
    while (size > 0) {
      Wait(POLLIN);
      const ssize_t got = recv(fd_.get(), bytes, size, MSG_DONTWAIT);
      if (got == 0 || (got < 0 && !IsPassing(errno))) {
        Fail("it hung up");
      }
      bytes += std::max<ssize_t>(got, 0);
      size -= static_cast<size_t>(std::max<ssize_t>(got, 0));
    }
  }

 private:
  static bool IsPassing(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

  void Wait(short events) {
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
      if (left <= 0) {
        Fail("it takes too long");
      }
      pollfd wanted{fd_.get(), events, 0};
      const int ready = poll(&wanted, 1, static_cast<int>(std::min<long long>(left, 1'000'000)));
      if (ready > 0) {
        return;
      }
      if (ready < 0 && errno != EINTR) {
        FailErrno("waiting");
      }
    }
  }

  Clock::time_point end_;
  UniqueFd fd_;
};

std::unique_ptr<Json::StreamWriter> MakeWriter() {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;  // paths are bytes
  return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
}

std::string RequestText(const std::string& path, const Json::Value& options) {
  Json::Value request(Json::objectValue);
  request["path"] = path;
  for (const char* name : {"need_meta", "pseudo_path"}) {
    if (options.isObject() && options.isMember(name)) {
      request[name] = options[name];
    }
  }
  // The thread's own, as the reader is: making one takes longer than writing a request with it.
  static thread_local const std::unique_ptr<Json::StreamWriter> writer = MakeWriter();
  std::ostringstream text;
  writer->write(request, &text);
  return std::move(text).str();
}

std::string Exchange(Conversation& conversation, const std::string& request) {
  const uint64_t request_length = request.size();
  std::string message(reinterpret_cast<const char*>(&request_length), sizeof(request_length));
  conversation.Send(message + request);
  uint64_t length = 0;
  conversation.Receive(reinterpret_cast<char*>(&length), sizeof(length));
  if (length > kLongestMessage) {
    Fail("its answer is too long");
  }
  // Memory follows what has come, not what is announced.
  std::string answer;
  while (answer.size() < length) {
    const size_t before = answer.size();
    answer.resize(before + std::min<size_t>(kPieceBytes, length - before));
    conversation.Receive(answer.data() + before, answer.size() - before);
  }
  return answer;
}

Json::Value Understand(const std::string& text) {
  static thread_local const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value answer;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &answer, nullptr) && answer.isObject()) {
      return answer;
    }
  } catch (const Json::Exception&) {
    // What is nested too deeply is no answer either.
  }
  Fail("its answer is garbled");
}

}  // namespace

void AskExtractor(const std::string& socket_path, std::chrono::milliseconds limit, const std::string& path,
                  const Json::Value& options, Json::Value& document) {
  Conversation conversation(socket_path, limit);
  Json::Value answer = Understand(Exchange(conversation, RequestText(path, options)));
  if (!answer["success"].isBool() || !answer["success"].asBool()) {
    const Json::Value& error = answer["error"];
    const bool has_reason = error.isObject() && error["msg"].isString();
    Fail(has_reason ? error["msg"].asString() : "it failed without a reason");
  }
  if (!answer["data"].isObject()) {
    Fail("its answer has no document");
  }
  document.swap(answer["data"]);
}

}  // namespace nimo

void NIMO_CONTENT_EXTRACT_ParseFile(const std::string& path, const Json::Value& options, Json::Value& document) {
  nimo::AskExtractor(nimo::kSocket, nimo::kLimit, path, options, document);
}
