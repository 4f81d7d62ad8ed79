// The folders file's text, read and written without building JSON values.
#include "fileindex/folders_text.h"

#include <algorithm>
#include <utility>

#include "fileindex/folder_fields.h"
#include "orbisk/json.h"

namespace orbisk::fileindex {
namespace {

bool Skip(std::string_view& text, std::string_view wanted) {
  if (text.substr(0, wanted.size()) != wanted) {
    return false;
  }
  text.remove_prefix(wanted.size());
  return true;
}

bool NeedsNoEscape(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\'; });
}

// Both with what comes before the value.
bool ReadString(std::string_view& text, std::string_view before, std::string& value) {
  if (!Skip(text, before)) {
    return false;
  }
  const size_t end = text.find('"');
  if (end == std::string_view::npos || !NeedsNoEscape(text.substr(0, end))) {
    return false;
  }
  value = text.substr(0, end);
  text.remove_prefix(end + 1);
  return true;
}

bool ReadBool(std::string_view& text, std::string_view before, bool& value) {
  if (!Skip(text, before)) {
    return false;
  }
  value = Skip(text, "true");
  return value || Skip(text, "false");
}

void WriteString(std::string& text, std::string_view before, const std::string& value) {
  text += before;
  if (NeedsNoEscape(value)) {
    text += '"';
    text += value;
    text += '"';
  } else {
    text += toString(value);
  }
}

void WriteBool(std::string& text, std::string_view before, bool value) {
  text += before;
  text += value ? "true" : "false";
}

// Null if it is written in another way.
std::shared_ptr<Folder> ReadFolder(std::string_view& text) {
  bool audio = false;
  bool document = false;
  bool paused = false;
  bool photo = false;
  bool privileged = false;
  bool video = false;
  std::string group;
  std::string name;
  std::string owner;
  std::string path;
  std::string volume;
  // The reserved group is the constructor's to refuse, and only of a file that can be read as a whole.
  if (!ReadBool(text, R"({"audio":)", audio) || !ReadBool(text, R"(,"document":)", document) ||
      !ReadString(text, R"(,"group":")", group) || !ReadString(text, R"(,"name":")", name) ||
      !ReadString(text, R"(,"owner":")", owner) || !ReadString(text, R"(,"path":")", path) ||
      !ReadBool(text, R"(,"paused":)", paused) || !ReadBool(text, R"(,"photo":)", photo) ||
      !ReadBool(text, R"(,"privileged":)", privileged) || !ReadBool(text, R"(,"video":)", video) ||
      !ReadString(text, R"(,"volume_to_be_clean":")", volume) || !Skip(text, "}") || group == "all") {
    return nullptr;
  }
  auto folder = std::make_shared<Folder>("", "", "", "", document, audio, video, photo, privileged, paused);
  FolderFields::Fill(*folder, std::move(path), std::move(name), std::move(owner), std::move(group), std::move(volume));
  return folder;
}

}  // namespace

bool ReadFolders(std::string_view text, std::vector<std::shared_ptr<Folder>>& folders) {
  constexpr size_t kUsualBytes = 200;
  std::vector<std::shared_ptr<Folder>> read;
  read.reserve(text.size() / kUsualBytes);
  if (!Skip(text, "[")) {
    return false;
  }
  do {
    read.push_back(ReadFolder(text));
  } while (read.back() != nullptr && Skip(text, ","));
  if (read.back() == nullptr || text != "]") {
    return false;
  }
  folders = std::move(read);
  return true;
}

std::string WriteFolders(const std::vector<std::shared_ptr<Folder>>& folders) {
  constexpr size_t kUsualBytes = 256;
  std::string text;
  text.reserve(folders.size() * kUsualBytes);
  text = "[";
  for (const auto& folder : folders) {
    WriteBool(text, text.size() > 1 ? R"(,{"audio":)" : R"({"audio":)", folder->IsAudio());
    WriteBool(text, R"(,"document":)", folder->IsDocument());
    WriteString(text, R"(,"group":)", FolderFields::Group(*folder));
    WriteString(text, R"(,"name":)", FolderFields::Name(*folder));
    WriteString(text, R"(,"owner":)", FolderFields::Owner(*folder));
    WriteString(text, R"(,"path":)", FolderFields::Path(*folder));
    WriteBool(text, R"(,"paused":)", folder->IsPaused());
    WriteBool(text, R"(,"photo":)", folder->IsPhoto());
    WriteBool(text, R"(,"privileged":)", folder->IsPrivileged());
    WriteBool(text, R"(,"video":)", folder->IsVideo());
    WriteString(text, R"(,"volume_to_be_clean":)", FolderFields::VolumeToBeClean(*folder));
    text += '}';
  }
  text += ']';
  return text;
}

}  // namespace orbisk::fileindex
