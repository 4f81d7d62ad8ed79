// What reaches below one node of the operation tree: the walks, and carrying a subtree's operations on a rename.
//
// A rename of a folder carries the pending operations of everything below it to the same places below the new name, and
// each place is made there, whether anything is pending on it or not. Almost all of a large folder is idle, so only
// the busy part is walked, and the idle places are noted (SubtreeRename) and made when somebody could tell: when a node
// is looked up from outside, and, since places are walked in the order they were made, for an outside walk and for a
// rename between a folder and one of its own ancestors, where what is carried lands in the part being walked.
#include <algorithm>
#include <iterator>
#include <limits>
#include <map>
#include <utility>

#include "fileindex/op_node.h"
#include "orbisk/fileindex/optree.h"

namespace orbisk::fileindex {
namespace {

// Bounds for renames between a folder and its own ancestor. No file system makes them, but a broken queue can: the walk
// comes to places that it made itself and may go on so for ever, and each such rename can double the tree.
constexpr size_t kOwnPlacesWalked = 1'000;   // at least; as many as the tree has nodes if that is more
constexpr size_t kIdlePlacesMade = 100'000;  // by all such renames of a tree together

bool IsAtOrBelow(const OPNode* node, const OPNode& top) {
  while (node != nullptr && node != &top) {
    node = node->parent.get();
  }
  return node != nullptr;
}

// One level of a walk: a node, its children as they were when the walk came to it, and the next of them.
struct WalkLevel {
  explicit WalkLevel(std::shared_ptr<OPNode> at) : node(std::move(at)), children(node->children) {}

  std::shared_ptr<OPNode> node;
  std::vector<std::shared_ptr<OPNode>> children;
  size_t next = 0;
};

// Calls `visit` with the levels from `top` down to each node that `enter` accepts, post-order, `top` last. Without
// recursion: paths of a hostile queue can be deeper than any stack.
template <typename Enter, typename Visit>
void WalkPostOrder(std::shared_ptr<OPNode> top, Enter enter, Visit visit) {
  std::vector<WalkLevel> levels;
  levels.emplace_back(std::move(top));
  while (!levels.empty()) {
    WalkLevel& level = levels.back();
    if (level.next < level.children.size()) {
      std::shared_ptr<OPNode> child = level.children[level.next++];
      if (enter(*child)) {
        levels.emplace_back(std::move(child));
      }
    } else {
      visit(levels);
      levels.pop_back();
    }
  }
}

}  // namespace

void OPTree::TraverseNodeDescendant(std::shared_ptr<OPNode> node, std::function<void(std::shared_ptr<OPNode>)> fn,
                                    bool exclude_self) {
  MakeRenamedNodes();
  const auto enter_all = [this](const OPNode&) {
    MakeRenamedNodes();  // of what `fn` inserted meanwhile
    return true;
  };
  WalkPostOrder(std::move(node), enter_all, [&](const std::vector<WalkLevel>& levels) {
    if (levels.size() > 1 || !exclude_self) {
      fn(levels.back().node);
    }
  });
}

void OPTree::MarkBusy(OPNode& node) {
  for (OPNode* child = &node; child->parent != nullptr && child->busy_position_ == OPNode::ChildTable::kNotBusy;
       child = child->parent.get()) {
    std::vector<OPNode*>& busy = child->parent->Table().busy;
    child->busy_position_ = static_cast<std::uint32_t>(busy.size());
    busy.push_back(child);
  }
}

void OPTree::ClearBusyIfIdle(OPNode& node) {
  for (OPNode* child = &node;
       child->parent != nullptr && child->busy_position_ != OPNode::ChildTable::kNotBusy && !child->HasWork();
       child = child->parent.get()) {
    std::vector<OPNode*>& busy = child->parent->Table().busy;
    busy[child->busy_position_] = busy.back();
    busy.back()->busy_position_ = child->busy_position_;
    busy.pop_back();
    child->busy_position_ = OPNode::ChildTable::kNotBusy;
  }
}

std::vector<OPTree::BusyNode> OPTree::BusyDescendants(OPNode& top) {
  std::vector<BusyNode> found = {{&top, 0}};
  for (size_t i = 0; i < found.size(); ++i) {
    if (const auto& table = found[i].node->table_; table != nullptr) {
      for (OPNode* child : table->busy) {
        found.push_back({child, i});
      }
    }
  }
  return found;
}

void OPTree::CancelBelow(OPNode& node) {
  const std::vector<BusyNode> busy = BusyDescendants(node);
  for (size_t i = busy.size() - 1; i > 0; --i) {  // the node itself stands first; children before parents
    for (const std::shared_ptr<OP>& op : busy[i].node->ops) {
      if (op->op != OP_RENAME) {
        op->op = OP_NONE;
      }
    }
    ClearBusyIfIdle(*busy[i].node);
  }
}

template <typename Select>
void OPTree::MoveOperations(OPNode& from, const std::shared_ptr<OPNode>& to, Select select) {
  std::vector<std::shared_ptr<OP>> staying;
  std::vector<std::shared_ptr<OP>> moving;
  for (std::shared_ptr<OP>& op : from.ops) {
    (select(*op) ? moving : staying).push_back(std::move(op));
  }
  from.ops = std::move(staying);
  from.settled_ = 0;
  for (std::shared_ptr<OP>& op : moving) {
    op->node = to;
    to->ops.push_back(std::move(op));
  }
  if (!moving.empty()) {
    MarkBusy(*to);
  }
}

void OPTree::HandleRename(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op) {
  const std::shared_ptr<OPNode> old_node = GetNodeByPath(op->path, Children::kUnseen);
  op->op = OP_RENAME;
  for (size_t i = FirstUnsettled(*node, *op); i < node->ops.size(); ++i) {
    OP& pending = *node->ops[i];
    if (pending.op == OP_DELETE || pending.op == OP_UPDATE || pending.op == OP_ATTR) {
      pending.op = OP_NONE;
    }
  }
  const FileIndexOP follow_up = CarryOwnOperations(*old_node, node);
  if (IsAtOrBelow(node.get(), *old_node) || IsAtOrBelow(old_node.get(), *node)) {
    CarryAllBelow(old_node, *node);
  } else {
    CarryBusyBelow(*old_node, *node);
  }
  ClearBusyIfIdle(*old_node);
  File(*node, op);
  if (follow_up != OP_NONE) {
    File(*node, std::make_shared<OP>(node, follow_up, "", Json::Value()));
  }
}

// Returns the kind of what still has to be done at the new place after the rename.
FileIndexOP OPTree::CarryOwnOperations(OPNode& old_node, const std::shared_ptr<OPNode>& node) {
  FileIndexOP follow_up = OP_NONE;
  MoveOperations(old_node, node, [&](OP& op) {
    const bool is_live = op.op != OP_NONE;
    if (op.op == OP_UPDATE || op.op == OP_ATTR || op.op == OP_REINDEX) {
      follow_up = op.op;
      op.op = OP_NONE;
    }
    return is_live;
  });
  return follow_up;
}

// A pending delete stays where it is: what it deleted was never at the new place.
void OPTree::CarryOperations(OPNode& from, const std::shared_ptr<OPNode>& to) {
  MoveOperations(from, to, [](const OP& op) { return op.op >= OP_UPDATE; });
}

bool OPTree::HasCarried(const OPNode& node) {
  return std::any_of(node.ops.begin(), node.ops.end(), [](const auto& op) { return op->op >= OP_UPDATE; });
}

void OPTree::CarryBusyBelow(OPNode& old_node, OPNode& node) {
  if (!old_node.children.empty() || !renames_.empty()) {
    renames_.push_back({clock_, &old_node, &node});
  }
  const std::vector<BusyNode> busy = BusyDescendants(old_node);
  std::vector<OPNode*> targets(busy.size(), nullptr);
  targets[0] = &node;
  const auto make_target = [&](size_t index) {
    std::vector<size_t> missing;
    for (; targets[index] == nullptr; index = busy[index].parent) {
      missing.push_back(index);
    }
    OPNode* target = targets[index];
    for (; !missing.empty(); missing.pop_back()) {
      target = target->FindOrMakeChild(busy[missing.back()].node->name, clock_);
      targets[missing.back()] = target;
    }
    return target;
  };
  for (size_t i = busy.size() - 1; i > 0; --i) {
    OPNode& from = *busy[i].node;
    if (HasCarried(from)) {
      CarryOperations(from, make_target(i)->shared_from_this());
    }
    ClearBusyIfIdle(from);
  }
}

void OPTree::CarryAllBelow(const std::shared_ptr<OPNode>& old_node, OPNode& node) {
  MakeRenamedNodes();
  const std::uint32_t start = clock_;
  size_t own_places_left = std::max<size_t>(kOwnPlacesWalked, start);
  const auto enter = [&](const OPNode& child) {
    return child.created_ < start || (own_places_left > 0 && own_places_left-- > 0);
  };
  std::vector<OPNode*> targets = {&node};  // of the levels of the walk, as far as they are made
  WalkPostOrder(old_node, enter, [&](const std::vector<WalkLevel>& levels) {
    if (levels.size() == 1) {
      return;
    }
    OPNode& from = *levels.back().node;
    if (HasCarried(from) || nested_places_ + (clock_ - start) < kIdlePlacesMade) {
      while (targets.size() < levels.size()) {
        targets.push_back(targets.back()->FindOrMakeChild(levels[targets.size()].node->name, clock_));
      }
      CarryOperations(from, targets.back()->shared_from_this());
      ClearBusyIfIdle(from);
    }
    if (targets.size() == levels.size()) {
      targets.pop_back();
    }
  });
  nested_places_ += clock_ - start;
}

// Makes the idle places of earlier renames, and puts all nodes into the order in which they would stand had each rename
// made its places at once: goes through the making of nodes and the renames again, in the order of time.
void OPTree::MakeRenamedNodes() {
  if (renames_.empty()) {
    return;
  }
  std::vector<std::pair<std::uint32_t, std::shared_ptr<OPNode>>> made;  // with the time, parents before children
  made.emplace_back(0, root_);
  UnattachedNodes unattached;
  for (size_t i = 0; i < made.size(); ++i) {
    const std::shared_ptr<OPNode> node = made[i].second;
    for (std::shared_ptr<OPNode>& child : node->children) {
      unattached.emplace(std::pair(node.get(), std::string_view(child->name)), child);
      made.emplace_back(child->created_, std::move(child));
    }
    node->ForgetChildren();
  }
  std::stable_sort(made.begin(), made.end(),
                   [](const auto& left, const auto& right) { return left.first < right.first; });

  clock_ = 0;
  auto next = made.begin();
  const auto attach_until = [&](std::uint32_t time) {
    for (; next != made.end() && next->first < time; ++next) {
      if (OPNode* parent = next->second->parent.get(); parent != nullptr) {
        FindOrAttachChild(*parent, next->second->name, unattached);
      }
    }
  };
  const std::vector<SubtreeRename> renames = std::move(renames_);
  renames_.clear();
  for (const SubtreeRename& rename : renames) {
    attach_until(rename.time);
    MirrorBelow(*rename.from, *rename.to, unattached);
  }
  attach_until(std::numeric_limits<std::uint32_t>::max());
}

// Gives `to` every place that there is below `from`.
void OPTree::MirrorBelow(OPNode& from, OPNode& to, UnattachedNodes& unattached) {
  std::vector<std::pair<OPNode*, OPNode*>> pairs = {{&from, &to}};
  while (!pairs.empty()) {
    const auto [source, target] = pairs.back();
    pairs.pop_back();
    for (const std::shared_ptr<OPNode>& child : source->children) {
      pairs.emplace_back(child.get(), FindOrAttachChild(*target, child->name, unattached));
    }
  }
}

OPNode* OPTree::FindOrAttachChild(OPNode& parent, std::string_view name, UnattachedNodes& unattached) {
  if (OPNode* const child = parent.FindChild(name); child != nullptr) {
    return child;
  }
  const auto it = unattached.find(std::pair(&parent, name));
  if (it == unattached.end()) {
    return parent.AddChild(name, clock_++);
  }
  OPNode* const child = it->second.get();
  child->created_ = clock_++;
  parent.children.push_back(std::move(it->second));
  unattached.erase(it);
  return child;
}

}  // namespace orbisk::fileindex
