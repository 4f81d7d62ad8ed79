// The order in which a batch is applied.
#include "services/indexer/pass.h"

#include <algorithm>

#include "orbisk/fileindex/optree.h"

namespace fileindexd {

namespace fi = orbisk::fileindex;

void Pass::Take(const fi::OP& operation) {
  std::string path = operation.node->GetPath();
  switch (operation.op) {
    case fi::OP_DELETE:
    case fi::OP_UPDATE:
      singles_.push_back({std::move(path)});
      break;
    case fi::OP_ATTR:
      singles_.push_back({std::move(path), true});
      break;
    case fi::OP_RENAME:
      trees_.push_back(operation.path);
      trees_.push_back(path);
      renames_.emplace_back(operation.path, std::move(path));
      break;
    case fi::OP_UPDATE_DIRECTORY:
    case fi::OP_REINDEX:
      TakeTree(std::move(path));
      break;
    case fi::OP_QUEUE_CRASHED:
      events_lost_ = true;
      doubt_ = true;
      break;
    case fi::OP_NONE:
      break;
  }
}

void Pass::PutOffRecovery() {
  events_lost_ = false;
  doubt_ = true;
}

void Pass::Apply(Reconciler& reconciler, Progress& progress, bool again) {
  if (events_lost_) {
    trees_.push_back(share_folder_);
  }
  ReduceTrees();
  progress.AddWork(singles_.size() + anew_.size());
  reconciler.remember_reads = !trees_.empty();
  for (const auto& [from, to] : renames_) {
    reconciler.Move(from, to);
  }
  for (const Single& single : singles_) {
    single.attributes ? reconciler.UpdateAttributes(single.path, doubt_) : reconciler.Update(single.path, again);
  }
  for (const std::string& path : anew_) {
    reconciler.Update(path, false);
  }
  for (const std::string& tree : trees_) {
    if (tree == share_folder_) {
      // What asked for this may have come in the place of a rename of the share.
      reconciler.RemoveOutside(tree);
    }
    reconciler.Tree(tree);
  }
}

// A tree within another one is looked through with it.
void Pass::ReduceTrees() {
  std::sort(trees_.begin(), trees_.end());
  std::vector<std::string> outer;
  for (std::string& tree : trees_) {
    // Sorted by bytes, so "/a!" stands between "/a" and "/a/b": each path above has to be looked for.
    std::string above = tree;
    bool inside = false;
    while (!above.empty() && !inside) {
      inside = std::binary_search(outer.begin(), outer.end(), above);
      above.resize(above.rfind('/') == std::string::npos ? 0 : above.rfind('/'));
    }
    if (!inside) {
      outer.push_back(std::move(tree));
    }
  }
  trees_ = std::move(outer);
}

}  // namespace fileindexd
