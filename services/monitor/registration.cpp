// Reads the registrations that libnimo writes.
#include "services/monitor/registration.h"

#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <system_error>

#include "services/base/log.h"

namespace nimotifyd {

using service::Record;

namespace {

// Paths are compared as text, so there must be one way to write each: absolute, without empty, "." and ".." components.
bool IsPlain(const std::string& path) {
  const std::string ended = path + "/";
  return !path.empty() && path[0] == '/' && path.find('\0') == std::string::npos &&
         path.find("//") == std::string::npos && ended.find("/./") == std::string::npos &&
         ended.find("/../") == std::string::npos;
}

std::optional<std::string> FolderPath(const Json::Value& value) {
  if (!value.isString()) {
    return std::nullopt;
  }
  std::string path = value.asString();
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return IsPlain(path) ? std::optional(path) : std::nullopt;
}

// A slash at its end would make it a folder.
std::optional<std::string> QueuePath(const Json::Value& value) {
  if (!value.isString() || !IsPlain(value.asString()) || value.asString().back() == '/') {
    return std::nullopt;
  }
  return value.asString();
}

std::optional<WatchEntry> ParseEntry(const Json::Value& value) {
  if (!value.isObject() || !value["mask"].isUInt()) {
    return std::nullopt;
  }
  std::optional<std::string> path = FolderPath(value["path"]);
  const Json::Value& ignore = value["ignore"];
  if (!path || (!ignore.isNull() && !ignore.isArray())) {
    return std::nullopt;
  }
  WatchEntry entry{std::move(*path), value["mask"].asUInt(), {}};
  for (const Json::Value& name : ignore) {
    if (!name.isString()) {
      return std::nullopt;
    }
    entry.ignore.push_back(name.asString());
  }
  return entry;
}

std::optional<Json::Value> ParseJson(std::string_view text) {
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr) || !value.isObject()) {
      return std::nullopt;
    }
  } catch (const Json::Exception&) {  // nesting too deep
    return std::nullopt;
  }
  return value;
}

}  // namespace

std::optional<Registration> ParseRegistration(std::string_view text) {
  const std::optional<Json::Value> parsed = ParseJson(text);
  if (!parsed) {
    return std::nullopt;
  }
  const Json::Value& value = *parsed;
  std::optional<std::string> queue = QueuePath(value["queue"]);
  const Json::Value& config = value["config"];
  if (!queue || !value["app"].isString() || (!config.isNull() && !config.isArray())) {
    return std::nullopt;
  }
  Registration registration{value["app"].asString(), std::move(*queue), {}};
  for (const Json::Value& item : config) {
    std::optional<WatchEntry> entry = ParseEntry(item);
    if (!entry) {
      return std::nullopt;
    }
    registration.entries.push_back(std::move(*entry));
  }
  return registration;
}

std::vector<Registration> LoadRegistrations(const std::string& folder) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (std::filesystem::directory_iterator item(folder, error); !error && item != std::filesystem::end(item);
       item.increment(error)) {
    if (item->path().extension() == ".json") {
      files.push_back(item->path());
    }
  }
  std::sort(files.begin(), files.end());
  std::vector<Registration> result;
  for (const std::filesystem::path& path : files) {
    std::optional<Registration> registration;
    if (std::filesystem::is_regular_file(path, error)) {  // opening a fifo would wait for ever
      std::ifstream file(path, std::ios::binary);
      registration = ParseRegistration(std::string{std::istreambuf_iterator<char>(file), {}});
    }
    if (registration) {
      result.push_back(std::move(*registration));
    } else {
      Record(LOG_ERR, "registration_malformed").Add("file", path.native());
    }
  }
  return result;
}

}  // namespace nimotifyd
