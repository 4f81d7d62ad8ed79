// Contents that the extractor could not make sense of: their files have documents all the same, so nothing fails.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

namespace fileindexd {

struct BrokenContent {
  std::string path;
  std::string reason;
};

/// Tells what the extractor says about broken contents since it was last asked. It keeps the latest failures of all
/// kinds only, so in a flood of them some are counted and not named.
///
/// Threads: one.
class BrokenContents {
 public:
  /// `status` is the extractor's answer to a question about its status. The new ones at and below `folder`.
  std::vector<BrokenContent> New(const Json::Value& status, const std::string& folder);

  /// Leaves out what it has said up to now.
  void Skip(const Json::Value& status);

 private:
  std::uint64_t told_ = 0;
};

/// By what the extractor tells its present way of reading from others, out of such an answer; "" if it does not say.
std::string ReaderOf(const Json::Value& status);

/// Asks the extractor for its status; null if it does not answer within some seconds.
Json::Value AskExtractor(const std::string& socket = "/var/run/nimocontentextractd.sock");

}  // namespace fileindexd
