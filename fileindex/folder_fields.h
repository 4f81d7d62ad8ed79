// The fields of entries without a copy of each: a question about a path looks at those of a thousand entries.
#pragma once

#include <string>
#include <string_view>

#include "orbisk/fileindex/folder.h"

namespace orbisk::fileindex {

/// References that are good until the entry changes. Threads: as Folder.
struct FolderFields {
  static const std::string& Path(const Folder& folder) { return folder.path_; }
  static const std::string& Name(const Folder& folder) { return folder.name_; }
  static const std::string& Owner(const Folder& folder) { return folder.owner_; }
  static const std::string& Group(const Folder& folder) { return folder.group_; }
  static const std::string& VolumeToBeClean(const Folder& folder) { return folder.volume_to_be_clean_; }
  /// Gives an entry that was made with empty texts those that it is to have, without a look at the group.
  static void Fill(Folder& folder, std::string path, std::string name, std::string owner, std::string group,
                   std::string volume_to_be_clean);
  /// Throws as Folder::GetShare.
  static const std::string& Share(const Folder& folder);
};

/// The full paths of many entries, of which each share is asked for once.
///
/// Threads: one object is used by one thread at a time.
class FullPaths {
 public:
  /// What Folder::GetFullPath gives, and throws. The entry keeps it, as it does there.
  const std::string& Of(const Folder& folder);

 private:
  std::string share_;   // the one that was asked for last
  std::string volume_;  // what its full paths have before the share path
  bool asked_ = false;
};

}  // namespace orbisk::fileindex
