// Operations that were broken off half way leave an index too many or too few; the next one puts that right.
#pragma once

#include <json/json.h>

#include <functional>
#include <string>
#include <vector>

namespace fileindexctl {

// Threads: every function may be called from any thread.

/// Does `operation`. If it fails because a share is without its index, or the index without its files, makes the index
/// of each of `shares` that has indexed folders and none, says so on standard error, and does the operation again. A
/// share that is not there keeps what it has. Throws what `operation` throws, or what the making does.
void WithIndexes(const std::vector<std::string>& shares, const std::function<void()>& operation);

/// Adds the folder with these members. If there is an index of its share already though no folder of the share is
/// configured, removes that index first, and says so on standard error. Throws orbisk::Error as the library does.
void AddFolder(const Json::Value& folder, bool updater);

}  // namespace fileindexctl
