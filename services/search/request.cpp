// Takes requests apart.
#include "services/search/request.h"

#include <utility>

#include "services/search/json_scanner.h"
#include "services/search/json_text.h"
#include "services/search/refusal.h"

namespace nimoelasticd {
namespace {

[[noreturn]] void RefuseMember(const char* name, const char* wanted) {
  throw Refusal(Code::kBadMember, "member \"" + std::string(name) + "\": " + wanted);
}

// The member, or null when it is missing or null.
const Json::Value& Find(const Json::Value& data, const char* name) {
  return data.isObject() ? data[name] : Json::Value::nullSingleton();
}

}  // namespace

Request::Request(std::string text) : text_(std::move(text)) {
  for (const auto& [name, value] : ScanObject(text_)) {
    const bool escaped = name.find('\\') != std::string_view::npos;
    if (escaped ? ReadJson(name).asString() != "compound" : name != R"("compound")") {
      continue;
    }
    if (value.front() != '[') {
      throw Refusal(Code::kMalformedRequest, "\"compound\" is no array");
    }
    compound_ = true;
    commands_ = ScanArray(value);
  }
  if (!compound_) {
    commands_.emplace_back(text_);
  }
}

Command Request::At(size_t index) const {
  Json::Value value = ReadJson(commands_[index]);
  if (!value.isObject() || value.isMember("compound")) {
    throw Refusal(Code::kMalformedRequest, "a request is an object with \"command\" and \"data\"");
  }
  Command command;
  command.name = RequireString(value, "command");
  if (!value["data"].isObject()) {
    RefuseMember("data", "an object is wanted");
  }
  command.data.swap(value["data"]);
  return command;
}

void Request::ReleaseText() {
  text_ = std::string();
}

std::string RequireString(const Json::Value& data, const char* name) {
  const Json::Value& value = Find(data, name);
  if (!value.isString()) {
    RefuseMember(name, "a string is wanted");
  }
  return value.asString();
}

const Json::Value& RequireObject(const Json::Value& data, const char* name) {
  const Json::Value& value = Find(data, name);
  if (!value.isObject()) {
    RefuseMember(name, "an object is wanted");
  }
  return value;
}

std::string OptionalString(const Json::Value& data, const char* name, const std::string& otherwise) {
  return Find(data, name).isNull() ? otherwise : RequireString(data, name);
}

bool OptionalBool(const Json::Value& data, const char* name, bool otherwise) {
  const Json::Value& value = Find(data, name);
  if (value.isNull()) {
    return otherwise;
  }
  if (!value.isBool()) {
    RefuseMember(name, "true or false is wanted");
  }
  return value.asBool();
}

std::int64_t OptionalInt(const Json::Value& data, const char* name, std::int64_t otherwise, std::int64_t least,
                         std::int64_t most) {
  const Json::Value& value = Find(data, name);
  if (value.isNull()) {
    return otherwise;
  }
  if (!value.isInt64() || value.asInt64() < least || value.asInt64() > most) {
    throw Refusal(Code::kBadMember, "member \"" + std::string(name) + "\": a whole number from " +
                                        std::to_string(least) + " to " + std::to_string(most) + " is wanted");
  }
  return value.asInt64();
}

std::vector<std::string> OptionalStrings(const Json::Value& data, const char* name) {
  const Json::Value& value = Find(data, name);
  std::vector<std::string> texts;
  if (value.isNull()) {
    return texts;
  }
  if (!value.isArray()) {
    RefuseMember(name, "an array of strings is wanted");
  }
  for (const Json::Value& item : value) {
    if (!item.isString()) {
      RefuseMember(name, "an array of strings is wanted");
    }
    texts.push_back(item.asString());
  }
  return texts;
}

}  // namespace nimoelasticd
