// Accepts, and makes room.
#include "services/search/server.h"

#include <memory>
#include <utility>

#include "services/base/log.h"

namespace nimoelasticd {

using service::Record;

Server::Server(boost::asio::io_context& context, Dispatcher& dispatcher, ServerOptions options)
    : dispatcher_(dispatcher),
      options_(std::move(options)),
      memory_(options_.max_memory_bytes),
      listener_(context, options_.socket,
                {[this](service::Listener::Socket socket) { OnClient(std::move(socket)); }, [this] { MakeRoom(); }}) {}

void Server::Open() {
  listener_.Open({0660, service::FindGroup(options_.group)});
  listener_.Accept();
}

void Server::Close() {
  listener_.Close();
  while (!readers_.empty()) {
    readers_.front()->Cut();
  }
}

void Server::OnClient(service::Listener::Socket socket) {
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
    listener_.Accept();
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
    listener_.Accept();
  }
}

}  // namespace nimoelasticd
