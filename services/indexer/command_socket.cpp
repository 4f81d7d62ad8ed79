// Sessions.
#include "services/indexer/command_socket.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "services/base/json_text.h"
#include "services/base/log.h"

namespace fileindexd {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

constexpr std::uint64_t kLongestMessage = std::uint64_t{1} << 20;
constexpr int kMostClients = 128;

}  // namespace

// What is left of the socket when the event loop goes, and with it the sessions.
struct CommandSocket::Gate {
  CommandSocket* owner;
};

// Lives as long as something is going on.
class CommandSocket::Session : public std::enable_shared_from_this<Session> {
 public:
  Session(service::Listener::Socket socket, std::shared_ptr<Gate> gate)
      : socket_(std::move(socket)),
        limit_(gate->owner->patience_),
        patience_(socket_.get_executor()),
        gate_(std::move(gate)) {}
  ~Session() {
    if (gate_->owner != nullptr) {
      gate_->owner->OnEnd();
    }
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void ReadLength() {
    Expect();
    asio::async_read(socket_, asio::buffer(&length_, sizeof(length_)),
                     [self = shared_from_this()](const error_code& error, size_t) {
                       if (error) {
                         self->patience_.cancel();
                       } else if (self->length_ > kLongestMessage) {
                         self->Cut("the message is too long");
                       } else {
                         self->ReadBody();
                       }
                     });
  }

 private:
  void ReadBody() {
    text_.resize(length_);
    asio::async_read(socket_, asio::buffer(text_), [self = shared_from_this()](const error_code& error, size_t) {
      self->patience_.cancel();
      if (!error) {
        self->Work();
      }
    });
  }

  void Work() {
    if (!text_.empty() && text_.back() == '\0') {  // the library sends one
      text_.pop_back();
    }
    const std::optional<Json::Value> message = service::FromText(text_);
    if (!message || !message->isObject()) {
      Cut("the message is no JSON object");
      return;
    }
    gate_->owner->handle_(*message, [self = shared_from_this()](const Json::Value& answer) { self->Answer(answer); });
  }

  void Answer(const Json::Value& answer) {
    const std::string text = service::ToText(answer);
    const std::uint64_t length = text.size();
    text_.resize(sizeof(length));
    memcpy(text_.data(), &length, sizeof(length));
    text_ += text;
    Expect();
    asio::async_write(socket_, asio::buffer(text_), [self = shared_from_this()](const error_code& error, size_t) {
      self->patience_.cancel();
      if (!error) {
        self->ReadLength();
      }
    });
  }

  void Expect() {
    patience_.expires_after(limit_);
    patience_.async_wait([self = shared_from_this()](const error_code& error) {
      if (!error) {
        self->Close();
      }
    });
  }

  void Cut(const char* reason) {
    service::Record(LOG_WARNING, "connection_cut").Add("reason", reason);
    patience_.cancel();
    Close();
  }

  void Close() {
    error_code ignored;
    socket_.close(ignored);
  }

  service::Listener::Socket socket_;
  const std::chrono::milliseconds limit_;
  asio::steady_timer patience_;
  std::shared_ptr<Gate> gate_;
  std::uint64_t length_ = 0;
  std::string text_;
};

CommandSocket::CommandSocket(asio::io_context& context, std::string path, Handle handle,
                             std::chrono::milliseconds patience)
    : handle_(std::move(handle)),
      patience_(patience),
      gate_(std::make_shared<Gate>(Gate{this})),
      listener_(context, std::move(path), {[this](service::Listener::Socket socket) { Serve(std::move(socket)); }}) {}

CommandSocket::~CommandSocket() {
  gate_->owner = nullptr;
}

void CommandSocket::Open(const std::string& group) {
  const std::optional<gid_t> number = group.empty() ? std::nullopt : service::FindGroup(group);
  listener_.Open(number ? service::SocketAccess{0660, number} : service::SocketAccess{});
  listener_.Accept();
}

void CommandSocket::Close() {
  listener_.Close();
}

void CommandSocket::Serve(service::Listener::Socket socket) {
  ++clients_;
  std::make_shared<Session>(std::move(socket), gate_)->ReadLength();
  if (clients_ < kMostClients) {
    listener_.Accept();
  }
}

void CommandSocket::OnEnd() {
  if (clients_-- == kMostClients) {
    listener_.Accept();
  }
}

}  // namespace fileindexd
