// The status of the extractor counts them.
#include "services/indexer/broken_contents.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <optional>

#include "nimo/daemon_connection.h"
#include "services/base/json_text.h"
#include "services/indexer/policy.h"

namespace fileindexd {

namespace {

constexpr int kPatienceSeconds = 1;
constexpr char kBroken[] = "broken";
constexpr char kKnown[] = "known";

// The daemons' own waits for an answer as long as it takes; this one is not worth that.
class HastyConnection : public nimodaemon::DomainSockConnection {
 public:
  using DomainSockConnection::DomainSockConnection;
  bool LimitReceiving() const {
    const timeval patience{kPatienceSeconds, 0};
    return setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) == 0;
  }
};

const Json::Value& DataOf(const Json::Value& status) {
  return status.isObject() ? status["data"] : Json::Value::nullSingleton();
}

// All but those that it answered from memory.
std::uint64_t CountIn(const Json::Value& data) {
  std::uint64_t count = 0;
  for (const std::string& reason : data["failures"].getMemberNames()) {
    const Json::Value& of_reason = data["failures"][reason];
    count += reason != kKnown && of_reason.isUInt64() ? of_reason.asUInt64() : 0;
  }
  return count;
}

}  // namespace

std::vector<BrokenContent> BrokenContents::New(const Json::Value& status, const std::string& folder) {
  std::vector<BrokenContent> fresh;
  const Json::Value& data = DataOf(status);
  if (!data.isObject() || !data["latest_failures"].isArray() || !data["failures"].isObject()) {
    return fresh;
  }
  const std::uint64_t now = CountIn(data);
  std::uint64_t wanted = now < told_ ? now : now - told_;  // fewer: it was started anew
  told_ = now;
  const Json::Value& failures = data["latest_failures"];
  for (Json::ArrayIndex i = failures.size(); i > 0 && wanted > 0; --i) {
    const Json::Value& failure = failures[i - 1];
    --wanted;
    if (failure.isObject() && failure["path"].isString() && failure["message"].isString() &&
        IsAtOrBelow(failure["path"].asString(), folder)) {
      fresh.push_back({failure["path"].asString(), failure["message"].asString(), failure["reason"] == kBroken});
    }
  }
  std::reverse(fresh.begin(), fresh.end());
  return fresh;
}

void BrokenContents::Skip(const Json::Value& status) {
  const Json::Value& data = DataOf(status);
  told_ = data.isObject() && data["failures"].isObject() ? CountIn(data) : 0;
}

std::string ReaderOf(const Json::Value& status) {
  const Json::Value& data = DataOf(status);
  return data.isObject() && data["reader"].isString() ? data["reader"].asString() : "";
}

Json::Value AskExtractor(std::uint64_t told, const std::string& socket) {
  const std::string question = "{\"status\":true,\"since\":" + std::to_string(told) + "}";
  HastyConnection connection(socket);
  std::string text;
  if (!connection.Connect(kPatienceSeconds) || !connection.LimitReceiving() || !connection.Send(question) ||
      !connection.Recv(text)) {
    return Json::Value();
  }
  return service::FromText(text).value_or(Json::Value());
}

}  // namespace fileindexd
