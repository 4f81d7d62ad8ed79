// One indexed folder.
#include "orbisk/fileindex/folder.h"

#include "common/check.h"
#include "fileindex/folder_status.h"
#include "fileindex/full_path_index.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/json.h"

namespace orbisk::fileindex {
namespace {

constexpr char kAll[] = "all";

}  // namespace

Folder::Folder(const std::string& path, const std::string& name, const std::string& owner, const std::string&,
               bool document, bool audio, bool video, bool photo, bool privileged, bool paused)
    : path_(path),
      name_(name),
      owner_(owner),
      document_(document),
      audio_(audio),
      video_(video),
      photo_(photo),
      privileged_(privileged),
      paused_(paused) {
  Validate();
}

Folder::Folder(const Json::Value& data) {
  GetJsonValue(path_, data, "path", true);
  GetJsonValue(name_, data, "name", true);
  GetJsonValue(document_, data, "document", true);
  GetJsonValue(audio_, data, "audio", true);
  GetJsonValue(video_, data, "video", true);
  GetJsonValue(photo_, data, "photo", true);
  GetJsonValue(owner_, data, "owner", false);
  GetJsonValue(group_, data, "group", false);
  GetJsonValue(privileged_, data, "privileged", false);
  GetJsonValue(paused_, data, "paused", false);
  GetJsonValue(volume_to_be_clean_, data, "volume_to_be_clean", false);
  Validate();
}

void Folder::SetPath(const std::string& path) {
  path_ = path;
  share_.clear();
  full_path_.clear();
  FullPathIndex::NotePathChange();
}

std::string Folder::GetShare() const {
  if (share_.empty()) {
    GetShareNameByPath(share_, path_);
  }
  return share_;
}

void Folder::SetShare(const std::string& share) {
  path_ = ReplacePathShare(path_, share, GetShare());
  share_ = share;
}

std::string Folder::GetFullPath() const {
  if (full_path_.empty()) {
    orbisk::fileindex::GetFullPath(full_path_, path_);
  }
  return full_path_;
}

Json::Value Folder::GetData() const {
  Json::Value data = GetIndexCfg();
  data["path"] = path_;
  data["name"] = name_;
  data["paused"] = paused_;
  data["owner"] = owner_;
  data["group"] = group_;
  data["privileged"] = privileged_;
  data["volume_to_be_clean"] = volume_to_be_clean_;
  return data;
}

Json::Value Folder::GetIndexCfg() const {
  Json::Value kinds;
  kinds["document"] = document_;
  kinds["audio"] = audio_;
  kinds["video"] = video_;
  kinds["photo"] = photo_;
  return kinds;
}

bool Folder::IsIndexing() const {
  return FolderStatusReader({this}).IsIndexing(*this);
}

void Folder::GetStatus(Json::Value& status) const {
  FolderStatusReader({this}).GetStatus(*this, status);
}

Json::Value Folder::GetDataWithAdditional(const Json::Value& additional) const {
  FolderStatusReader reader({this});
  return GetDataWithAdditional(additional, reader);
}

// The parameter's spelling is what log readers know.
Json::Value Folder::GetDataWithAdditional(const Json::Value& addiitionals, FolderStatusReader& reader) const {
  Json::Value data = GetData();
  ORBISK_CHECK(!addiitionals.isArray(), 120, toString(addiitionals));
  for (const Json::Value& it : addiitionals) {
    ORBISK_CHECK(!it.isString(), 120, toString(it));
    ORBISK_CHECK(it.asString() != "status", 120, "Unknown additioal: " + it.asString());
    reader.GetStatus(*this, data["additional"]["status"]);
  }
  return data;
}

void Folder::Validate() const {
  ORBISK_CHECK(kAll == group_, 120, "\"all\" is reserved group name");
}

Json::Value GetDataWithAdditional(const std::vector<std::shared_ptr<Folder>>& folders, const Json::Value& additional) {
  std::vector<const Folder*> asked;
  asked.reserve(folders.size());
  for (const auto& folder : folders) {
    asked.push_back(folder.get());
  }
  FolderStatusReader reader(std::move(asked));
  Json::Value answer(Json::arrayValue);
  for (const auto& folder : folders) {
    answer.append(folder->GetDataWithAdditional(additional, reader));
  }
  return answer;
}

}  // namespace orbisk::fileindex
