// What has to follow a change of the configuration: companion services, the change monitor, index data on disk.
#define ORBISK_RECORD_FILE "index_mgr.cpp"
#include "fileindex/related_services.h"

#include <exception>

#include "common/check.h"
#include "fileindex/folder_fields.h"
#include "nimo/error.h"
#include "nimo/index_location.h"
#include "nimo/monitor_queue.h"
#include "nimo/process.h"
#include "nimo/service.h"
#include "nimo/smb.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/sdk/share.h"

namespace orbisk::fileindex {
namespace {

using NIMO::NIMOTIFYD::MONITOR_QUEUE_TYPE_APPLICATION;
using NIMO::NIMOTIFYD::MonitorQueue;

constexpr char kAppName[] = "fileindex";
// What the monitor writes: modify, attributes, create, delete, rename, queue crashed, and whatever it will know above.
constexpr int kMonitorMask = 0xFFC6;
constexpr size_t kPathBytes = 4096;

void SwitchSpotlight(bool enable) {
  if ((0 != NIMOSMBIsEnableSpotlight()) == enable) {
    return;
  }
  if (0 > NIMOSMBSetSpotlight(enable ? 1 : 0)) {
    ORBISK_RECORD(ORBISK_SOURCE, "NIMOSMBSetSpotlight failed: err=[0x%04X %s:%d]", static_cast<unsigned>(NLIBCErrGet()),
                  NLIBCErrorGetFile(), NLIBCErrorGetLine());
  } else if (0 > NLIBServiceRestart("samba")) {
    ORBISK_RECORD(ORBISK_SOURCE, "NLIBServiceRestart failed: err=[0x%04X %s:%d]", static_cast<unsigned>(NLIBCErrGet()),
                  NLIBCErrorGetFile(), NLIBCErrorGetLine());
  }
}

void RemoveAll(const std::string& path) {
  NLIBCExec("/bin/rm", "-rf", path.c_str(), nullptr);
}

}  // namespace

void SetupRelatedServices(bool enable) {
  SwitchSpotlight(enable);
  // A check that failed has left its record; what follows does not depend on it.
  if (enable) {
    (void)ORBISK_FAILED(0 > NLIBServiceStart("nimocontentextractd", TRUE));
    (void)ORBISK_FAILED_AT(42, 0 > NLIBServicectlStart("pkg-Orbisk-fileindexd", NLIB_SERVICECTL_UPSTART));
  } else {
    (void)ORBISK_FAILED(0 > NLIBServiceStop("nimocontentextractd", FALSE));
    (void)ORBISK_FAILED_AT(52, 0 > NLIBServicectlStop("pkg-Orbisk-fileindexd", NLIB_SERVICECTL_UPSTART));
  }
}

void PrepareServices() {
  try {
    SetupRelatedServices(!FolderMgr().IsEmpty());
  } catch (const std::exception& error) {
    LogFailure(ORBISK_SOURCE, "SetupRelatedServices(!FolderMgr().IsEmpty())", error.what());
  }
}

void UpsertNimotifydCfg(const std::string& share_name, const FolderMgr& folder_mgr) {
  const sdk::SDKShare share(share_name);
  Json::Value ignore(Json::arrayValue);
  ignore.append("@eaDir");
  // The names are not copied into each of a thousand values.
  static const Json::StaticString kPath("path");
  static const Json::StaticString kMask("mask");
  static const Json::StaticString kIgnore("ignore");
  Json::Value watch;
  watch[kMask] = kMonitorMask;
  watch[kIgnore] = ignore;
  Json::Value config(Json::arrayValue);
  FullPaths full_paths;
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (FolderFields::Share(*folder) == share_name) {
      watch[kPath] = full_paths.Of(*folder);
      config.append(watch);
    }
  }
  Json::Value description;
  description["queue"] = share.GetQueuePath();
  description["config"] = std::move(config);
  const MonitorQueue monitor_queue(description);
  ORBISK_CHECK(!MonitorQueue::Upsert(monitor_queue, kAppName, MONITOR_QUEUE_TYPE_APPLICATION), 502,
               "MonitorQueue::Upsert failed, share=" + share_name);
}

void DeleteNimotifydCfg(const std::string& share_name) {
  const sdk::SDKShare share(share_name);
  ORBISK_CHECK(!MonitorQueue::Delete(share.GetQueuePath(), kAppName, MONITOR_QUEUE_TYPE_APPLICATION), 502,
               "MonitorQueue::Delete failed, share=" + share_name);
}

void CleanShareIndexData(const std::string& share_name, const std::string& share_path) {
  char path[kPathBytes] = "";
  ORBISK_CHECK(0 > FILEIDXQueuePathCompose(share_path.c_str(), path, sizeof(path)), 502,
               "FILEIDXQueuePathCompose failed, share_path=" + share_path);
  RemoveAll(path);
  RemoveAll(std::string(path) + ".tmp");
  ORBISK_CHECK(0 > FILEIDXDBPathCompose(share_path.c_str(), path, sizeof(path)), 502,
               "FILEIDXDBPathCompose failed, share_path=" + share_path);
  RemoveAll(path);
  StatusMgr().ClearShareStatus(share_name);
}

}  // namespace orbisk::fileindex
