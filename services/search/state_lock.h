// One daemon for one list of indexes.
#pragma once

#include <string>

#include "services/search/unique_fd.h"

namespace nimoelasticd {

/// Holds a folder for this process. The kernel drops the lock when the process dies, so that nothing is left over.
class StateLock {
 public:
  /// Takes the lock file in `folder`, making both if they are missing. Throws std::runtime_error, with the id of the
  /// process that has it, when it is taken, or when it cannot be made.
  explicit StateLock(const std::string& folder);

 private:
  UniqueFd file_;
};

}  // namespace nimoelasticd
