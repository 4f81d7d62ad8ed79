// The tree of pending operations that a queue file folds into.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orbisk/export.h"
#include "orbisk/fileindex/op.h"

namespace orbisk::fileindex {

/// One path component and the operations filed on exactly that path. Always owned by a shared pointer.
///
/// Threads: belongs to its tree, see OPTree.
class ORBISK_EXPORT OPNode : public std::enable_shared_from_this<OPNode> {
 public:
  OPNode(std::shared_ptr<OPNode> parent, const std::string& name);
  ~OPNode();
  OPNode(const OPNode&) = delete;
  OPNode& operator=(const OPNode&) = delete;

  /// The child called `name`, byte by byte, made at the end of `children` if there is none.
  std::shared_ptr<OPNode> GetChild(const std::string& name);

  /// The absolute path: "" for the root, "/a/b" for a node b below a node a below the root.
  std::string GetPath() const;

  /// Calls `fn` for the operations in `ops` at the time of the call, in order, that are not OP_NONE when their turn
  /// comes. `fn` may change `ops` and cancel operations.
  void TraverseOP(std::function<void(std::shared_ptr<OP>)> fn);

  std::string name;  ///< "" for the root
  std::shared_ptr<OPNode> parent;
  /// In the order made; names are unique. The rename of a folder makes those places below its new name that nothing is
  /// pending on when the tree next hands out a node or walks.
  std::vector<std::shared_ptr<OPNode>> children;
  std::vector<std::shared_ptr<OP>> ops;  ///< in the order filed; cancelled ones stay

 private:
  friend class OPTree;
  struct ChildTable;

  ORBISK_LOCAL ChildTable& Table();
  ORBISK_LOCAL OPNode* FindChild(std::string_view child_name);
  ORBISK_LOCAL OPNode* FindOrMakeChild(std::string_view child_name, std::uint32_t& clock);
  ORBISK_LOCAL OPNode* AddChild(std::string_view child_name, std::uint32_t created);
  ORBISK_LOCAL bool HasWork() const;
  ORBISK_LOCAL void ForgetChildren();

  std::unique_ptr<ChildTable> table_;  // made when a node first needs it; most nodes are files
  std::uint32_t created_ = 0;          // the tree's clock when the node was made
  std::uint32_t settled_ = 0;          // as many operations at the front that never react again
  std::uint32_t busy_position_;        // in the parent's list of busy children
};

/// "Node[name]: " and a line for every operation of the node, cancelled ones included.
ORBISK_EXPORT std::ostream& operator<<(std::ostream& stream, std::shared_ptr<OPNode> node);

/// The pending operations of one queue file, folded: a later event on a path cancels, replaces or merges with earlier
/// ones on that path and below it, so that a burst of events becomes few operations that leave the index right.
///
/// Threads: a tree, its nodes and its operations are used by one thread at a time.
/// Ownership: nodes own their parents and children, operations their nodes. The tree unties them when it is destroyed;
/// an operation or node that is kept beyond that keeps its path.
class ORBISK_EXPORT OPTree {
 public:
  /// Reads the queue file at `queue_path` into the tree. Throws as BuildTree.
  explicit OPTree(const std::string& queue_path);
  ~OPTree();
  OPTree(const OPTree&) = delete;
  OPTree& operator=(const OPTree&) = delete;

  /// Reads the queue file line by line and inserts each event. A bad line leaves a record and is skipped; a
  /// queue-crashed event ends the reading. Throws Error 502 if the file cannot be opened.
  void BuildTree();

  /// Folds one event into the tree. Throws Error 9999 for a path that is not absolute and plain (see GetNodeByPath) and
  /// Error 120 for switches that are not an object; what earlier bits of the event filed then stays. A rename between a
  /// folder and its own ancestor, which no file system makes, carries what it carried again where it comes to it, up to
  /// as many places as the tree has.
  void InsertEvent(std::shared_ptr<Event> event);

  /// Delivers the pending operations to `fn` in the order they were first filed and returns how many were filed,
  /// cancelled ones included. A crashed queue delivers one OP_QUEUE_CRASHED on the root instead, and returns 1. May be
  /// called again and delivers again. An exception of `fn` ends the delivery and comes out here.
  int ProcessOP(std::function<void(std::shared_ptr<OP>)> fn);

  /// The node of an absolute path, made with its ancestors if missing. Throws Error 9999 if `path` is relative, is "/"
  /// or empty, or holds an empty component; nodes made on the way stay.
  std::shared_ptr<OPNode> GetNodeByPath(const std::string& path);

  /// Calls `fn` for the nodes below `node`, each after all nodes below it and siblings in the order made, and then for
  /// `node` itself unless `exclude_self`. `fn` may change the tree.
  void TraverseNodeDescendant(std::shared_ptr<OPNode> node, std::function<void(std::shared_ptr<OPNode>)> fn,
                              bool exclude_self);

  // The steps of InsertEvent, one for each kind of event. Each sets the kind of `op`, lets the operations pending on
  // `node` react to it and files it on `node` unless one of them made it needless. HandleRename takes the old path from
  // `op`.
  void HandleCreate(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op);
  void HandleAttr(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op);
  void HandleDelete(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op);
  void HandleUpdateDirectory(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op);
  void HandleModify(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op);
  void HandleReindex(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op);
  void HandleRename(std::shared_ptr<OPNode> node, std::shared_ptr<OP> op);

 private:
  struct Unread {};

  /// Whether somebody may look at the children of the node that a lookup finds.
  enum class Children { kUnseen, kSeen };

  /// A folder's rename whose idle places are not made yet.
  struct SubtreeRename {
    std::uint32_t time;  ///< the clock when it happened
    OPNode* from;
    OPNode* to;
  };

  /// A busy node, and the index of its parent in the list it stands in.
  struct BusyNode {
    OPNode* node;
    size_t parent;
  };

  /// Nodes taken out of their parents' lists, by parent and name.
  using UnattachedNodes = std::map<std::pair<OPNode*, std::string_view>, std::shared_ptr<OPNode>>;

  ORBISK_LOCAL OPTree(const std::string& queue_path, Unread);

  ORBISK_LOCAL void HandleBits(const Event& event, const std::shared_ptr<OPNode>& node, const std::shared_ptr<OP>& op);
  ORBISK_LOCAL std::shared_ptr<OPNode> GetNodeByPath(const std::string& path, Children children);
  ORBISK_LOCAL OPNode* WalkPath(std::string_view path, bool& plain);
  ORBISK_LOCAL void File(OPNode& node, const std::shared_ptr<OP>& op);
  ORBISK_LOCAL void FileUnlessCancelled(OPNode& node, const std::shared_ptr<OP>& op);

  ORBISK_LOCAL static void MarkBusy(OPNode& node);
  ORBISK_LOCAL static void UpdateBusy(OPNode& node, const OP& op);
  ORBISK_LOCAL static void ClearBusyIfIdle(OPNode& node);
  ORBISK_LOCAL static std::vector<BusyNode> BusyDescendants(OPNode& top);
  ORBISK_LOCAL static void CancelBelow(OPNode& node);

  ORBISK_LOCAL static size_t FirstUnsettled(OPNode& node, const OP& incoming);
  template <typename Reactions>
  ORBISK_LOCAL static void LetPendingReact(OPNode& node, OP& incoming, const Reactions& reactions);
  template <typename Select>
  ORBISK_LOCAL static void MoveOperations(OPNode& from, const std::shared_ptr<OPNode>& to, Select select);
  ORBISK_LOCAL static FileIndexOP CarryOwnOperations(OPNode& old_node, const std::shared_ptr<OPNode>& node);
  ORBISK_LOCAL static void CarryOperations(OPNode& from, const std::shared_ptr<OPNode>& to);
  ORBISK_LOCAL void CarryBusyBelow(OPNode& old_node, OPNode& node);
  ORBISK_LOCAL static bool HasCarried(const OPNode& node);
  ORBISK_LOCAL void CarryAllBelow(const std::shared_ptr<OPNode>& old_node, OPNode& node);

  ORBISK_LOCAL void MakeRenamedNodes();
  ORBISK_LOCAL void MirrorBelow(OPNode& from, OPNode& to, UnattachedNodes& unattached);
  ORBISK_LOCAL OPNode* FindOrAttachChild(OPNode& parent, std::string_view name, UnattachedNodes& unattached);

  bool crashed_ = false;
  std::string queue_path_;
  std::shared_ptr<OPNode> root_;
  std::vector<std::shared_ptr<OP>> ops_;  // every filed operation, in filing order
  std::uint32_t clock_ = 0;               // counts nodes
  std::vector<SubtreeRename> renames_;    // in the order of time
  size_t nested_places_ = 0;              // made by renames between a folder and its own ancestor
};

}  // namespace orbisk::fileindex
