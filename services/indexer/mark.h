// What a share's index was last made equal to, kept on disk: who starts again knows by it what is left to be compared.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "services/indexer/policy.h"

namespace fileindexd {

/// The state of the index when the last pass ended. Changes of files since then are in the queue or in the side file;
/// changes of the configuration, and another index in the place of this one, show by comparing with the present.
struct Mark {
  Policy::Folders folders;           ///< by which it was filled
  std::string index;                 ///< which database it is, by IdentityOfIndex
  std::vector<std::string> pending;  ///< folders that a pass has begun to compare, or nobody has yet
  bool operator==(const Mark&) const = default;
};

/// Where the mark of a share lies: beside the queue file, and so on the share's volume.
std::string MarkPath(const std::string& queue);

/// The mark at `path`; nothing if there is none, or none that can be read: then the whole share has to be compared.
std::optional<Mark> ReadMark(const std::string& path);

/// Replaces the mark. Throws std::system_error.
void WriteMark(const std::string& path, const Mark& mark);

/// From now on the whole share has to be compared, whoever is killed; but for a power cut, until SyncMark returns.
/// Throws std::system_error.
void DropMark(const std::string& path);
/// Makes sure that a mark that was dropped stays so. Waits for the disk. Throws std::system_error.
void SyncMark(const std::string& path);
/// Both.
void RemoveMark(const std::string& path);

/// Tells one database from another one that is made, repaired or copied in its place; "" if there is none. `folder` is
/// that of the index.
std::string IdentityOfIndex(const std::string& folder);

}  // namespace fileindexd
