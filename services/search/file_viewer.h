// Searching as somebody: shows the files that the account may open, and says so from the disk as it is now.
#pragma once

#include <utility>
#include <vector>

#include "services/search/account.h"
#include "services/search/viewer.h"

namespace nimoelasticd {

/// Shows a candidate if the account may read its file: the kernel is asked, as the account, to walk to it from the
/// root, which takes the right to search each folder, and then whether it may be read. So mode bits, access lists,
/// mount options and the servers of network file systems are all heeded, as they are at this moment.
///
/// The words of a candidate may be older than what lies at its path now. Whoever may write to a folder can put a file
/// of theirs in the place of one that they may not read, and would be shown the other's text until the index has caught
/// up. So a file of another owner than the document's is not shown, nor one of another date of birth where the file
/// system keeps that, and no link is followed but root's.
class FileViewer : public search::Viewer {
 public:
  /// Throws Refusal kCannotActAs.
  explicit FileViewer(Account account) : account_(std::move(account)) { const ActingAs allowed(account_); }

  /// Throws as the constructor does.
  std::vector<bool> MaySee(const std::vector<search::Candidate>& candidates) override;

 private:
  Account account_;
};

}  // namespace nimoelasticd
