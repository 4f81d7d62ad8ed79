// Whether anybody tells of a share's changes.
#pragma once

#include <string>

namespace fileindexd {

/// Whether one of the change monitor's registrations in `folder` is for `queue`, a queue file. A folder that is not
/// there, or cannot be read, says nothing: true.
bool IsRegistered(const std::string& folder, const std::string& queue);

}  // namespace fileindexd
