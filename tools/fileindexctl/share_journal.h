// The note about a share that is being given another name.
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <optional>
#include <string>

namespace fileindexctl {

/// What has to be known to finish the renaming of a share, or to undo it, whoever began it.
struct ShareMove {
  std::string from;
  std::string to;
  std::string path_from;  ///< full path of the share's folder before
  std::string path_to;    ///< and after
  ino_t folder = 0;       ///< tells the folder from another one that has come to its path
  bool indexed = false;   ///< folders of the share are configured
  bool resume = false;    ///< it was not paused before
  size_t step = 0;        ///< the step that is being done; those before it are done
};

/// The note on disk, /etc/nimo/share-move.json, and the lock that keeps two moves apart.
///
/// Threads: one object is used by one thread at a time.
class ShareJournal {
 public:
  /// Takes the lock. Throws std::runtime_error if somebody has it, or it cannot be made.
  ShareJournal();
  ~ShareJournal();
  ShareJournal(const ShareJournal&) = delete;
  ShareJournal& operator=(const ShareJournal&) = delete;

  /// Whether there is a note, readable or not.
  static bool IsThere();
  /// What was interrupted; nothing if all is finished. Throws std::runtime_error if the note cannot be read.
  static std::optional<ShareMove> Read();
  /// Stores `move` whole and synced. Throws std::runtime_error if that fails.
  static void Write(const ShareMove& move);
  /// All is finished. Throws std::runtime_error if the note cannot be removed.
  static void Remove();

 private:
  int lock_;
};

}  // namespace fileindexctl
