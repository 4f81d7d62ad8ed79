// Serves the monitor's socket.
#include "services/monitor/control_socket.h"

#include <boost/asio/read_until.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>
#include <istream>
#include <utility>

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

}  // namespace

ControlSocket::ControlSocket(asio::io_context& context, Monitor& monitor, std::string path)
    : monitor_(monitor), listener_(context, std::move(path), {[this](Protocol::socket client) {
                                     std::make_shared<Session>(std::move(client), monitor_)->Run();
                                     listener_.Accept();
                                   }}) {}

void ControlSocket::Open() {
  listener_.Open({});
  listener_.Accept();
}

}  // namespace nimotifyd
