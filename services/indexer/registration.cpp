// One JSON file for each registration.
#include "services/indexer/registration.h"

#include <json/json.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include "nimo/monitor_queue.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "services/base/json_text.h"
#include "services/indexer/whole_file.h"

namespace fileindexd {

using NIMO::NIMOTIFYD::MONITOR_QUEUE_TYPE_APPLICATION;
using NIMO::NIMOTIFYD::MonitorQueue;

namespace {

// The library's registration of a share, which this one takes the place of, or the other way round.
constexpr char kAppName[] = "fileindex";
constexpr int kMask = 0xFFC6;
constexpr char kIgnored[] = "@eaDir";
constexpr int kRefused = 502;

}  // namespace

bool IsRegistered(const std::string& folder, const std::string& queue) {
  std::error_code error;
  for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
    const std::optional<Json::Value> registration = service::FromText(ContentOf(at->path()));
    if (registration && registration->isObject() && (*registration)["queue"] == Json::Value(queue)) {
      return true;
    }
  }
  return static_cast<bool>(error);
}

void Register(const std::string& share, const std::string& queue) {
  Json::Value description;
  description["queue"] = queue;
  Json::Value& config = description["config"] = Json::Value(Json::arrayValue);
  const orbisk::fileindex::FolderMgr folder_mgr;
  for (const std::shared_ptr<orbisk::fileindex::Folder>& folder : folder_mgr.GetFolders()) {
    if (folder->GetShare() == share) {
      Json::Value& watched = config.append(Json::Value());
      watched["path"] = folder->GetFullPath();
      watched["mask"] = kMask;
      watched["ignore"].append(kIgnored);
    }
  }
  if (!MonitorQueue::Upsert(MonitorQueue(description), kAppName, MONITOR_QUEUE_TYPE_APPLICATION)) {
    throw orbisk::Error(orbisk::Code(kRefused), "the change monitor refuses to watch the share " + share);
  }
}

}  // namespace fileindexd
