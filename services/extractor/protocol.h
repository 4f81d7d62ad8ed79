// Requests of clients and the answers to them; docs/protocols.md describes both.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace extractor {

/// The longest request that is read. Two paths of 4,096 bytes, each byte escaped, stay well below.
constexpr size_t kLongestRequest = size_t{64} << 10;

/// Why a request failed; the number goes over the socket.
enum class ErrorCode {
  kMalformed = 1,  ///< not a request
  kOpen = 2,       ///< the path cannot be opened or looked at
  kDied = 3,       ///< the worker died over the content
  kDeadline = 4,   ///< the content took too long
  kMemory = 5,     ///< the content took too much memory
  kRefused = 6,    ///< the content made the worker do what it may not
  kWorkers = 7,    ///< no worker can be had
};

/// What a client asks.
struct Request {
  enum class Kind { kParse, kStatus, kMalformed };

  Kind kind = Kind::kMalformed;
  std::string path;         ///< absolute
  std::string pseudo_path;  ///< what the document names; `path` if the client named none
  bool need_meta = false;
  uint64_t since = 0;           ///< of a question for the status: how many failures its sender has been told of
  bool wants_failures = false;  ///< all that came after those, as far as they are known
  std::string complaint;        ///< what is wrong with a malformed one
};

/// Understands the text of a request. Never throws for what it holds.
Request ParseRequest(std::string_view text);

/// The answer to a request that failed.
std::string ErrorAnswer(ErrorCode code, const std::string& message);

/// The answer to a request that succeeded. `text` becomes the field of that name of `data`, an object, if there is any;
/// `extra` is an object whose members stand beside "data".
std::string DataAnswer(const Json::Value& data, Json::Value extra = Json::Value(Json::objectValue),
                       std::string_view text = {});

}  // namespace extractor
