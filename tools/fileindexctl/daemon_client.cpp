// Questions to the daemons of this machine, answered now or not at all.
#include "tools/fileindexctl/daemon_client.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "nimo/daemon_connection.h"
#include "nimo/error.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/json.h"

namespace fileindexctl {
namespace {

constexpr long kConnectSeconds = 10;
// A daemon that was stopped takes a question and does nothing.
constexpr long kAnswerSeconds = 60;

struct Daemon {
  const char* name;
  const char* socket;
  int failure;  // the library's code for a failure to talk to it
};
constexpr Daemon kSearch = {"the search daemon", "/var/run/nimoelasticd.sock", 913};
constexpr Daemon kExtractor = {"the extractor", "/var/run/nimocontentextractd.sock", 914};
constexpr Daemon kIndexer = {"the indexing daemon", "/var/run/fileindexd.sock", 502};

[[noreturn]] void Fail(const Daemon& daemon, const std::string& reason) {
  throw orbisk::Error(orbisk::Code(daemon.failure), std::string(daemon.name) + " " + reason);
}

// Throws what a response says that is no success.
[[noreturn]] void ThrowRefusal(const Daemon& daemon, const Json::Value& response) {
  const Json::Value& error = response["error"];
  if (error.isObject() && error["msg"].isString() && !error.isMember("code")) {  // the indexing daemon has no codes
    Fail(daemon, "refused: " + error["msg"].asString());
  }
  if (!error.isObject() || !error["code"].isInt() || !error["msg"].isString()) {
    Fail(daemon, "failed without a reason");
  }
  throw orbisk::Error(orbisk::Code(error["code"].asInt()), error["msg"].asString());
}

class Connection : public nimodaemon::DomainSockConnection {
 public:
  using DomainSockConnection::DomainSockConnection;

  /// From now on Recv fails with EAGAIN when nothing comes for so long.
  void LimitSilence(long seconds) {
    const timeval limit = {seconds, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  }
};

std::string ReasonOfSilence() {
  const int reason = NLIBCErrGet();
  return reason == EAGAIN ? "gave no answer within a minute" : std::string("hung up: ") + strerror(reason);
}

// Nothing has to come within a limit if `may_take_long`.
Json::Value Ask(const Daemon& daemon, const Json::Value& request, bool may_take_long) {
  Connection connection(daemon.socket);
  if (!connection.Connect(kConnectSeconds)) {
    Fail(daemon, std::string("cannot be reached at ") + daemon.socket + ": " + strerror(NLIBCErrGet()));
  }
  connection.LimitSilence(may_take_long ? 0 : kAnswerSeconds);
  std::string text;
  if (!connection.Send(orbisk::toString(request)) || !connection.Recv(text)) {
    Fail(daemon, ReasonOfSilence());
  }
  Json::Value response;
  if (!orbisk::fromString(response, text) || !response.isObject() || !response["success"].isBool()) {
    Fail(daemon, "gave no proper response");
  }
  if (!response["success"].asBool()) {
    ThrowRefusal(daemon, response);
  }
  return response;
}

// What the search daemon does to a whole index; all else is a look at what it has.
bool IsLongWork(const std::string& command, const Json::Value& data) {
  return command == "index_create" || command == "index_delete" || data["check"].asBool();
}

}  // namespace

Json::Value AskSearchDaemon(const std::string& command, const Json::Value& data) {
  Json::Value request;
  request["command"] = command;
  request["data"] = data;
  return Ask(kSearch, request, IsLongWork(command, data))["data"];
}

bool HasIndex(const std::string& share) {
  const Json::Value all = AskSearchDaemon("index_list", Json::Value(Json::objectValue));
  const std::string id = orbisk::fileindex::elastic::GetFileIndexID(share);
  return std::any_of(all.begin(), all.end(), [&](const Json::Value& one) { return one["id"].asString() == id; });
}

Json::Value AskIndexer(const std::string& type, const Json::Value& data) {
  Json::Value request;
  request["type"] = type;
  if (!data.isNull()) {
    request["data"] = data;
  }
  return Ask(kIndexer, request, false)["data"];
}

Json::Value AskExtractor(const Json::Value& request) {
  Json::Value response = Ask(kExtractor, request, true);
  if (!response["data"].isObject()) {
    Fail(kExtractor, "gave no document");
  }
  return response;
}

}  // namespace fileindexctl
