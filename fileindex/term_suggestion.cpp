// The batch job that builds the search-term suggestions of shares that have none.
#define ORBISK_RECORD_FILE "index_mgr.cpp"
#include <unistd.h>

#include <fstream>
#include <set>
#include <vector>

#include "common/check.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/sdk/share.h"

namespace orbisk::fileindex {
namespace {

void FeedFolders(const FolderMgr& folder_mgr, const std::string& share_name, const std::string& db_name) {
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (folder->GetShare() == share_name) {
      std::vector<std::string> docs;
      elastic::IndexGetByPrefixPath(db_name, folder->GetFullPath(), docs);
      elastic::UpdateTermSuggestion(db_name, docs);
    }
  }
}

}  // namespace

void UpdateTermSuggestion() {
  const FolderMgr folder_mgr;
  std::vector<std::string> listed;
  elastic::ListUnAvailTermSuggDB(listed);
  const std::set<std::string> unavailable(listed.begin(), listed.end());
  for (const std::string& share_name : folder_mgr.GetIndexedShares()) {
    const sdk::SDKShare share(share_name);
    const std::string db_name = share.GetDBName();
    if (unavailable.count(db_name) == 0) {
      continue;
    }
    ORBISK_NOTE("Start building term sugg [%s]", db_name.c_str());
    const std::string term_sugg_running = share.GetDBPath() + "/term.sugg.running";
    std::ofstream ofs(term_sugg_running, std::ios::trunc);
    if (ORBISK_FAILED(!ofs)) {
      continue;
    }
    ofs.close();
    // When the search daemon fails, the marker stays and shows a build that was not finished.
    FeedFolders(folder_mgr, share_name, db_name);
    elastic::IndexCommit(share_name);
    ORBISK_NOTE("Done building term sugg [%s]", db_name.c_str());
    (void)ORBISK_FAILED(0 != unlink(term_sugg_running.c_str()));
  }
}

}  // namespace orbisk::fileindex
