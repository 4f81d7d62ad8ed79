// Asking the extractor daemon; apart from the seam's call so that tests bring their own socket and patience.
#pragma once

#include <json/json.h>

#include <chrono>
#include <string>

namespace nimo {

/// Asks the extractor at `socket_path` to read `path` as `options` say (see nimo/content_extract.h) and puts the fields
/// into `document`.
///
/// Throws std::runtime_error with the reason: no extractor answers, it says that it failed, what it says is no answer,
/// or it takes longer than `limit` from connecting to the last byte. `document` is then as it was.
///
/// Threads: any.
void AskExtractor(const std::string& socket_path, std::chrono::milliseconds limit, const std::string& path,
                  const Json::Value& options, Json::Value& document);

}  // namespace nimo
