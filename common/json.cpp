// JSON text to values and back, and typed reading of members, on jsoncpp.
#include "orbisk/json.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

#include "common/check.h"
#include "common/file_descriptor.h"
#include "common/json_text.h"
#include "common/text_chunks.h"

namespace orbisk {
namespace {

std::unique_ptr<Json::CharReader> MakeReader() {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["failIfExtra"] = true;
  builder["allowTrailingCommas"] = false;
  return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

// Building a reader costs more than parsing a queue line with it, so each thread keeps one.
Json::CharReader& Reader() {
  static thread_local const std::unique_ptr<Json::CharReader> reader = MakeReader();
  return *reader;
}

// The reader takes a NUL byte behind the value for the end of the text and ignores what follows.
bool HasTextBehindNul(std::string_view text, const Json::Value& root) {
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";  // skipped, and not counted in offsets, by the reader
  const size_t skipped = text.substr(0, kByteOrderMark.size()) == kByteOrderMark ? kByteOrderMark.size() : 0;
  return text.find('\0', skipped + static_cast<size_t>(root.getOffsetLimit())) != std::string_view::npos;
}

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(fd, text.data(), text.size());
    if (count < 0 && errno != EINTR) {
      return false;
    }
    if (count > 0) {
      text.remove_prefix(static_cast<size_t>(count));
    }
  }
  return true;
}

bool WriteTemporary(int fd, std::string_view text) {
  return fchmod(fd, 0644) == 0 && WriteAll(fd, text) && fsync(fd) == 0;
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::string& text) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.valid()) {
    return false;
  }
  char buffer[64 * 1024];
  while (true) {
    const ssize_t count = read(file.get(), buffer, sizeof(buffer));
    if (count == 0) {
      return true;
    }
    if (count < 0 && errno != EINTR) {
      return false;
    }
    if (count > 0) {
      text.append(buffer, static_cast<size_t>(count));
    }
  }
}

bool ParseJson(const char* begin, const char* end, Json::Value& value) {
  try {
    Json::Value root;
    if (!Reader().parse(begin, end, &root, nullptr) ||
        HasTextBehindNul({begin, static_cast<size_t>(end - begin)}, root)) {
      return false;
    }
    value.swap(root);
    return true;
  } catch (const Json::Exception&) {  // too many levels
    return false;
  }
}

bool fromString(Json::Value& value, const std::string& text) {
  return ParseJson(text.data(), text.data() + text.size(), value);
}

bool fromFile(Json::Value& value, const std::string& path) {
  std::string text;
  return ReadWholeFile(path, text) && fromString(value, text);
}

bool toFile(const Json::Value& value, const std::string& path) {
  return ReplaceWholeFile(toString(value), path);
}

bool ReplaceWholeFile(std::string_view text, const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "./" : path.substr(0, slash + 1);
  std::string temporary = folder + ".orbisk-XXXXXX";

  const FileDescriptor folder_descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const FileDescriptor file(folder_descriptor.valid() ? mkostemp(temporary.data(), O_CLOEXEC) : -1);
  if (!file.valid()) {
    return false;
  }
  if (!WriteTemporary(file.get(), text) || rename(temporary.c_str(), path.c_str()) != 0) {
    const int saved_errno = errno;
    unlink(temporary.c_str());
    errno = saved_errno;
    return false;
  }
  return fsync(folder_descriptor.get()) == 0;
}

std::string toString(const Json::Value& value) {
  TextChunks text;
  WriteJson(text, value);
  return text.Take();
}

template <>
bool isJsonType<std::string>(const Json::Value& value) {
  return value.isConvertibleTo(Json::stringValue);
}
template <>
bool isJsonType<bool>(const Json::Value& value) {
  return value.isConvertibleTo(Json::booleanValue);
}
template <>
bool isJsonType<int>(const Json::Value& value) {
  return value.isConvertibleTo(Json::intValue);
}
template <>
bool isJsonType<unsigned int>(const Json::Value& value) {
  return value.isConvertibleTo(Json::uintValue);
}
template <>
bool isJsonType<long>(const Json::Value& value) {
  const bool is_integer = value.type() == Json::intValue || value.type() == Json::uintValue;
  return is_integer && value.isInt64();
}
template <>
bool isJsonType<double>(const Json::Value& value) {
  return value.isConvertibleTo(Json::realValue);
}

template <>
std::string asJsonType<std::string>(const Json::Value& value) {
  return value.asString();
}
template <>
bool asJsonType<bool>(const Json::Value& value) {
  return value.asBool();
}
template <>
int asJsonType<int>(const Json::Value& value) {
  return value.asInt();
}
template <>
unsigned int asJsonType<unsigned int>(const Json::Value& value) {
  return value.asUInt();
}
template <>
long asJsonType<long>(const Json::Value& value) {
  return value.asInt64();
}
template <>
double asJsonType<double>(const Json::Value& value) {
  return value.asDouble();
}

// One template for all types: g++ would put the arguments of a specialisation into the function's name in the record.
template <typename T>
void GetJsonValue(T& out, const Json::Value& json, const std::string& key, bool required) {
  ORBISK_CHECK(!json.isObject(), 120, "Not an object" + AppendData(json));
  const Json::Value* member = json.find(key.data(), key.data() + key.size());
  ORBISK_CHECK_TEXT(required && member == nullptr, "!json.isMember(key)", 120,
                    "Missing property: " + key + AppendData(json));
  if (member == nullptr) {
    return;
  }
  if constexpr (std::is_same_v<T, Json::Value>) {
    out = Json::Value(*member);  // a copy first: `out` may be `json` or a part of it
  } else {
    const bool is_readable = isJsonType<T>(*member);
    // Said for every T: callers and log readers match the words.
    ORBISK_CHECK_TEXT(required && !is_readable, "!isJsonType<T>(json[key])", 120, "Not a string" + AppendData(json));
    if (is_readable) {
      out = asJsonType<T>(*member);
    }
  }
}

template void GetJsonValue<std::string>(std::string&, const Json::Value&, const std::string&, bool);
template void GetJsonValue<bool>(bool&, const Json::Value&, const std::string&, bool);
template void GetJsonValue<int>(int&, const Json::Value&, const std::string&, bool);
template void GetJsonValue<unsigned int>(unsigned int&, const Json::Value&, const std::string&, bool);
template void GetJsonValue<long>(long&, const Json::Value&, const std::string&, bool);
template void GetJsonValue<double>(double&, const Json::Value&, const std::string&, bool);
template void GetJsonValue<Json::Value>(Json::Value&, const Json::Value&, const std::string&, bool);

void JsonApplyChanges(Json::Value& target, const Json::Value& changes) {
  if (!changes.isObject()) {
    return;
  }
  if (!target.isObject() && !target.isNull()) {
    target = Json::Value(Json::objectValue);
  }
  for (auto it = changes.begin(); it != changes.end(); ++it) {
    const std::string key = it.name();
    if (it->isNull()) {
      Json::Value removed;  // the overloads that take the key alone end it at a NUL byte
      if (target.isObject()) {
        target.removeMember(key.data(), key.data() + key.size(), &removed);
      }
    } else if (it->isObject()) {
      Json::Value& member = target[key];
      if (!member.isObject()) {
        member = Json::Value(Json::objectValue);
      }
      JsonApplyChanges(member, *it);
    } else {
      target[key] = *it;
    }
  }
}

std::string AppendData(const Json::Value& json) {
  return ", data=" + toString(json);
}

template <>
Json::Value Vec2JsonArr<std::string>(const std::vector<std::string>& list) {
  Json::Value array(Json::arrayValue);
  for (const std::string& text : list) {
    array.append(text);
  }
  return array;
}

}  // namespace orbisk
