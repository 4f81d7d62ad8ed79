// What a command asks of the configured folders before it does anything.
#include "tools/fileindexctl/indexed.h"

#include <stdexcept>

#include "orbisk/fileindex/folder_mgr.h"

namespace fileindexctl {

void CheckIndexed(const std::string& share) {
  if (!orbisk::fileindex::FolderMgr().IsShareIndexed(share)) {
    throw std::runtime_error("no folder of this share is indexed: " + share);
  }
}

}  // namespace fileindexctl
