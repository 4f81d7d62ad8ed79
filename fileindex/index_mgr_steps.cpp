// Steps that several management operations take.
#define ORBISK_RECORD_FILE "index_mgr.cpp"
#include "fileindex/index_mgr_steps.h"

#include "common/check.h"
#include "fileindex/related_services.h"
#include "orbisk/fileindex/communication.h"

namespace orbisk::fileindex {

void SendWorkerCommand(const std::string& type, const std::string& share_name) {
  Json::Value data;
  data["share_name"] = share_name;
  SendCommandToDaemon(type, data);
}

void ForgetShare(FolderMgr& folder_mgr, const std::string& share_name) {
  ORBISK_NOTE("Remove share %s from folder mgr", share_name.c_str());
  folder_mgr.DeleteByShare(share_name);
}

void StopServicesIfEmpty(const FolderMgr& folder_mgr) {
  if (folder_mgr.IsEmpty()) {
    SetupRelatedServices(false);
  }
}

}  // namespace orbisk::fileindex
