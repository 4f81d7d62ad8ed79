// JSON text: what is read is written back so that it reads the same, and the typed readers throw nothing but our
// errors. The input is two JSON texts with a newline between them: a target and changes to it.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orbisk/error.h"
#include "orbisk/json.h"

namespace {

template <typename T>
void ReadMember(const Json::Value& value, const std::string& key, bool required) {
  try {
    T out{};
    orbisk::GetJsonValue(out, value, key, required);
  } catch (const orbisk::Error& error) {
    if (error.code() != 120) {
      abort();
    }
  }
}

void ReadEveryType(const Json::Value& value, const std::string& key) {
  for (const bool required : {true, false}) {
    ReadMember<std::string>(value, key, required);
    ReadMember<bool>(value, key, required);
    ReadMember<int>(value, key, required);
    ReadMember<unsigned int>(value, key, required);
    ReadMember<long>(value, key, required);
    ReadMember<double>(value, key, required);
    ReadMember<Json::Value>(value, key, required);
  }
}

void RequireRoundTrip(const Json::Value& value) {
  const std::string text = orbisk::toString(value);
  Json::Value again;
  if (text.find('\n') != std::string::npos || !orbisk::fromString(again, text) || orbisk::toString(again) != text) {
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const size_t newline = text.find('\n');
  Json::Value target;
  if (!orbisk::fromString(target, text.substr(0, newline))) {
    return 0;
  }
  RequireRoundTrip(target);
  ReadEveryType(target, "a");
  Json::Value changes;
  if (newline != std::string::npos && orbisk::fromString(changes, text.substr(newline + 1))) {
    orbisk::JsonApplyChanges(target, changes);
    RequireRoundTrip(target);
  }
  return 0;
}
