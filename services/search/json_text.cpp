// jsoncpp with the settings that keep bytes.
#include "services/search/json_text.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>

#include "services/search/refusal.h"

namespace nimoelasticd {

std::string WriteJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

Json::Value ReadJson(std::string_view text) {
  // jsoncpp takes it for the end of the text, whatever follows.
  if (text.find('\0') != std::string_view::npos) {
    throw Refusal(Code::kMalformedRequest, "not JSON: a byte of value 0");
  }
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["strictRoot"] = false;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string problem;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, &problem)) {
      return value;
    }
  } catch (const Json::Exception& error) {  // nesting too deep
    problem = error.what();
  }
  throw Refusal(Code::kMalformedRequest, "not JSON: " + problem.substr(0, 200));
}

}  // namespace nimoelasticd
