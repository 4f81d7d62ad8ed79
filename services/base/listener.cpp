// Binds, restricts, accepts.
#include "services/base/listener.h"

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "services/base/log.h"

namespace service {
namespace {

using Protocol = boost::asio::local::stream_protocol;

constexpr std::chrono::milliseconds kPauseAfterFailure{100};

[[noreturn]] void Fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

// A daemon that is stopped, or too busy to take the connection, is there all the same: its backlog is full then.
bool SomebodyAnswers(Protocol::acceptor& acceptor, const std::string& path) {
  Protocol::socket probe(acceptor.get_executor());
  probe.open(Protocol());
  probe.non_blocking(true);
  const Protocol::endpoint endpoint(path);
  return connect(probe.native_handle(), endpoint.data(), static_cast<socklen_t>(endpoint.size())) == 0 ||
         errno == EAGAIN;
}

// Nothing but a socket: a wrong path costs no file.
void RemoveLeftOver(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode)) {
    unlink(path.c_str());
  }
}

}  // namespace

std::optional<gid_t> FindGroup(const std::string& name) {
  const group* const found = getgrnam(name.c_str());
  return found != nullptr ? std::optional(found->gr_gid) : std::nullopt;
}

Listener::Listener(boost::asio::io_context& context, std::string path, Handlers handlers)
    : path_(std::move(path)), handlers_(std::move(handlers)), acceptor_(context), pause_(context) {}

Listener::~Listener() {
  Close();
}

void Listener::Open(const SocketAccess& access) {
  if (path_.size() >= sizeof(sockaddr_un::sun_path)) {
    throw std::runtime_error("the socket's path is too long: " + path_);
  }
  acceptor_.open(Protocol());
  if (SomebodyAnswers(acceptor_, path_)) {
    throw std::runtime_error("another one answers at " + path_);
  }
  RemoveLeftOver(path_);
  Bind();
  // At once: who waits for the socket to appear is turned away as long as nobody listens.
  acceptor_.listen(Protocol::acceptor::max_listen_connections);
  Restrict(access);
}

// Nobody else may connect in the moment before the group is set.
void Listener::Bind() {
  boost::system::error_code error;
  const mode_t before = umask(0177);
  acceptor_.bind(Protocol::endpoint(path_), error);
  umask(before);
  if (error) {
    throw std::runtime_error("the socket " + path_ + " cannot be made: " + error.message());
  }
  bound_ = true;
}

// The group first: for an instant the mode would let in that of the daemon's account. Where the group cannot be had, as
// in a user namespace that does not know it, the mode must not let in another instead.
void Listener::Restrict(const SocketAccess& access) {
  mode_t mode = access.mode;
  if (access.group && chown(path_.c_str(), static_cast<uid_t>(-1), *access.group) != 0) {
    const int error = errno;
    Record(LOG_WARNING, "socket_group_refused").Add("socket", path_).AddErrno("reason", error);
    mode &= ~static_cast<mode_t>(S_IRWXG);
  }
  if (chmod(path_.c_str(), mode) != 0) {
    Fail(errno, "the socket's mode cannot be set");
  }
}

void Listener::Accept() {
  if (waiting_ || !bound_) {
    return;
  }
  waiting_ = true;
  acceptor_.async_accept([this](const boost::system::error_code& error, Socket socket) {
    waiting_ = false;
    if (!bound_) {
      return;
    }
    if (error) {
      OnFailure(error);
    } else {
      handlers_.on_client(std::move(socket));
    }
  });
}

// Without the pause it would fail again at once, for as long as the reason lasts.
void Listener::OnFailure(const boost::system::error_code& error) {
  Record(LOG_WARNING, "accept_failed").Add("reason", error.message());
  handlers_.on_failure();
  pause_.expires_after(kPauseAfterFailure);
  pause_.async_wait([this](const boost::system::error_code& cancelled) {
    if (!cancelled) {
      Accept();
    }
  });
}

void Listener::Close() {
  boost::system::error_code ignored;
  acceptor_.close(ignored);
  pause_.cancel(ignored);
  if (std::exchange(bound_, false)) {
    unlink(path_.c_str());
  }
}

}  // namespace service
