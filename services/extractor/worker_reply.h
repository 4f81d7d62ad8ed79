// What a worker is asked and what it answers. The answer comes from a process that hostile content may have taken over,
// so nothing in it is believed.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace extractor {

/// The longest message to a worker.
constexpr size_t kLongestOrder = size_t{64} << 10;

/// What a worker is told beside the descriptor.
struct Order {
  std::string name;
  size_t text_bytes = 0;
};

std::string OrderText(const Order& order);
/// What a worker makes of the text. Throws std::exception when it is no order.
Order ParseOrder(std::string_view text);

/// How the reading of one content ended.
struct Reply {
  enum class Kind {
    kRead,    ///< `fields` are the content's
    kBroken,  ///< the content is broken; `message` says how
    kMemory,  ///< memory was used up
    kGarbled  ///< not what a worker says
  };

  Kind kind = Kind::kGarbled;
  Json::Value fields{Json::objectValue};  ///< without the text
  std::string text;
  bool cut = false;  ///< there was more text
  std::string message;
};

/// The longest reply to an order for `text_bytes` of text.
constexpr size_t LongestReply(size_t text_bytes) {
  constexpr size_t kOtherFields = size_t{4} << 20;
  return text_bytes + kOtherFields;
}

/// What is sent before the reply's `text`, which follows as it is: for a large text, JSON costs more than all the rest.
/// JSON, and a NUL if there is text.
std::string ReplyHead(const Reply& reply);

/// Understands a reply. Of the fields only those of the vocabulary stay that are scalars and no attributes of the file:
/// a worker must not say what a file is called or who owns it. Never throws for what the text holds.
Reply ParseReply(std::string text);

}  // namespace extractor
