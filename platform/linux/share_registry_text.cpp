// The registry of shares as text.
#include "platform/linux/share_registry_text.h"

#include <json/json.h>

#include <algorithm>
#include <memory>
#include <set>
#include <stdexcept>

#include "nimo/share.h"

namespace nimo {
namespace {

using NIMO::SHARE::Entry;

// An array of objects of plain values is two levels deep.
constexpr int kDeepestNesting = 8;

struct Setting {
  const char* key;
  bool Entry::*member;
};
constexpr Setting kSettings[] = {{"encrypted", &Entry::encrypted},
                                 {"encryption", &Entry::encryption},
                                 {"read_only", &Entry::read_only},
                                 {"recycle", &Entry::recycle},
                                 {"hide_unreadable", &Entry::hide_unreadable}};
constexpr char kFtpPrivilege[] = "ftp_privilege";

Json::Value ParseJson(const std::string& text) {
  // The JSON library takes one for the end and passes over what follows.
  if (text.find('\0') != std::string::npos) {
    throw std::runtime_error("no valid JSON: a NUL byte");
  }
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = kDeepestNesting;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  bool read = false;
  try {
    read = reader->parse(text.data(), text.data() + text.size(), &value, &errors);
  } catch (const Json::Exception& error) {  // nested too deep
    errors = error.what();
  }
  if (!read) {
    const size_t end = errors.find_last_not_of("\n ");
    errors.resize(end == std::string::npos ? 0 : end + 1);
    throw std::runtime_error("no valid JSON: " + errors);
  }
  return value;
}

std::string TextMember(const Json::Value& object, const char* key) {
  const Json::Value& value = object[key];
  if (!value.isString()) {
    throw std::runtime_error("\"" + std::string(key) + "\" is no string");
  }
  return value.asString();
}

Entry ParseEntry(const Json::Value& object) {
  if (!object.isObject()) {
    throw std::runtime_error("no object");
  }
  Entry share;
  share.name = TextMember(object, "name");
  share.path = TextMember(object, "path");
  for (const auto& [key, member] : kSettings) {
    const Json::Value& value = object[key];
    if (!value.isNull() && !value.isBool()) {
      throw std::runtime_error("\"" + std::string(key) + "\" is neither true nor false");
    }
    share.*member = value.isBool() && value.asBool();
  }
  const Json::Value& privilege = object[kFtpPrivilege];
  if (!privilege.isNull() && !privilege.isInt()) {
    throw std::runtime_error("\"" + std::string(kFtpPrivilege) + "\" is no integer");
  }
  share.ftp_privilege = privilege.isInt() ? privilege.asInt() : 0;
  if (const std::string reason = ReasonAgainst(share); !reason.empty()) {
    throw std::runtime_error(reason);
  }
  return share;
}

bool HasNul(const std::string& text) {
  return text.find('\0') != std::string::npos;
}

// Absolute, and without "//", ".", ".." and a slash at the end: one folder has one spelling.
bool IsPlainPath(const std::string& path) {
  const std::string ended = path + "/";
  return path.size() > 1 && path.front() == '/' && path.back() != '/' && path.find("//") == std::string::npos &&
         ended.find("/./") == std::string::npos && ended.find("/../") == std::string::npos;
}

std::vector<std::string_view> Components(std::string_view path) {
  std::vector<std::string_view> components;
  size_t begin = 0;
  while ((begin = path.find_first_not_of('/', begin)) != std::string_view::npos) {
    const size_t end = std::min(path.find('/', begin), path.size());
    components.push_back(path.substr(begin, end - begin));
    begin = end;
  }
  return components;
}

}  // namespace

std::vector<Entry> ParseShares(const std::string& text) {
  const Json::Value array = ParseJson(text);
  if (!array.isArray()) {
    throw std::runtime_error("no array of shares");
  }
  std::vector<Entry> shares;
  std::set<std::string> names;
  for (const Json::Value& object : array) {
    try {
      shares.push_back(ParseEntry(object));
      if (!names.insert(shares.back().name).second) {
        throw std::runtime_error("a second share of the same name");
      }
    } catch (const std::runtime_error& error) {
      throw std::runtime_error("entry " + std::to_string(names.size() + 1) + ": " + error.what());
    }
  }
  return shares;
}

std::string FormatShares(const std::vector<Entry>& shares) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;  // otherwise bytes that are not UTF-8 are replaced
  std::string text = "[";
  for (const Entry& share : shares) {
    Json::Value object(Json::objectValue);
    object["name"] = share.name;
    object["path"] = share.path;
    for (const auto& [key, member] : kSettings) {
      object[key] = share.*member;
    }
    object[kFtpPrivilege] = share.ftp_privilege;
    text += (text.size() == 1 ? "\n" : ",\n") + Json::writeString(builder, object);
  }
  return text + "\n]\n";
}

std::string ReasonAgainst(const Entry& share) {
  if (share.name.empty() || share.name == "." || share.name == ".." || share.name.find('/') != std::string::npos ||
      HasNul(share.name)) {
    return "a share cannot be called \"" + share.name.substr(0, share.name.find('\0')) + "\"";
  }
  if (share.name.size() >= NIMO_SHARE_NAME_BYTES) {
    return "the share's name is too long";
  }
  if (HasNul(share.path) || !IsPlainPath(share.path)) {
    return "not a plain absolute path: " + share.path.substr(0, share.path.find('\0'));
  }
  if (share.path.size() >= NIMO_SHARE_PATH_BYTES) {
    return "the share's path is too long";
  }
  if (share.path.substr(share.path.rfind('/') + 1) != share.name) {
    return "the path " + share.path + " does not end in the share's name " + share.name;
  }
  return "";
}

std::optional<std::vector<std::string_view>> ComponentsBelow(std::string_view path, std::string_view folder) {
  if (path.empty() || path.front() != '/') {
    return std::nullopt;
  }
  std::vector<std::string_view> inner = Components(path);
  const std::vector<std::string_view> outer = Components(folder);
  if (inner.size() < outer.size() || !std::equal(outer.begin(), outer.end(), inner.begin())) {
    return std::nullopt;
  }
  inner.erase(inner.begin(), inner.begin() + static_cast<std::ptrdiff_t>(outer.size()));
  return inner;
}

}  // namespace nimo
