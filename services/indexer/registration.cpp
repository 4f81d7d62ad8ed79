// One JSON file for each registration.
#include "services/indexer/registration.h"

#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "nimo/monitor_queue.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "services/base/json_text.h"
#include "services/indexer/policy.h"
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

struct Found {
  std::optional<Json::Value> registration;  // an object
  bool unknown = false;                     // the folder cannot be read
};

Found Find(const std::string& folder, const std::string& queue) {
  std::error_code error;
  for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
    std::optional<Json::Value> registration = service::FromText(ContentOf(at->path()));
    if (registration && registration->isObject() && (*registration)["queue"] == Json::Value(queue)) {
      return {std::move(registration), false};
    }
  }
  return {std::nullopt, static_cast<bool>(error)};
}

}  // namespace

bool IsRegistered(const std::string& folder, const std::string& queue) {
  const Found found = Find(folder, queue);
  return found.unknown || found.registration;
}

bool HasRegistration(const std::string& folder, const std::string& queue) {
  return Find(folder, queue).registration.has_value();
}

bool Watches(const std::string& folder, const std::string& queue, const std::vector<std::string>& paths) {
  const Found found = Find(folder, queue);
  if (!found.registration) {
    return true;
  }
  const Json::Value& config = (*found.registration)["config"];
  return std::all_of(paths.begin(), paths.end(), [&config](const std::string& path) {
    return std::any_of(config.begin(), config.end(), [&path](const Json::Value& watched) {
      return watched.isObject() && watched["path"].isString() && IsAtOrBelow(path, watched["path"].asString());
    });
  });
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
