// Which folder each share was, kept apart from the shares' volumes: a volume that goes takes along all that lies on it.
#pragma once

#include <json/json.h>

#include <mutex>
#include <set>
#include <string>

namespace fileindexd {

/// Tells the folder at `path` from another one that stands there later, by file system, inode and birth; "" if there is
/// no folder.
std::string IdentityOfFolder(const std::string& path);

/// What stands at a share's path.
struct Root {
  std::string folder;  ///< which folder, by IdentityOfFolder
  std::string index;   ///< which database, by IdentityOfIndex; "" if none is to be seen
};

/// Whether `now` is the share whose folder was `known`; "" if nobody knew it.
///
/// Where a volume is not mounted, a folder of the share's name may lie below it. It is another one than the known one,
/// and no database lies beside it. A share that was restored, or came to another volume, has its database there.
bool IsTheShare(const Root& now, const std::string& known);

/// The folders of all shares, in one file.
///
/// Threads: any.
class Roots {
 public:
  /// Reads the file at `path`; one that is missing or cannot be read knows nothing.
  explicit Roots(std::string path);

  /// What Remember was told last; "" if nothing.
  std::string Known(const std::string& share) const;
  /// Stores it if it is new. What cannot be stored is known as long as this object lives.
  void Remember(const std::string& share, const std::string& folder);
  /// Forgets the shares that are not among `shares`.
  void KeepOnly(const std::set<std::string>& shares);

 private:
  void Store() const;

  const std::string path_;
  mutable std::mutex mutex_;  // guards the rest
  Json::Value shares_{Json::objectValue};
};

}  // namespace fileindexd
