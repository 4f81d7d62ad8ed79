// Reads and writes JSON text.
#include "services/extractor/json_text.h"

#include <memory>

namespace extractor {
namespace {

constexpr int kDeepestNesting = 32;

}  // namespace

std::string ToText(const Json::Value& value) {
  static const Json::StreamWriterBuilder kBuilder = [] {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return builder;
  }();
  return Json::writeString(kBuilder, value);
}

std::optional<Json::Value> FromText(std::string_view text) {
  static const Json::CharReaderBuilder kBuilder = [] {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;
    builder["stackLimit"] = kDeepestNesting;
    return builder;
  }();
  const std::unique_ptr<Json::CharReader> reader(kBuilder.newCharReader());
  Json::Value value;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
      return value;
    }
  } catch (const Json::Exception&) {
    // The library throws for what is nested too deeply.
  }
  return std::nullopt;
}

}  // namespace extractor
