// Questions to the daemons of this machine, answered now or not at all.
#pragma once

#include <json/json.h>

#include <string>

namespace fileindexctl {

// A person waits for the answer. So there is one exchange and no waiting for a daemon that does not run, is busy or has
// its database closed: what the daemon says of that is the error. A daemon that is silent for a minute is one, too, but
// for what takes long by nature: making, deleting and checking an index, and reading a file.
//
// Threads: every function may be called from any thread.

/// Runs `command` in the search daemon and returns the "data" of its response, null if it has none. Throws
/// orbisk::Error with the daemon's code and message if it refuses, and Error 913 if it cannot be reached or gives no
/// proper response.
Json::Value AskSearchDaemon(const std::string& command, const Json::Value& data);

/// Whether the search daemon knows an index of `share`, in whatever state. Throws as AskSearchDaemon.
bool HasIndex(const std::string& share);

/// Sends the command `type` with `data` to the indexing daemon and returns the "data" of its answer, null if it has
/// none. Throws Error 502 if it refuses, cannot be reached or gives no proper answer.
Json::Value AskIndexer(const std::string& type, const Json::Value& data = Json::Value());

/// Asks the extractor and returns its whole response, which has an object "data". Throws orbisk::Error with the
/// daemon's code and message if it refuses, and Error 914 if it cannot be reached or gives no proper response.
Json::Value AskExtractor(const Json::Value& request);

}  // namespace fileindexctl
