// One request as it came: a command, or a list of them.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "services/search/index.h"

namespace nimoelasticd {

/// The longest message in either direction.
inline constexpr std::uint64_t kMaxMessageBytes = std::uint64_t{1} << 30;

/// {"command": name, "data": data}.
struct Command {
  std::string name;
  Json::Value data;                                  ///< an object
  std::optional<search::PreparedDocument> document;  ///< what was data["data"], if it was prepared before its turn
};

/// The text of a request, with the places of its commands in it. The rename of a large folder is one request of
/// hundreds of megabytes, and its tree would take ten times that: each command's tree is built when its turn comes.
///
/// Threads: used by one at a time.
class Request {
 public:
  /// Reads {"command": …, "data": {…}} or {"compound": [{"command": …, "data": {…}}, …]}; other members are ignored,
  /// and so are "command" and "data" beside "compound". Throws Refusal kMalformedRequest when it is neither.
  explicit Request(std::string text);
  Request(Request&&) = delete;

  bool compound() const { return compound_; }
  size_t size() const { return commands_.size(); }
  size_t bytes() const { return text_.size(); }

  /// Reads the command at `index`. Throws Refusal kMalformedRequest, kBadMember.
  Command At(size_t index) const;

  /// Lets go of the text when all its commands have been read; At must not be called any more.
  void ReleaseText();

 private:
  std::string text_;
  std::vector<std::string_view> commands_;  // in text_
  bool compound_ = false;
};

/// Members of a command's data. They throw Refusal kBadMember when it is missing or of another type.
std::string RequireString(const Json::Value& data, const char* name);
const Json::Value& RequireObject(const Json::Value& data, const char* name);
/// The same for members that may be missing or null.
std::string OptionalString(const Json::Value& data, const char* name, const std::string& otherwise);
bool OptionalBool(const Json::Value& data, const char* name, bool otherwise);
/// Also refuses values outside of `least` to `most`.
std::int64_t OptionalInt(const Json::Value& data, const char* name, std::int64_t otherwise, std::int64_t least,
                         std::int64_t most);
std::vector<std::string> OptionalStrings(const Json::Value& data, const char* name);

}  // namespace nimoelasticd
