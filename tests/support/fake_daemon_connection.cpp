// The fake platform's connections to daemons.
#include "tests/support/fake_daemon_connection.h"

namespace orbisk::test {

FakeConnectionService::FakeConnectionService()
    : connect("DomainSockConnection::Connect",
              [this](const std::string&, long) {
                const std::lock_guard lock(mutex_);
                ++open_;
                return true;
              }),
      send("SockConnection::Send", [](const std::string&) { return true; }),
      receive("SockConnection::Recv", [this](std::string* message) { return Receive(message); }) {}

void FakeConnectionService::Reply(const std::string& message) {
  const std::lock_guard lock(mutex_);
  replies_.push_back(message);
}

std::vector<std::string> FakeConnectionService::requests() const {
  std::vector<std::string> messages;
  for (const SeamCall& call : send.calls()) {
    messages.push_back(call.arguments.front());
  }
  return messages;
}

int FakeConnectionService::open() const {
  const std::lock_guard lock(mutex_);
  return open_;
}

void FakeConnectionService::NoteClosed() {
  const std::lock_guard lock(mutex_);
  --open_;
}

void FakeConnectionService::Reset() {
  const std::lock_guard lock(mutex_);
  replies_.clear();
  open_ = 0;
}

bool FakeConnectionService::Receive(std::string* message) {
  const std::lock_guard lock(mutex_);
  *message = "{\"success\":true}";
  if (!replies_.empty()) {
    *message = replies_.front();
    replies_.pop_front();
  }
  return true;
}

FakeConnectionService& FakeConnections() {
  static auto* const connections = new FakeConnectionService;
  return *connections;
}

}  // namespace orbisk::test

namespace nimodaemon {

using orbisk::test::FakeConnections;

// Stands for a descriptor: nothing is opened.
constexpr int kConnected = 1'000'000;

SockConnection::~SockConnection() {
  SockConnection::Disconnect();
}

bool SockConnection::Send(const std::string& message) {
  return FakeConnections().send(message);
}

bool SockConnection::Recv(std::string& message) {
  return FakeConnections().receive(&message);
}

void SockConnection::Disconnect() {
  if (fd_ == kConnected) {
    FakeConnections().NoteClosed();
  }
  fd_ = -1;
}

DomainSockConnection::DomainSockConnection(const std::string& path) : path_(path) {}

bool DomainSockConnection::Connect(long timeout) {
  const bool connected = FakeConnections().connect(path_, timeout);
  fd_ = connected ? kConnected : -1;
  return connected;
}

}  // namespace nimodaemon
