// What the daemon does for a request, whatever way it came.
#pragma once

#include <json/json.h>

#include <boost/asio/io_context.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>

#include "services/extractor/attributes.h"
#include "services/extractor/failure_store.h"
#include "services/extractor/options.h"
#include "services/extractor/pool.h"
#include "services/extractor/protocol.h"

namespace extractor {

/// Answers requests: attributes by itself, contents through the pool. Counts what happens.
///
/// Threads: that of the context.
class Service {
 public:
  using Reply = std::function<void(std::string answer)>;

  /// `options` must outlive it.
  Service(boost::asio::io_context& context, const Options& options);

  /// Makes sure that workers can be had. Throws std::exception with the reason.
  void Start() { pool_.Start(); }
  /// Has `reply` called once with the answer to the text of a request, possibly before this returns.
  void Handle(const std::string& request, const Reply& reply);
  /// Ends all workers. Requests in work are not answered any more.
  void Stop() { pool_.Stop(); }

 private:
  struct Latest {
    std::string path;
    std::string reason;
    std::string message;
    size_t size() const { return path.size() + reason.size() + message.size(); }
  };

  void Parse(const Request& request, const Reply& reply);
  void ReadContent(const Request& request, const service::UniqueFd& subject, const Attributes& attributes,
                   Json::Value document, const Reply& reply);
  void OnOutcome(const Request& request, const Attributes& attributes, Json::Value document, Outcome outcome,
                 const Reply& reply);
  void Note(const std::string& path, const std::string& reason, const std::string& message);
  size_t CountLatest(const Request& request) const;
  Json::Value Status(const Request& request) const;

  const std::string reader_;  // tells one way of reading from others
  FailureStore failures_;
  uint64_t requests_ = 0;
  uint64_t contents_ = 0;                   // read to their end
  std::map<std::string, uint64_t> counts_;  // failures, by reason
  std::deque<Latest> latest_;               // failures, but for those answered from memory
  size_t latest_bytes_ = 0;                 // in them
  uint64_t noted_ = 0;                      // how many there ever were
  Pool pool_;
};

}  // namespace extractor
