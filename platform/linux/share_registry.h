// Reading the registry of shares fast: look-ups come by the thousand, changes by the month.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "nimo/share_registry.h"

namespace nimo {

/// The registry at one instant.
struct ShareRegistry {
  std::vector<NIMO::SHARE::Entry> shares;  ///< empty when it cannot be read
  int error = 0;                           ///< not 0: why it cannot be read, as a last error
  std::string reason;                      ///< the same for people

  /// Null when there is none.
  const NIMO::SHARE::Entry* Find(std::string_view name) const;
  /// The share whose folder is `path` or above it, the longest one; null when there is none.
  const NIMO::SHARE::Entry* Holder(std::string_view path) const;
};

/// The registry as it is now; never null. The file is parsed only when it changed. That it cannot be read is logged
/// once for each state of the file. Threads: any.
std::shared_ptr<const ShareRegistry> CurrentShares();

}  // namespace nimo
