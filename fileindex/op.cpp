// Event lines and pending operations.
#include "orbisk/fileindex/op.h"

#include <array>
#include <iomanip>
#include <utility>

#include "common/check.h"
#include "fileindex/event_line.h"
#include "orbisk/fileindex/optree.h"
#include "orbisk/json.h"

namespace orbisk::fileindex {

Event::Event(const std::string& event_raw) {
  if (ReadPlainEvent(event_raw, *this)) {
    return;
  }
  event = 0;
  is_dir = false;
  Json::Value record;
  ORBISK_CHECK_TEXT(!fromString(record, event_raw), "!data.fromString(event_raw)", 906,
                    "Malformed event_raw: " + event_raw);
  GetJsonValue(event, record, "event", true);
  GetJsonValue(is_dir, record, "is_dir", false);
  GetJsonValue(path, record, "path", true);
  GetJsonValue(path_old, record, "path_old", false);
  GetJsonValue(data, record, "data", false);
}

OP::OP(std::shared_ptr<OPNode> target, FileIndexOP kind, const std::string& old_path, const Json::Value& switches)
    : node(std::move(target)), op(kind), path(old_path), data(switches) {}

void OP::MergeData(const Json::Value& incoming) {
  static constexpr std::array kSwitches = {"document", "audio", "video", "photo", "basic"};
  std::array<bool, kSwitches.size()> switched_on{};
  for (size_t i = 0; i < kSwitches.size(); ++i) {
    GetJsonValue(switched_on[i], incoming, kSwitches[i], false);
  }
  if (!data.isObject()) {
    data = Json::Value(Json::objectValue);
  }
  for (size_t i = 0; i < kSwitches.size(); ++i) {
    Json::Value& current = data[kSwitches[i]];
    current = switched_on[i] || (current.isBool() && current.asBool());
  }
}

std::ostream& operator<<(std::ostream& stream, std::shared_ptr<OP> op) {
  stream << "[" << std::setw(2) << std::setfill('0') << static_cast<std::int32_t>(op->op) << "] ";
  if (op->op == OP_RENAME) {
    stream << op->path << " -> ";
  }
  return stream << op->node->GetPath() << ", data=" << toString(op->data);
}

}  // namespace orbisk::fileindex
