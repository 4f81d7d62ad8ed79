// Words for events and operations.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "orbisk/fileindex/op.h"

namespace fileindexctl {

// Threads: every function may be called from any thread.

/// A stable lower-case word for a kind of operation: "delete", "update", "attributes", "update_directory", "rename",
/// "reindex", "queue_crashed"; "none" for a cancelled one.
std::string OperationName(orbisk::fileindex::FileIndexOP op);

/// Words for the bits of an event, lowest bit first: "modify", "attrib", "create", "delete", "rename", "queue_crashed",
/// "reindex", "update_directory". Other bits follow together as one hexadecimal number ("0x9"), also 0 itself.
std::vector<std::string> EventBitNames(std::int32_t event);

/// `text` with its control bytes made visible, so that it fits on one line: \n, \t, \r, and \xNN for the others. Every
/// other byte stays, valid UTF-8 or not, the backslash too: text without control bytes comes back as it is.
std::string OneLine(std::string_view text);

}  // namespace fileindexctl
