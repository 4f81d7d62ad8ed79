// What the change monitor reports (Event) and what the index has to do about it (OP).
#pragma once

#include <json/json.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "orbisk/export.h"

namespace orbisk::fileindex {

/// The bits of an event line's "event" number. One line may set several.
enum EventMask : std::int32_t {
  EVENT_MODIFY = 0x2,                ///< the content of a file changed
  EVENT_ATTRIB = 0x4,                ///< attributes changed
  EVENT_CREATE = 0x40,               ///< created
  EVENT_DELETE = 0x80,               ///< deleted
  EVENT_RENAME = 0x100,              ///< moved from "path_old" to "path"
  EVENT_QUEUE_CRASHED = 0x200,       ///< the monitor lost events; the whole queue is unreliable
  EVENT_REINDEX = 0x10000,           ///< index "path" and everything below it again
  EVENT_UPDATE_DIRECTORY = 0x20000,  ///< the switches of folder "path" changed; "data" carries them
};

/// One line of a queue file: a JSON object with "event" and "path", and optionally "is_dir", "path_old" and "data".
///
/// Threads: a plain value.
struct ORBISK_EXPORT Event {
  /// Reads one line. Throws Error 906 if it is not JSON, and Error 120 if "event" or "path" is missing or of the wrong
  /// type; an optional member of the wrong type counts as absent.
  explicit Event(const std::string& event_raw);

  std::int32_t event = 0;  ///< EventMask bits
  bool is_dir = false;
  std::string path;
  std::string path_old;
  Json::Value data;
};

/// What a pending operation asks for. The numbers are part of the interface with the consumer.
enum FileIndexOP : std::int32_t {
  OP_NONE = 0,  ///< cancelled, never delivered
  OP_DELETE = 1,
  OP_UPDATE = 2,
  OP_ATTR = 3,
  OP_UPDATE_DIRECTORY = 4,
  OP_RENAME = 5,
  OP_REINDEX = 6,
  OP_QUEUE_CRASHED = 7,  ///< on the root: index everything again
};

class OPNode;

/// One pending operation. Its target is the path of its node.
///
/// Threads: belongs to its tree, see OPTree. An OP that outlives its tree keeps its node and path.
struct ORBISK_EXPORT OP {
  OP(std::shared_ptr<OPNode> node, FileIndexOP op, const std::string& path, const Json::Value& data);

  /// Makes each of the switches "document", "audio", "video", "photo" and "basic" true if it is true here or in `data`,
  /// and false otherwise. Other members of this operation's data stay, others of `data` are ignored. Throws Error 120
  /// if `data` is not an object.
  void MergeData(const Json::Value& data);

  std::shared_ptr<OPNode> node;
  FileIndexOP op;
  std::string path;  ///< OP_RENAME: the path before the rename
  Json::Value data;  ///< OP_UPDATE_DIRECTORY: the folder's switches
};

/// "[05] /old -> /new, data=null"; the old path only for OP_RENAME. Leaves the stream's fill character at '0'.
ORBISK_EXPORT std::ostream& operator<<(std::ostream& stream, std::shared_ptr<OP> op);

}  // namespace orbisk::fileindex
