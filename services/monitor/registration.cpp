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
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr) || !value.isObject()) {
      return std::nullopt;
    }
  } catch (const Json::Exception&) {  // nesting too deep
    return std::nullopt;
  }
  return value;
}

// Reads a registration that is written as libnimo writes one, without escapes: all that changes its folders writes all
// of them anew, and building JSON values is nearly all of what reading them costs. Every other text is the parser's.
class PlainReader {
 public:
  explicit PlainReader(std::string_view text) : rest_(text) {}

  std::optional<Registration> Read() {
    Registration registration;
    bool good = Skip(R"({"app":)") && ReadString(registration.app) && Skip(R"(,"config":[)");
    if (good && !Skip("]")) {
      do {
        good = ReadEntry(registration.entries.emplace_back());
      } while (good && Skip(","));
      good = good && Skip("]");
    }
    std::string type;
    good = good && Skip(R"(,"queue":)") && ReadString(registration.queue) && Skip(R"(,"type":)") && ReadDigits(type) &&
           Skip("}\n") && rest_.empty() && IsPlain(registration.queue) && registration.queue.back() != '/';
    return good ? std::optional(std::move(registration)) : std::nullopt;
  }

 private:
  bool Skip(std::string_view wanted) {
    if (rest_.substr(0, wanted.size()) != wanted) {
      return false;
    }
    rest_.remove_prefix(wanted.size());
    return true;
  }

  bool ReadString(std::string& text) {
    const size_t end = rest_.find('"', 1);
    if (!Skip("\"") || end == std::string_view::npos) {
      return false;
    }
    text = rest_.substr(0, end - 1);
    rest_.remove_prefix(end);
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) >= 0x20 && c != '\\'; });
  }

  // Few enough that the number fits, and none that begins with 0, which is no number in JSON.
  bool ReadDigits(std::string& digits) {
    constexpr size_t kMost = 9;
    digits = rest_.substr(0, std::min(rest_.find_first_not_of("0123456789"), rest_.size()));
    rest_.remove_prefix(digits.size());
    return !digits.empty() && digits.size() <= kMost && (digits.size() == 1 || digits.front() != '0');
  }

  bool ReadEntry(WatchEntry& entry) {
    std::string digits;
    if (!Skip(R"({"ignore":[)")) {
      return false;
    }
    while (!Skip("]")) {
      if ((!entry.ignore.empty() && !Skip(",")) || !ReadString(entry.ignore.emplace_back())) {
        return false;
      }
    }
    if (!Skip(R"(,"mask":)") || !ReadDigits(digits) || !Skip(R"(,"path":)") || !ReadString(entry.path) || !Skip("}")) {
      return false;
    }
    entry.mask = static_cast<unsigned>(std::stoul(digits));
    return IsPlain(entry.path) && entry.path.back() != '/';
  }

  std::string_view rest_;
};

}  // namespace

std::optional<Registration> ParseRegistration(std::string_view text) {
  if (std::optional<Registration> plain = PlainReader(text).Read()) {
    return plain;
  }
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
