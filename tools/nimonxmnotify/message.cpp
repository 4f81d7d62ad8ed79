// What a notification says.
#include "tools/nimonxmnotify/message.h"

#include <json/json.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <memory>

namespace nimonxmnotify {
namespace {

constexpr char kFileName[] = "nimonxmnotify.json";

Json::Value ReadJson(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
      return value;
    }
  } catch (const Json::Exception&) {  // nested too deep
  }
  return Json::Value();
}

}  // namespace

StringTable StringTable::Load(const std::string& file, const std::string& application) {
  StringTable table;
  const Json::Value applications = ReadJson(file);
  const Json::Value texts = applications.isObject() ? applications[application] : Json::Value();
  if (texts.isObject()) {
    for (const std::string& key : texts.getMemberNames()) {
      if (texts[key].isString()) {
        table.texts_[key] = texts[key].asString();
      }
    }
  }
  return table;
}

const std::string& StringTable::Text(const std::string& key) const {
  const auto found = texts_.find(key);
  return found != texts_.end() ? found->second : key;
}

std::string FindStringTable(const std::string& program) {
  const std::string folder = program.substr(0, program.rfind('/') + 1);
  for (const char* place : {"", "../share/orbisk/", "../../share/orbisk/"}) {
    std::string file = folder + place + kFileName;
    if (access(file.c_str(), R_OK) == 0) {
      return file;
    }
  }
  return "";
}

std::string FillIn(const std::string& text, const std::vector<std::string>& values) {
  std::string filled;
  std::vector<bool> used(values.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const bool place = i + 2 < text.size() && text[i] == '{' && text[i + 1] >= '0' && text[i + 1] <= '9' &&
                       text[i + 2] == '}' && static_cast<size_t>(text[i + 1] - '0') < values.size();
    if (place) {
      const auto number = static_cast<size_t>(text[i + 1] - '0');
      filled += values[number];
      used[number] = true;
      i += 2;
    } else {
      filled += text[i];
    }
  }
  for (size_t number = 0; number < values.size(); ++number) {
    filled += used[number] ? "" : " " + values[number];
  }
  return filled;
}

std::string WithoutTags(const std::string& text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    const size_t end = text[i] == '<' ? text.find('>', i) : std::string::npos;
    if (end == std::string::npos) {
      plain += text[i];
    } else {
      i = end;
    }
  }
  return plain;
}

std::string EscapeMarkup(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    escaped += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
  }
  return escaped;
}

std::string Quote(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? ' ' : c;
  }
  return quoted + "\"";
}

}  // namespace nimonxmnotify
