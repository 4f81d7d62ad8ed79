// Accepts, and makes room.
#include "services/search/server.h"

#include <grp.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <utility>

#include "services/search/log.h"

namespace nimoelasticd {
namespace {

constexpr std::chrono::milliseconds kPauseAfterFailure{100};

}  // namespace

Server::Server(boost::asio::io_context& context, Dispatcher& dispatcher, ServerOptions options)
    : context_(context),
      dispatcher_(dispatcher),
      options_(std::move(options)),
      memory_(options_.max_memory_bytes),
      acceptor_(context),
      pause_(context) {}

Server::~Server() {
  if (bound_) {
    unlink(options_.socket.c_str());
  }
}

bool Server::Bind() {
  boost::system::error_code error;
  unlink(options_.socket.c_str());
  acceptor_.open(Protocol(), error);
  const mode_t before = umask(0177);
  acceptor_.bind(Protocol::endpoint(options_.socket), error);
  umask(before);
  if (!error) {
    bound_ = true;
    acceptor_.listen(Protocol::acceptor::max_listen_connections, error);
  }
  if (error) {
    Record(LOG_ERR, "socket_refused").Add("socket", options_.socket).Add("reason", error.message());
    return false;
  }
  return true;
}

bool Server::Open() {
  if (options_.socket.size() >= sizeof(sockaddr_un::sun_path)) {
    Record(LOG_ERR, "socket_path_too_long").Add("socket", options_.socket);
    return false;
  }
  if (!Bind()) {
    return false;
  }
  const group* const group = getgrnam(options_.group.c_str());
  // The group first: for an instant the mode would let in root's.
  if (group != nullptr && chown(options_.socket.c_str(), 0, group->gr_gid) != 0) {
    Record(LOG_WARNING, "socket_group_refused").Add("group", options_.group).AddErrno("reason", errno);
  }
  if (chmod(options_.socket.c_str(), 0660) != 0) {
    Record(LOG_ERR, "socket_refused").Add("socket", options_.socket).AddErrno("reason", errno);
    return false;
  }
  Accept();
  return true;
}

void Server::Close() {
  boost::system::error_code ignored;
  acceptor_.close(ignored);
  if (std::exchange(bound_, false)) {
    unlink(options_.socket.c_str());
  }
  pause_.cancel();
  while (!readers_.empty()) {
    readers_.front()->Cut();
  }
}

void Server::Accept() {
  if (accepting_ || !acceptor_.is_open()) {
    return;
  }
  accepting_ = true;
  acceptor_.async_accept(context_, [this](const boost::system::error_code& error, Protocol::socket socket) {
    accepting_ = false;
    OnAccept(error, std::move(socket));
  });
}

void Server::OnAccept(const boost::system::error_code& error, Protocol::socket socket) {
  if (!acceptor_.is_open()) {
    return;
  }
  if (error) {
    Record(LOG_WARNING, "accept_failed").Add("reason", error.message());
    MakeRoom();
    pause_.expires_after(kPauseAfterFailure);
    pause_.async_wait([this](const boost::system::error_code& cancelled) {
      if (!cancelled) {
        Accept();
      }
    });
    return;
  }
  const auto session =
      std::make_shared<Session>(std::move(socket), dispatcher_, memory_, options_.patience,
                                [this](Session& changed, Session::Phase phase) { OnChange(changed, phase); });
  ++connections_;
  places_[session.get()] = readers_.insert(readers_.end(), session.get());
  session->Start();
  if (connections_ >= options_.max_connections) {
    MakeRoom();
  }
  if (connections_ < options_.max_connections) {
    Accept();
  }
}

// Cuts off who has been sending for the longest time; nobody, if all are being worked for.
void Server::MakeRoom() {
  if (readers_.size() > 1) {
    Record(LOG_INFO, "connection_cut").Add("reason", "too many connections");
    readers_.front()->Cut();
  }
}

void Server::OnChange(Session& session, Session::Phase phase) {
  if (const auto place = places_.find(&session); place != places_.end()) {
    readers_.erase(place->second);
    places_.erase(place);
  }
  if (phase == Session::Phase::kEnded) {
    --connections_;
    Accept();
  }
}

}  // namespace nimoelasticd
