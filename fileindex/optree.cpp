// The operation tree: reading a queue file, folding its events, delivering the operations.
#include "orbisk/fileindex/optree.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <utility>

#include "common/check.h"
#include "fileindex/op_node.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/log_level.h"

namespace orbisk::fileindex {
namespace {

// How an operation that is pending on a node reacts to one that arrives there.
enum class Reaction {
  kKeep,          // neither changes
  kDrop,          // the incoming one is cancelled
  kBecomeDelete,  // the pending one changes its kind, the incoming one is cancelled
  kBecomeUpdate,
  kBecomeReindex,
  kBecomeUpdateDirectory,  // and takes over the incoming data
  kMergeData,              // the pending one merges the incoming data, the incoming one is cancelled
};

// By the kind of the pending operation, from OP_NONE to OP_QUEUE_CRASHED.
using Reactions = std::array<Reaction, 8>;
using enum Reaction;

// The asymmetries are wanted. A create after a delete revives it as an update while a modify leaves the delete
// standing; a delete is filed beside an update of the folder's switches or a reindex; switches replace the data of an
// update but are merged into earlier switches.
//                                none   delete         update                  attributes              switches rename
//                                reindex  crashed
constexpr Reactions kOnCreate = {kKeep, kBecomeUpdate, kDrop, kBecomeUpdate, kDrop, kKeep, kDrop, kKeep};
constexpr Reactions kOnModify = {kKeep, kDrop, kDrop, kBecomeUpdate, kDrop, kKeep, kDrop, kKeep};
constexpr Reactions kOnAttr = {kKeep, kDrop, kDrop, kDrop, kDrop, kKeep, kDrop, kKeep};
constexpr Reactions kOnDelete = {kKeep, kDrop, kBecomeDelete, kBecomeDelete, kKeep, kKeep, kKeep, kKeep};
constexpr Reactions kOnUpdateDirectory = {
    kKeep, kDrop, kBecomeUpdateDirectory, kBecomeUpdateDirectory, kMergeData, kKeep, kDrop, kKeep};
constexpr Reactions kOnReindex = {kKeep, kDrop, kBecomeReindex, kBecomeReindex, kBecomeReindex, kKeep, kDrop, kKeep};

void React(Reaction reaction, OP& pending, OP& incoming) {
  switch (reaction) {
    case kKeep:
      return;
    case kDrop:
      break;
    case kBecomeDelete:
      pending.op = OP_DELETE;
      break;
    case kBecomeUpdate:
      pending.op = OP_UPDATE;
      break;
    case kBecomeReindex:
      pending.op = OP_REINDEX;
      break;
    case kBecomeUpdateDirectory:
      pending.op = OP_UPDATE_DIRECTORY;
      pending.data = incoming.data;
      break;
    case kMergeData:
      pending.MergeData(incoming.data);
      break;
  }
  incoming.op = OP_NONE;
}

}  // namespace

OPTree::OPTree(const std::string& queue_path, Unread)
    : queue_path_(queue_path), root_(std::make_shared<OPNode>(nullptr, "")) {}

// Delegates first, so that the destructor unties what was built when reading throws.
OPTree::OPTree(const std::string& queue_path) : OPTree(queue_path, Unread()) {
  BuildTree();
}

OPTree::~OPTree() {
  ops_.clear();
  std::vector<std::shared_ptr<OPNode>> nodes = {std::move(root_)};
  while (!nodes.empty()) {
    const std::shared_ptr<OPNode> node = std::move(nodes.back());
    nodes.pop_back();
    std::move(node->children.begin(), node->children.end(), std::back_inserter(nodes));
    node->children.clear();
    node->table_.reset();
    node->ops.clear();
  }
}

void OPTree::BuildTree() {
  std::ifstream input_stream(queue_path_);
  ORBISK_CHECK(!input_stream, 502, "Failed to open queue, reason=" + GetErrnoStr());
  std::string line;
  while (std::getline(input_stream, line)) {
    if (log_level == 7) {
      ORBISK_NOTE("Got event: %s", line.c_str());
    }
    try {
      InsertEvent(std::make_shared<Event>(line));
    } catch (const Error& error) {
      ORBISK_RECORD(ORBISK_SOURCE, "InsertEvent failed, event_raw=%s, code=%d, reason=%s", line.c_str(), error.code(),
                    error.what());
    }
    if (crashed_) {
      break;  // all of the queue will be done again
    }
  }
}

void OPTree::InsertEvent(std::shared_ptr<Event> event) {
  const std::shared_ptr<OPNode> node = GetNodeByPath(event->path, Children::kUnseen);
  // One operation for all bits of the event: the second handler finds what the first one filed.
  const auto op = std::make_shared<OP>(node, OP_NONE, "", Json::Value());
  try {
    HandleBits(*event, node, op);
  } catch (const Error&) {
    UpdateBusy(*node, *op);
    throw;
  }
  UpdateBusy(*node, *op);
}

void OPTree::HandleBits(const Event& event, const std::shared_ptr<OPNode>& node, const std::shared_ptr<OP>& op) {
  const auto has = [&](EventMask bit) { return (event.event & bit) != 0; };
  if (has(EVENT_CREATE)) {
    event.is_dir ? HandleReindex(node, op) : HandleCreate(node, op);
  }
  if (has(EVENT_ATTRIB)) {
    HandleAttr(node, op);
  }
  if (has(EVENT_MODIFY)) {
    HandleModify(node, op);
  }
  if (has(EVENT_DELETE)) {
    event.is_dir ? HandleReindex(node, op) : HandleDelete(node, op);
  }
  if (has(EVENT_RENAME)) {
    op->path = event.path_old;
    HandleRename(node, op);
  }
  if (has(EVENT_REINDEX)) {
    HandleReindex(node, op);
  }
  if (has(EVENT_UPDATE_DIRECTORY)) {
    op->data = event.data;
    HandleUpdateDirectory(node, op);
  }
  if (has(EVENT_QUEUE_CRASHED)) {
    crashed_ = true;
  }
}

// A later bit can revive an operation after an earlier one cancelled it, without filing it again, and a rename can have
// carried it elsewhere meanwhile.
void OPTree::UpdateBusy(OPNode& node, const OP& op) {
  if (op.op == OP_NONE) {
    ClearBusyIfIdle(node);
  } else {
    MarkBusy(node);
    MarkBusy(*op.node);
  }
}

int OPTree::ProcessOP(std::function<void(std::shared_ptr<OP>)> fn) {
  if (crashed_) {
    ORBISK_NOTE("Queue crashed: %s", queue_path_.c_str());
    fn(std::make_shared<OP>(root_, OP_QUEUE_CRASHED, "", Json::Value()));
    return 1;
  }
  for (size_t i = 0; i < ops_.size(); ++i) {  // by index: `fn` may insert events
    const std::shared_ptr<OP> op = ops_[i];
    if (op->op != OP_NONE) {
      fn(op);
    }
  }
  return static_cast<int>(ops_.size());
}

OPNode* OPTree::WalkPath(std::string_view path, bool& plain) {
  OPNode* node = root_.get();
  plain = path.size() > 1 && path.front() == '/' && path.back() != '/';
  for (size_t begin = 0; begin < path.size();) {
    const size_t end = std::min(path.find('/', begin), path.size());
    if (end > begin) {
      node = node->FindOrMakeChild(path.substr(begin, end - begin), clock_);
    } else if (begin > 0) {
      plain = false;
    }
    begin = end + 1;
  }
  return node;
}

std::shared_ptr<OPNode> OPTree::GetNodeByPath(const std::string& path) {
  return GetNodeByPath(path, Children::kSeen);
}

std::shared_ptr<OPNode> OPTree::GetNodeByPath(const std::string& path, Children children) {
  if (children == Children::kSeen) {
    MakeRenamedNodes();
  }
  bool plain = false;
  OPNode* const node = WalkPath(path, plain);
  ORBISK_CHECK(!plain, 9999, "GetNodeByPath failed, path=" + path);
  return node->shared_from_this();
}

// The operations at the front that are cancelled or renames will never react to anything again. A file that is saved by
// renaming a new one over it gathers thousands of them. The operation of the current event may still change.
size_t OPTree::FirstUnsettled(OPNode& node, const OP& incoming) {
  const auto is_settled = [&](const OP& op) { return &op != &incoming && (op.op == OP_NONE || op.op == OP_RENAME); };
  while (node.settled_ < node.ops.size() && is_settled(*node.ops[node.settled_])) {
    ++node.settled_;
  }
  return node.settled_;
}

// Lets every live operation of `node` react to `incoming`, also after one of them has cancelled it. An operation that
// an earlier bit of the same event filed here meets itself.
template <typename Reactions>
void OPTree::LetPendingReact(OPNode& node, OP& incoming, const Reactions& reactions) {
  for (size_t i = FirstUnsettled(node, incoming); i < node.ops.size(); ++i) {
    OP& pending = *node.ops[i];
    if (pending.op != OP_NONE) {
      React(reactions[static_cast<size_t>(pending.op)], pending, incoming);
    }
  }
}

void OPTree::File(OPNode& node, const std::shared_ptr<OP>& op) {
  ops_.push_back(op);
  node.ops.push_back(op);
  MarkBusy(node);
}

void OPTree::FileUnlessCancelled(OPNode& node, const std::shared_ptr<OP>& op) {
  if (op->op != OP_NONE) {
    File(node, op);
  }
}

void OPTree::HandleCreate(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op) {
  op->op = OP_UPDATE;
  LetPendingReact(*node, *op, kOnCreate);
  FileUnlessCancelled(*node, op);
}

void OPTree::HandleModify(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op) {
  op->op = OP_UPDATE;
  LetPendingReact(*node, *op, kOnModify);
  FileUnlessCancelled(*node, op);
}

void OPTree::HandleAttr(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op) {
  op->op = OP_ATTR;
  LetPendingReact(*node, *op, kOnAttr);
  FileUnlessCancelled(*node, op);
}

void OPTree::HandleDelete(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op) {
  op->op = OP_DELETE;
  LetPendingReact(*node, *op, kOnDelete);
  FileUnlessCancelled(*node, op);
}

void OPTree::HandleUpdateDirectory(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op) {
  op->op = OP_UPDATE_DIRECTORY;
  LetPendingReact(*node, *op, kOnUpdateDirectory);
  FileUnlessCancelled(*node, op);
}

void OPTree::HandleReindex(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op) {
  op->op = OP_REINDEX;
  LetPendingReact(*node, *op, kOnReindex);
  CancelBelow(*node);
  FileUnlessCancelled(*node, op);
}

}  // namespace orbisk::fileindex
