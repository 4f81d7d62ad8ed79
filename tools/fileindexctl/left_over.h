// Operations that were broken off half way leave an index too many or too few; the next one puts that right.
#pragma once

#include <json/json.h>

#include <functional>
#include <string>
#include <vector>

namespace fileindexctl {

// Threads: every function may be called from any thread.

/// Names shares, when it is called.
using Shares = std::function<std::vector<std::string>()>;

/// Does `operation`. If it fails because a share is without its index, or the index without its files, makes the index
/// of each of `shares` that has indexed folders and none, says so on standard error, and does the operation again. A
/// share that is not there keeps what it has. Throws what `operation` throws, or what naming the shares or making the
/// indexes does. `operation` may take the configuration's lock; it is not held then.
void WithIndexes(const Shares& shares, const std::function<void()>& operation);
/// The same for one share.
void WithIndex(const std::string& share, const std::function<void()>& operation);

/// Does `operation`, which forgets these shares, wholly or what is left of them. If it fails because a share is without
/// its index, or the index without its files, forgets those of the shares that have no index here, be they there or
/// not, says so on standard error, and does the operation again for the others. Throws as WithIndexes.
void Forgetting(const Shares& shares, const std::function<void()>& operation);

/// Adds the folder with these members. If there is an index of its share already though no folder of the share is
/// configured, removes that index first, and says so on standard error. Throws orbisk::Error as the library does.
void AddFolder(const Json::Value& folder, bool updater);

}  // namespace fileindexctl
