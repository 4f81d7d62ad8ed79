// One indexed folder.
#pragma once

#include <json/json.h>

#include <memory>
#include <string>
#include <vector>

#include "orbisk/export.h"

namespace orbisk::fileindex {

class FolderStatusReader;
class FullPaths;
struct FolderFields;

/// One entry of the indexed-folder configuration: a folder of a share, and the kinds of files that are indexed in it.
///
/// Two things are found out on first use and kept: the share's name, and the full path.
///
/// Threads: one object is used by one thread at a time, also for reading.
class ORBISK_EXPORT Folder {
 public:
  /// An entry from its fields. `path` is a share path and is taken as it is. The fourth argument is ignored: an entry
  /// made here has no group, and no volume to be cleaned.
  Folder(const std::string& path, const std::string& name, const std::string& owner, const std::string& group,
         bool document, bool audio, bool video, bool photo, bool privileged, bool paused);

  /// An entry from the object that GetData gives; "owner", "group", "privileged", "paused" and "volume_to_be_clean" may
  /// be missing. Throws Error 120 for a missing or mistyped member, the first in the order path, name, document, audio,
  /// video, photo, and as Validate.
  explicit Folder(const Json::Value& data);

  Folder(const Folder&) = default;
  Folder& operator=(const Folder&) = delete;

  std::string GetPath() const { return path_; }
  std::string GetName() const { return name_; }
  std::string GetOwner() const { return owner_; }
  std::string GetGroup() const { return group_; }
  std::string GetVolumeToBeClean() const { return volume_to_be_clean_; }
  bool IsDocument() const { return document_; }
  bool IsAudio() const { return audio_; }
  bool IsVideo() const { return video_; }
  bool IsPhoto() const { return photo_; }
  bool IsPrivileged() const { return privileged_; }
  /// The entry's own switch, which is kept and reported and has no part in GetStatus.
  bool IsPaused() const { return paused_; }

  void SetPaused(bool paused) { paused_ = paused; }
  void SetVolumeToBeClean(const std::string& volume) { volume_to_be_clean_ = volume; }
  /// Gives the entry another share path; share and full path are found out anew.
  void SetPath(const std::string& path);

  /// The name of the share. Throws Error 120 if the path does not begin with "/".
  std::string GetShare() const;
  /// Puts the share `share` into the path in place of the present one. A full path that was found out already stays as
  /// it is. Throws as GetShare.
  void SetShare(const std::string& share);
  /// Where the folder lies in the file system. Throws as GetShare, and Error 800 if there is no such share.
  std::string GetFullPath() const;

  /// The object that is stored: "path", "name", "document", "audio", "video", "photo", "paused", "owner", "group",
  /// "privileged", "volume_to_be_clean".
  Json::Value GetData() const;
  /// The kinds alone: "document", "audio", "video", "photo".
  Json::Value GetIndexCfg() const;

  /// Whether the share's queue still holds events at or below the folder. Throws what the share, the configuration and
  /// the queue throw.
  bool IsIndexing() const;

  /// Sets members of `status`: "text" to "error" (then "desc" is "invalid_path"), "need_reindex", "paused",
  /// "processing" or "finished". A pause shows only while events are queued. Throws what the share, path and queue
  /// questions throw.
  void GetStatus(Json::Value& status) const;

  /// GetData, with what is asked for in the array `additional` below "additional". There is only "status". Throws Error
  /// 120 for anything else, and as GetStatus.
  Json::Value GetDataWithAdditional(const Json::Value& additional) const;

  /// Throws Error 120 if the group is "all", which is reserved.
  void Validate() const;

 private:
  friend class FullPaths;
  friend struct FolderFields;
  friend ORBISK_EXPORT Json::Value GetDataWithAdditional(const std::vector<std::shared_ptr<Folder>>& folders,
                                                         const Json::Value& additional);
  Json::Value GetDataWithAdditional(const Json::Value& additional, FolderStatusReader& reader) const;

  std::string path_;
  std::string name_;
  std::string owner_;
  std::string group_;
  std::string volume_to_be_clean_;
  bool document_ = false;
  bool audio_ = false;
  bool video_ = false;
  bool photo_ = false;
  bool privileged_ = false;
  bool paused_ = false;
  mutable std::string share_;
  mutable std::string full_path_;
};

/// An array of what Folder::GetDataWithAdditional says of each of `folders`, in order, with the errors that it has.
/// Each queue file is read once for all of them, and the status file once.
ORBISK_EXPORT Json::Value GetDataWithAdditional(const std::vector<std::shared_ptr<Folder>>& folders,
                                                const Json::Value& additional);

}  // namespace orbisk::fileindex
