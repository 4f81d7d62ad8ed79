// The management operations: what front ends and the box call to change what is indexed.
#pragma once

#include <json/json.h>

#include <string>

#include "orbisk/export.h"

enum AUTH_TYPE : int;  // where the box knows an account from, nimo/home.h of the platform

namespace orbisk::fileindex {

// Each call reads the configuration afresh, changes it, stores it, and tells the others: search daemon, indexing
// daemon, change monitor, companion services. Nothing is rolled back: what was done before a failure stays done, and
// what comes after it is not. A share is indexed while at least one configured folder lies in it.
//
// All functions but PrepareServices throw Error: as FolderMgr when the configuration cannot be read or stored, 800 for
// a share that does not exist, 502 when the change monitor or the platform refuses, what SendRequest (orbisk/comm.h)
// and SendCommandToDaemon throw for the daemons, and what AddCustomEvent throws. Codes named below come besides.
//
// Calls can take very long, as they wait out a search daemon that is busy. Threads: any.

// Folders. "Share path" is the key of a folder: "/", the share's name, and what is below it.
//
// FolderAdd, FolderSet and FolderDelete hold the lock file /tmp/orbisk_cfg_folder.lock until they return; they throw
// Error 506 if it cannot be had.

/// Adds the folders of the array `folder_list`, each an object as Folder reads it, in order.
///
/// All are looked at before anything is stored or told: Error 120 for a list that is no array or a folder that cannot
/// be read, 903 "Path cannot index: <path>", 901 "Duplicated ID: <path>" for a folder that is configured, earlier in
/// this list included, and 1003 for a share whose volume is full. An empty list changes nothing and starts the
/// companion services. With `updater_mode`, for the upgrade of the package, nobody asks whether paths can be indexed,
/// and no events are queued.
ORBISK_EXPORT void FolderAdd(const Json::Value& folder_list, bool updater_mode);

/// As FolderAdd, and replaces folders that are configured. The index of a share is not made: that is for FolderAdd.
ORBISK_EXPORT void FolderSet(const Json::Value& folder_list, bool updater_mode);

/// Removes the folders with the share paths of the array `path_list`, with index and index data where a share is left
/// without any; paths that are not configured count too. Stops the companion services if no folder is left at all.
/// Throws Error 120 for a list that is no array, an element that is no string, and a malformed path.
ORBISK_EXPORT void FolderDelete(const Json::Value& path_list);
/// Removes all folders of the share `share_name`, as the other does.
ORBISK_EXPORT void FolderDelete(const std::string& share_name);
/// The same: without this, a literal could be a list as well as a share's name.
ORBISK_EXPORT void FolderDelete(const char* share_name);

/// Has the share paths of the array `path_list` compared with the disk; a share whose index must be rebuilt gets a new
/// one instead. They need not be configured; those in shares that are not indexed are passed over. Throws as
/// FolderDelete, before anything is queued. Takes no lock.
ORBISK_EXPORT void FolderReindex(const Json::Value& path_list);

/// Sets `answer` to one page of folders: {"folder": [...], "total": the count before paging, "offset": `offset`}. The
/// arguments are those of FolderMgr::List, `additional` is that of Folder::GetDataWithAdditional.
ORBISK_EXPORT void FolderList(Json::Value& answer, unsigned long offset, unsigned long limit,
                              const std::string& sort_by, const std::string& sort_direction, const std::string& group,
                              const std::string& keyword, const Json::Value& additional);

/// Sets `answer` to the folder with the share path `path`. Throws Error 902 with the path if it is not configured.
ORBISK_EXPORT void FolderGet(Json::Value& answer, const std::string& path);

/// Sets `answer` to the array of all groups, sorted.
ORBISK_EXPORT void FolderListGroups(Json::Value& answer);

/// Sets `answer` to {"items": [...], "status": of all together}. The items are the folders without a group, in order,
/// each the object of Folder::GetStatus with "name" besides, and then the groups, sorted: {"name", "text", "group":
/// true}.
///
/// Statuses are taken together one after another, beginning with "finished": "error" stays, "need_reindex" comes before
/// "paused", and both give way to "processing", and this to a "need_reindex" that comes later. A group's status is that
/// of its folders together.
ORBISK_EXPORT void FolderSummary(Json::Value& answer);

// Shares. The box calls these when something became of a share. None takes the lock of the configuration. An empty
// argument is Error 120 "Missing ...". But for ShareRename, ShareClearPaused and ShareCheckRecycle, nothing is done for
// a share that is not indexed.

/// The share `share_from` is called `share_to` now, which exists: its folders, index and documents follow.
ORBISK_EXPORT void ShareRename(const std::string& share_from, const std::string& share_to);

/// The share `share_name` lies at the full path `path_to` now instead of `path_from`: index and documents follow.
ORBISK_EXPORT void ShareMigrate(const std::string& share_name, const std::string& path_from,
                                const std::string& path_to);

/// Stops indexing a share and closes its index. Changes from now on are recorded by nobody.
ORBISK_EXPORT void SharePause(const std::string& share_name);

/// Opens the index of a share that was paused and goes on. Changes made meanwhile are missed: FolderReindex finds them.
ORBISK_EXPORT void ShareResume(const std::string& share_name);

/// Replaces the index of a share by a new one and fills it.
ORBISK_EXPORT void ShareRebuild(const std::string& share_name);

/// Forgets a paused share, which need not exist any more: index data, index, folders. `share_path` is the full path of
/// its folder.
ORBISK_EXPORT void ShareClearPaused(const std::string& share_name, const std::string& share_path);

/// Removes the index of a share that is to go or cannot be indexed any more, with its data; the folders stay
/// configured. A share that is gone already loses its index, and then this fails with Error 800.
ORBISK_EXPORT void ShareAutoClean(const std::string& share_name);

/// The recycle bin of a share was switched on or off: has the bin compared with the disk. Does nothing while the
/// share's folder is missing.
ORBISK_EXPORT void ShareCheckRecycle(const std::string& share_name);

// Volumes. `mount_point` is the root folder of a volume, without "/" at the end; a folder lies on it if its full path
// is below. None takes the lock of the configuration. An empty argument is Error 120 "Missing mount point".

/// A volume is about to go: its folders are paused, and marked with it, and the monitor lets go of their shares.
ORBISK_EXPORT void VolumePause(const std::string& mount_point);

/// A volume is back: its folders go on, those too that SharePause paused. Their mark stays.
ORBISK_EXPORT void VolumeResume(const std::string& mount_point);

/// A volume will not come back: forgets all folders of each share that has a paused folder marked with it, and the
/// share's index. Index data is left where it is.
ORBISK_EXPORT void VolumeClearPaused(const std::string& mount_point);

// Homes and accounts. None takes the lock of the configuration.

/// The homes of accounts of the type `auth_type` were switched on: has their recycle bins compared with the disk. What
/// the platform cannot answer is logged and ends it.
ORBISK_EXPORT void HomeEnable(AUTH_TYPE auth_type);

/// Homes were switched off: as HomeEnable for the recycle bins of all homes, whatever `auth_type`.
ORBISK_EXPORT void HomeDisable(AUTH_TYPE auth_type);

/// The account `user_from` is called `user_to` now: the folders in its home, and their documents, follow. An empty
/// argument is Error 120 "Missing ...".
ORBISK_EXPORT void UserRename(const std::string& user_from, const std::string& user_to);

// Services.

/// Starts the companion services if any folder is configured, else stops them. Never throws: what fails is logged, and
/// a configuration that cannot be read switches nothing.
ORBISK_EXPORT void PrepareServices();

/// Builds the search-term suggestions of each indexed share for which the search daemon has none. While one is built,
/// "term.sugg.running" stands in the share's database folder; it stays if the build breaks off.
ORBISK_EXPORT void UpdateTermSuggestion();

}  // namespace orbisk::fileindex
