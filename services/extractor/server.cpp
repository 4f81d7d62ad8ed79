// Serves connections.
#include "services/extractor/server.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <cerrno>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
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

gid_t GroupCalled(const std::string& name) {
  const group* found = getgrnam(name.c_str());
  if (found == nullptr) {
    throw std::runtime_error("there is no group " + name);
  }
  return found->gr_gid;
}

}  // namespace

Server::Server(asio::io_context& context, const Options& options, Service& service)
    : context_(context), options_(options), service_(service), acceptor_(context) {}

Server::~Server() {
  if (bound_) {
    unlink(options_.socket.c_str());
  }
}

void Server::Open() {
  if (options_.socket.size() >= sizeof(sockaddr_un::sun_path)) {
    throw std::runtime_error("the path of the socket is too long");
  }
  unlink(options_.socket.c_str());
  acceptor_.open(Protocol());
  // Nobody else may connect in the moment before the group is set.
  const mode_t before = umask(0177);
  boost::system::error_code error;
  acceptor_.bind(Protocol::endpoint(options_.socket), error);
  umask(before);
  if (error) {
    throw boost::system::system_error(error);
  }
  bound_ = true;
  Restrict();
  acceptor_.listen(Protocol::acceptor::max_listen_connections);
  Accept();
}

void Server::Restrict() {
  if (options_.socket_group.empty()) {
    return;
  }
  if (chown(options_.socket.c_str(), static_cast<uid_t>(-1), GroupCalled(options_.socket_group)) != 0 ||
      chmod(options_.socket.c_str(), 0660) != 0) {
    throw std::system_error(errno, std::generic_category(), "the socket's group cannot be set");
  }
}

void Server::Accept() {
  if (accepting_ || connections_ >= options_.connections) {
    return;
  }
  accepting_ = true;
  acceptor_.async_accept([this](const boost::system::error_code& error, Protocol::socket socket) {
    accepting_ = false;
    if (error == asio::error::operation_aborted) {
      return;
    }
    if (!error) {
      ++connections_;
      const auto on_end = [this, alive = std::weak_ptr<bool>(alive_)] {
        if (!alive.expired()) {
          --connections_;
          asio::post(context_, [this] { Accept(); });
        }
      };
      std::make_shared<Session>(std::move(socket), service_, options_.patience, on_end)->ReadRequest();
    }
    Accept();
  });
}

}  // namespace extractor
