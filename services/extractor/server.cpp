// Serves connections.
#include "services/extractor/server.h"

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "services/extractor/frame.h"
#include "services/extractor/protocol.h"

namespace extractor {
namespace {

namespace asio = boost::asio;
using Protocol = asio::local::stream_protocol;

class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(Protocol::socket socket, Service& service, std::chrono::milliseconds patience, std::function<void()> on_end)
      : socket_(std::move(socket)),
        timer_(socket_.get_executor()),
        service_(service),
        patience_(patience),
        on_end_(std::move(on_end)) {}
  ~Session() { on_end_(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void ReadRequest() {
    BePatient();
    const auto self = shared_from_this();
    asio::async_read(socket_, asio::buffer(header_), [self](const boost::system::error_code& error, size_t) {
      if (error) {
        self->timer_.cancel();
        return;
      }
      self->ReadBody();
    });
  }

 private:
  void BePatient() {
    timer_.expires_after(patience_);
    timer_.async_wait([weak = weak_from_this()](const boost::system::error_code& error) {
      const std::shared_ptr<Session> self = weak.lock();
      if (!error && self != nullptr) {
        boost::system::error_code ignored;
        self->socket_.close(ignored);
      }
    });
  }

  void ReadBody() {
    const std::optional<size_t> length = FrameLength(header_, kLongestRequest);
    if (!length) {
      Write(ErrorAnswer(ErrorCode::kMalformed, "the request is too long"), false);
      return;
    }
    request_.resize(*length);
    const auto self = shared_from_this();
    asio::async_read(socket_, asio::buffer(request_), [self](const boost::system::error_code& error, size_t) {
      self->timer_.cancel();
      if (!error) {
        self->service_.Handle(self->request_, [self](std::string answer) { self->Write(std::move(answer), true); });
      }
    });
  }

  void Write(std::string answer, bool go_on) {
    answer_ = std::move(answer);
    answer_header_ = HeaderFor(answer_.size());
    BePatient();
    const std::array<asio::const_buffer, 2> parts = {asio::buffer(answer_header_), asio::buffer(answer_)};
    const auto self = shared_from_this();
    asio::async_write(socket_, parts, [self, go_on](const boost::system::error_code& error, size_t) {
      self->timer_.cancel();
      std::string().swap(self->answer_);
      if (!error && go_on) {
        self->ReadRequest();
      }
    });
  }

  Protocol::socket socket_;
  asio::steady_timer timer_;
  Service& service_;
  std::chrono::milliseconds patience_;
  std::function<void()> on_end_;
  FrameHeader header_{};
  std::string request_;
  FrameHeader answer_header_{};
  std::string answer_;
};

service::SocketAccess AccessFor(const std::string& group) {
  if (group.empty()) {
    return {};
  }
  const std::optional<gid_t> found = service::FindGroup(group);
  if (!found) {
    throw std::runtime_error("there is no group " + group);
  }
  return {0660, found};
}

}  // namespace

Server::Server(asio::io_context& context, const Options& options, Service& service)
    : context_(context),
      options_(options),
      service_(service),
      listener_(context, options.socket, {[this](Protocol::socket socket) { OnClient(std::move(socket)); }}) {}

void Server::Open() {
  listener_.Open(AccessFor(options_.socket_group));
  listener_.Accept();
}

void Server::OnClient(Protocol::socket socket) {
  ++connections_;
  const auto on_end = [this, alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired()) {
      --connections_;
      asio::post(context_, [this] { listener_.Accept(); });
    }
  };
  std::make_shared<Session>(std::move(socket), service_, options_.patience, on_end)->ReadRequest();
  if (connections_ < options_.connections) {
    listener_.Accept();
  }
}

}  // namespace extractor
