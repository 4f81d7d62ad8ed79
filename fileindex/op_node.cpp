// A node of the operation tree: its children, its path and its operations.
#include "fileindex/op_node.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace orbisk::fileindex {
namespace {

// Up to here looking through the children is quicker than hashing, and most folders stay below.
constexpr size_t kLinearSearchLimit = 16;

}  // namespace

OPNode::OPNode(std::shared_ptr<OPNode> parent_node, const std::string& node_name)
    : name(node_name), parent(std::move(parent_node)), busy_position_(ChildTable::kNotBusy) {}

OPNode::~OPNode() {
  // The last node of a deep chain lets go of its ancestors one by one: each doing so in its own destructor would
  // nest as deep as the chain is long.
  std::shared_ptr<OPNode> ancestor = std::move(parent);
  while (ancestor != nullptr && ancestor.use_count() == 1) {
    ancestor = std::move(ancestor->parent);
  }
}

OPNode::ChildTable& OPNode::Table() {
  if (table_ == nullptr) {
    table_ = std::make_unique<ChildTable>();
  }
  return *table_;
}

OPNode* OPNode::FindChild(std::string_view child_name) {
  if (children.size() <= kLinearSearchLimit) {
    const auto it = std::find_if(children.begin(), children.end(),
                                 [&](const std::shared_ptr<OPNode>& child) { return child->name == child_name; });
    return it == children.end() ? nullptr : it->get();
  }
  NameIndex& by_name = Table().by_name;
  while (by_name.size() < children.size()) {
    by_name.Append(children[by_name.size()]->name);
  }
  const std::uint32_t position =
      by_name.Find(child_name, [&](std::uint32_t index) { return std::string_view(children[index]->name); });
  return position == NameIndex::kNone ? nullptr : children[position].get();
}

OPNode* OPNode::AddChild(std::string_view child_name, std::uint32_t created) {
  children.push_back(std::make_shared<OPNode>(shared_from_this(), std::string(child_name)));
  OPNode* const child = children.back().get();
  child->created_ = created;
  return child;
}

OPNode* OPNode::FindOrMakeChild(std::string_view child_name, std::uint32_t& clock) {
  OPNode* const child = FindChild(child_name);
  return child != nullptr ? child : AddChild(child_name, clock++);
}

std::shared_ptr<OPNode> OPNode::GetChild(const std::string& child_name) {
  OPNode* child = FindChild(child_name);
  if (child == nullptr) {
    child = AddChild(child_name, children.empty() ? created_ : children.back()->created_);
  }
  return child->shared_from_this();
}

std::string OPNode::GetPath() const {
  size_t length = name.size();
  for (const OPNode* node = this; node->parent != nullptr; node = node->parent.get()) {
    length += 1 + node->parent->name.size();
  }
  std::string path(length, '/');
  size_t end = length;
  for (const OPNode* node = this; node != nullptr; node = node->parent.get()) {
    node->name.copy(&path[end - node->name.size()], node->name.size());
    end -= node->name.size() + (node->parent != nullptr ? 1 : 0);
  }
  return path;
}

void OPNode::TraverseOP(std::function<void(std::shared_ptr<OP>)> fn) {
  const std::vector<std::shared_ptr<OP>> existing = ops;
  for (const std::shared_ptr<OP>& op : existing) {
    if (op->op != OP_NONE) {
      fn(op);
    }
  }
}

bool OPNode::HasWork() const {
  return (table_ != nullptr && !table_->busy.empty()) ||
         std::any_of(ops.begin(), ops.end(), [](const std::shared_ptr<OP>& op) { return op->op != OP_NONE; });
}

void OPNode::ForgetChildren() {
  children.clear();
  if (table_ != nullptr) {
    table_->by_name.Clear();
  }
}

std::ostream& operator<<(std::ostream& stream, std::shared_ptr<OPNode> node) {
  stream << "Node[" << node->name << "]: " << std::endl;
  for (const std::shared_ptr<OP>& op : node->ops) {
    stream << "  " << op << std::endl;
  }
  return stream;
}

}  // namespace orbisk::fileindex
