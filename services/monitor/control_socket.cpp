// Serves the monitor's socket.
#include "services/monitor/control_socket.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/read_until.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>
#include <istream>
#include <utility>

#include "services/monitor/log.h"

namespace nimotifyd {
namespace {

namespace asio = boost::asio;
using Protocol = asio::local::stream_protocol;

constexpr size_t kLongestRequest = 256;
constexpr std::chrono::seconds kPatience{10};  // with a client that says nothing

class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(Protocol::socket socket, Monitor& monitor)
      : socket_(std::move(socket)), deadline_(socket_.get_executor()), request_(kLongestRequest), monitor_(monitor) {}

  void Run() {
    const auto self = shared_from_this();
    deadline_.expires_after(kPatience);
    deadline_.async_wait([self](const boost::system::error_code& error) {
      if (!error) {
        boost::system::error_code ignored;
        self->socket_.close(ignored);
      }
    });
    asio::async_read_until(socket_, request_, '\n', [self](const boost::system::error_code& error, size_t) {
      if (!error) {
        self->Answer();
      } else {
        self->deadline_.cancel();
      }
    });
  }

 private:
  void Answer() {
    std::istream stream(&request_);
    std::string request;
    std::getline(stream, request);
    if (request == "reload") {
      monitor_.Reload();
      answer_ = "ok\n";
    } else if (request == "status") {
      answer_ = monitor_.Status() + "\n";
    } else {
      answer_ = "unknown\n";
    }
    asio::async_write(
        socket_, asio::buffer(answer_),
        [self = shared_from_this()](const boost::system::error_code&, size_t) { self->deadline_.cancel(); });
  }

  Protocol::socket socket_;
  asio::steady_timer deadline_;
  asio::streambuf request_;
  std::string answer_;
  Monitor& monitor_;
};

bool SomebodyAnswers(asio::io_context& context, const std::string& path) {
  Protocol::socket probe(context);
  boost::system::error_code error;
  probe.connect(Protocol::endpoint(path), error);
  return !error;
}

}  // namespace

ControlSocket::ControlSocket(asio::io_context& context, Monitor& monitor, std::string path)
    : context_(context), monitor_(monitor), path_(std::move(path)), acceptor_(context) {}

ControlSocket::~ControlSocket() {
  if (bound_) {
    unlink(path_.c_str());
  }
}

bool ControlSocket::Open() {
  if (path_.size() >= sizeof(sockaddr_un::sun_path)) {
    Record(LOG_ERR, "socket_path_too_long").Add("socket", path_);
    return false;
  }
  if (SomebodyAnswers(context_, path_)) {
    Record(LOG_ERR, "already_running").Add("socket", path_);
    return false;
  }
  unlink(path_.c_str());
  boost::system::error_code error;
  acceptor_.open(Protocol(), error);
  const mode_t before = umask(0177);
  acceptor_.bind(Protocol::endpoint(path_), error);
  umask(before);
  if (!error) {
    bound_ = true;
    acceptor_.listen(Protocol::acceptor::max_listen_connections, error);
  }
  if (error) {
    Record(LOG_ERR, "socket_refused").Add("socket", path_).Add("reason", error.message());
    return false;
  }
  Accept();
  return true;
}

void ControlSocket::Accept() {
  acceptor_.async_accept([this](const boost::system::error_code& error, Protocol::socket socket) {
    if (error == asio::error::operation_aborted) {
      return;
    }
    if (!error) {
      std::make_shared<Session>(std::move(socket), monitor_)->Run();
    }
    Accept();
  });
}

}  // namespace nimotifyd
