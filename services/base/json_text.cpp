// jsoncpp with the settings that keep bytes.
#include "services/base/json_text.h"

#include <memory>
#include <sstream>
#include <utility>

namespace service {

namespace {

std::unique_ptr<Json::StreamWriter> MakeWriter() {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
}

}  // namespace

std::string ToText(const Json::Value& value) {
  // The thread's own: making one takes longer than writing a short text with it.
  static thread_local const std::unique_ptr<Json::StreamWriter> writer = MakeWriter();
  std::ostringstream text;
  writer->write(value, &text);
  return std::move(text).str();
}

namespace {

// The thread's own: making one takes longer than reading a short text.
thread_local int nesting = -1;
thread_local std::unique_ptr<Json::CharReader> reader;

Json::CharReader& ReaderFor(int deepest_nesting) {
  if (nesting != deepest_nesting) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;
    builder["stackLimit"] = deepest_nesting;
    reader.reset(builder.newCharReader());
    nesting = deepest_nesting;
  }
  return *reader;
}

}  // namespace

std::optional<Json::Value> FromText(std::string_view text, int deepest_nesting, std::string* problem) {
  std::string unused;
  std::string& why = problem != nullptr ? *problem : unused;
  // jsoncpp takes it for the end of the text, whatever follows.
  if (text.find('\0') != std::string_view::npos) {
    why = "a byte of value 0";
    return std::nullopt;
  }
  Json::Value value;
  try {
    if (ReaderFor(deepest_nesting).parse(text.data(), text.data() + text.size(), &value, &why)) {
      return value;
    }
  } catch (const Json::Exception& error) {  // nesting too deep
    why = error.what();
  }
  return std::nullopt;
}

}  // namespace service
