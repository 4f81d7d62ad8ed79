// What a tree node keeps beside its public members.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "orbisk/fileindex/optree.h"

namespace orbisk::fileindex {

struct ChildNameHash {
  using is_transparent = void;
  size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
  size_t operator()(const OPNode* node) const { return (*this)(std::string_view(node->name)); }
};

struct ChildNameEqual {
  using is_transparent = void;
  bool operator()(const OPNode* left, const OPNode* right) const { return left->name == right->name; }
  bool operator()(std::string_view left, const OPNode* right) const { return left == right->name; }
  bool operator()(const OPNode* left, std::string_view right) const { return left->name == right; }
};

/// What only a folder needs.
struct OPNode::ChildTable {
  static constexpr std::uint32_t kNotBusy = std::numeric_limits<std::uint32_t>::max();

  /// The first `indexed` children by name. Empty as long as there are few enough to look through.
  std::unordered_set<OPNode*, ChildNameHash, ChildNameEqual> by_name;
  size_t indexed = 0;

  /// The children that hold live operations or lie above a node that does. Whoever files an operation adds, whoever
  /// cancels may leave one behind. This is what lets a rename or reindex of a large folder pass over what is idle.
  std::vector<OPNode*> busy;
};

}  // namespace orbisk::fileindex
