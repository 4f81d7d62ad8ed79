// What a tree node keeps beside its public members.
#pragma once

#include <cstdint>
#include <limits>
#include <vector>

#include "fileindex/name_index.h"
#include "orbisk/fileindex/optree.h"

namespace orbisk::fileindex {

/// What only a folder needs.
struct OPNode::ChildTable {
  static constexpr std::uint32_t kNotBusy = std::numeric_limits<std::uint32_t>::max();

  /// The first children, by name. Empty as long as there are few enough to look through.
  NameIndex by_name;

  /// The children that hold live operations or lie above a node that does. Whoever files an operation adds, whoever
  /// cancels may leave one behind. This is what lets a rename or reindex of a large folder pass over what is idle.
  std::vector<OPNode*> busy;
};

}  // namespace orbisk::fileindex
