// The list of indexes as JSON.
#include "services/search/registry.h"

#include <array>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "services/base/json_text.h"
#include "services/search/json_text.h"
#include "services/search/refusal.h"
#include "services/search/request.h"
#include "services/search/whole_file.h"

namespace nimoelasticd {
namespace {

constexpr int kFormat = 1;
constexpr std::array<std::pair<Phase, std::string_view>, 4> kPhases = {{{Phase::kReady, "ready"},
                                                                        {Phase::kCreating, "creating"},
                                                                        {Phase::kDeleting, "deleting"},
                                                                        {Phase::kMoving, "moving"}}};

std::string NameOf(Phase phase) {
  for (const auto& [value, name] : kPhases) {
    if (value == phase) {
      return std::string(name);
    }
  }
  throw std::logic_error("no such phase");
}

Phase PhaseOf(const std::string& name) {
  for (const auto& [value, text] : kPhases) {
    if (text == name) {
      return value;
    }
  }
  throw Refusal(Code::kBadMember, "no such phase: " + name);
}

Json::Value ToJson(const Entry& entry) {
  Json::Value value;
  value["id"] = entry.id;
  value["path"] = entry.path;
  value["event_handler"] = entry.event_handler;
  value["paused"] = entry.paused;
  value["phase"] = NameOf(entry.phase);
  if (entry.phase == Phase::kMoving) {
    value["new_id"] = entry.new_id;
    value["new_path"] = entry.new_path;
  }
  return value;
}

Entry FromJson(const Json::Value& value) {
  Entry entry;
  entry.id = RequireString(value, "id");
  entry.path = RequireString(value, "path");
  entry.event_handler = value["event_handler"];
  entry.paused = OptionalBool(value, "paused", false);
  entry.phase = PhaseOf(RequireString(value, "phase"));
  if (entry.phase == Phase::kMoving) {
    entry.new_id = RequireString(value, "new_id");
    entry.new_path = RequireString(value, "new_path");
  }
  return entry;
}

std::map<std::string, Entry> Parse(const std::string& text) {
  std::map<std::string, Entry> entries;
  const Json::Value list = ReadJson(text);
  if (!list.isObject() || OptionalInt(list, "format", 0, kFormat, kFormat) != kFormat || !list["indexes"].isArray()) {
    throw Refusal(Code::kMalformedRequest, "no list of indexes of format " + std::to_string(kFormat));
  }
  for (const Json::Value& item : list["indexes"]) {
    Entry entry = FromJson(item);
    std::string id = entry.id;
    entries.emplace(std::move(id), std::move(entry));
  }
  return entries;
}

}  // namespace

Registry::Registry(std::string file) : file_(std::move(file)) {
  std::ifstream stream(file_, std::ios::binary);
  if (!stream) {
    if (errno == ENOENT) {
      return;
    }
    throw std::system_error(errno, std::generic_category(), file_);
  }
  const std::string text{std::istreambuf_iterator<char>(stream), {}};
  try {
    entries_ = Parse(text);
  } catch (const Refusal& error) {
    throw std::runtime_error(file_ + ": " + error.what());
  }
}

std::vector<Entry> Registry::Entries() const {
  const std::lock_guard lock(mutex_);
  std::vector<Entry> list;
  for (const auto& [id, entry] : entries_) {
    list.push_back(entry);
  }
  return list;
}

std::optional<Entry> Registry::Find(const std::string& id) const {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(id);
  return found != entries_.end() ? std::optional(found->second) : std::nullopt;
}

std::optional<std::string> Registry::OwnerOf(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  for (const auto& [id, entry] : entries_) {
    if (entry.path == path || (entry.phase == Phase::kMoving && entry.new_path == path)) {
      return id;
    }
  }
  return std::nullopt;
}

void Registry::Put(const Entry& entry) {
  Replace(entry.id, entry);
}

void Registry::Replace(const std::string& id, const Entry& entry) {
  const std::lock_guard lock(mutex_);
  Map entries = entries_;
  entries.erase(id);
  entries[entry.id] = entry;
  Save(std::move(entries));
}

void Registry::Remove(const std::string& id) {
  const std::lock_guard lock(mutex_);
  Map entries = entries_;
  entries.erase(id);
  Save(std::move(entries));
}

void Registry::Save(Map&& entries) {
  Json::Value list;
  list["format"] = kFormat;
  list["indexes"] = Json::Value(Json::arrayValue);
  for (const auto& [id, entry] : entries) {
    list["indexes"].append(ToJson(entry));
  }
  WriteWholeFile(file_, service::ToText(list) + "\n");
  entries_ = std::move(entries);
}

}  // namespace nimoelasticd
