// One line of JSON, replaced whole. A mark that gets lost costs a comparison and nothing else, so only its removal is
// synced: what asked for a comparison is forgotten after it.
#include "services/indexer/mark.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include "services/base/json_text.h"
#include "services/base/unique_fd.h"

namespace fileindexd {
namespace {

constexpr char kDatabaseName[] = "/index.sqlite";

[[noreturn]] void Fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), path);
}

Json::Value ToJson(const FolderSwitches& switches) {
  Json::Value value;
  value["document"] = switches.document;
  value["audio"] = switches.audio;
  value["video"] = switches.video;
  value["photo"] = switches.photo;
  value["paused"] = switches.paused;
  return value;
}

FolderSwitches SwitchesFrom(const Json::Value& value) {
  const auto is_on = [&value](const char* name) { return value[name].isBool() && value[name].asBool(); };
  return {is_on("document"), is_on("audio"), is_on("video"), is_on("photo"), is_on("paused")};
}

bool IsMark(const Json::Value& json) {
  return json.isObject() && json["folders"].isObject() && json["index"].isString() && json["pending"].isArray();
}

}  // namespace

std::string MarkPath(const std::string& queue) {
  return queue + ".mark";
}

std::optional<Mark> ReadMark(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const std::optional<Json::Value> json = service::FromText(text);
  if (!json || !IsMark(*json)) {
    return std::nullopt;
  }
  Mark mark;
  mark.index = (*json)["index"].asString();
  const Json::Value& folders = (*json)["folders"];
  for (const std::string& folder : folders.getMemberNames()) {
    if (!folders[folder].isObject()) {
      return std::nullopt;
    }
    mark.folders[folder] = SwitchesFrom(folders[folder]);
  }
  for (const Json::Value& folder : (*json)["pending"]) {
    if (!folder.isString()) {
      return std::nullopt;
    }
    mark.pending.push_back(folder.asString());
  }
  return mark;
}

void WriteMark(const std::string& path, const Mark& mark) {
  Json::Value json;
  json["index"] = mark.index;
  json["folders"] = Json::Value(Json::objectValue);
  for (const auto& [folder, switches] : mark.folders) {
    json["folders"][folder] = ToJson(switches);
  }
  json["pending"] = Json::Value(Json::arrayValue);
  for (const std::string& folder : mark.pending) {
    json["pending"].append(folder);
  }
  const std::string text = service::ToText(json) + "\n";
  const std::string next = path + ".new";
  // The folder may be somebody else's, who shall not lead us away by a link.
  unlink(next.c_str());
  const service::UniqueFd file(open(next.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (file.get() < 0) {
    Fail(next);
  }
  errno = ENOSPC;
  if (write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    const int error = errno;
    unlink(next.c_str());
    errno = error;
    Fail(next);
  }
  if (rename(next.c_str(), path.c_str()) != 0) {
    Fail(path);
  }
}

void DropMark(const std::string& path) {
  if (unlink(path.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR) {
    Fail(path);
  }
}

void SyncMark(const std::string& path) {
  const std::string parent = path.substr(0, path.rfind('/'));
  const service::UniqueFd folder(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid() && (errno == ENOENT || errno == ENOTDIR)) {
    return;
  }
  if (!folder.valid() || fsync(folder.get()) != 0) {
    Fail(parent);
  }
}

void RemoveMark(const std::string& path) {
  DropMark(path);
  SyncMark(path);
}

std::string IdentityOfIndex(const std::string& folder) {
  struct statx info {};
  const std::string path = folder + kDatabaseName;
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &info) != 0) {
    return "";
  }
  return std::to_string(info.stx_ino) + "." + std::to_string(info.stx_btime.tv_sec) + "." +
         std::to_string(info.stx_btime.tv_nsec);
}

}  // namespace fileindexd
