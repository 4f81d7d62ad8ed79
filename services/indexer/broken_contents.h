// What the extractor says of contents that it could not read. Of some it could not make sense: their files have
// documents all the same, so nothing else tells of them.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

namespace fileindexd {

struct BrokenContent {
  std::string path;
  std::string reason;
  bool has_document = false;  ///< the extractor did not refuse the file
};

/// Tells what the extractor says about failures since it was last asked. It keeps the latest 10,000 only, so in a flood
/// of them some are counted and not named.
///
/// Threads: one.
class BrokenContents {
 public:
  /// `status` is the extractor's answer to a question about its status, with what came after those that were told. The
  /// new ones at and below `folder`.
  std::vector<BrokenContent> New(const Json::Value& status, const std::string& folder);

  /// Leaves out what it has said up to now.
  void Skip(const Json::Value& status);

  /// How many were told, or left out.
  std::uint64_t told() const { return told_; }

 private:
  std::uint64_t told_ = 0;
};

/// By what the extractor tells its present way of reading from others, out of such an answer; "" if it does not say.
std::string ReaderOf(const Json::Value& status);

constexpr char kExtractorSocket[] = "/var/run/nimocontentextractd.sock";

/// Asks the extractor for its status, with all failures after the first `told`; null if it does not answer within some
/// seconds.
Json::Value AskExtractor(std::uint64_t told, const std::string& socket = kExtractorSocket);

}  // namespace fileindexd
