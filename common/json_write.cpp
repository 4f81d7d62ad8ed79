// JSON text written as jsoncpp writes it in one line, many times faster where strings are long: jsoncpp takes them byte
// by byte, and makes a string twice as long of each before it is written.
#include <cstdint>
#include <cstring>
#include <string_view>

#include "common/json_text.h"

namespace orbisk {
namespace {

void Put(std::streambuf& out, std::string_view text) {
  out.sputn(text.data(), static_cast<std::streamsize>(text.size()));
}

// How many bytes from `at` on need no escape, in steps of eight.
size_t PlainRun(std::string_view text, size_t at) {
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  constexpr std::uint64_t kHighBits = kOnes * 0x80;
  const size_t begin = at;
  for (; at + sizeof(std::uint64_t) <= text.size(); at += sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + at, sizeof(word));
    const std::uint64_t quote = word ^ (kOnes * '"');
    const std::uint64_t backslash = word ^ (kOnes * '\\');
    const std::uint64_t found =
        ((word - kOnes * ' ') & ~word) | ((quote - kOnes) & ~quote) | ((backslash - kOnes) & ~backslash);
    if ((found & kHighBits) != 0) {
      break;
    }
  }
  return at - begin;
}

void PutEscape(std::streambuf& out, unsigned char byte) {
  static constexpr char kHex[] = "0123456789abcdef";
  static constexpr std::string_view kShort = "\bb\ff\nn\rr\tt\"\"\\\\";
  for (size_t i = 0; i < kShort.size(); i += 2) {
    if (static_cast<unsigned char>(kShort[i]) == byte) {
      const char escape[] = {'\\', kShort[i + 1]};
      Put(out, {escape, sizeof(escape)});
      return;
    }
  }
  const char escape[] = {'\\', 'u', '0', '0', kHex[byte >> 4U], kHex[byte & 15U]};
  Put(out, {escape, sizeof(escape)});
}

void PutString(std::streambuf& out, std::string_view text) {
  Put(out, "\"");
  size_t plain = 0;  // where what needs no escape begins
  for (size_t at = 0; (at += PlainRun(text, at)) < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte < ' ' || byte == '"' || byte == '\\') {
      Put(out, text.substr(plain, at - plain));
      PutEscape(out, byte);
      plain = at + 1;
    }
  }
  Put(out, text.substr(plain));
  Put(out, "\"");
}

void PutObject(std::streambuf& out, const Json::Value& value) {
  const char* separator = "{";
  for (auto member = value.begin(); member != value.end(); ++member) {
    Put(out, separator);
    separator = ",";
    const char* end = nullptr;
    const char* const name = member.memberName(&end);
    PutString(out, {name, static_cast<size_t>(end - name)});
    Put(out, ":");
    WriteJson(out, *member);
  }
  Put(out, value.empty() ? "{}" : "}");
}

void PutArray(std::streambuf& out, const Json::Value& value) {
  const char* separator = "[";
  for (const Json::Value& element : value) {
    Put(out, separator);
    separator = ",";
    WriteJson(out, element);
  }
  Put(out, value.empty() ? "[]" : "]");
}

}  // namespace

void WriteJson(std::streambuf& out, const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue:
      return Put(out, "null");
    case Json::intValue:
      return Put(out, Json::valueToString(value.asLargestInt()));
    case Json::uintValue:
      return Put(out, Json::valueToString(value.asLargestUInt()));
    case Json::realValue:
      return Put(out, Json::valueToString(value.asDouble()));
    case Json::booleanValue:
      return Put(out, value.asBool() ? "true" : "false");
    case Json::stringValue: {
      const char* begin = nullptr;
      const char* end = nullptr;
      if (value.getString(&begin, &end)) {
        PutString(out, {begin, static_cast<size_t>(end - begin)});
      }
      return;
    }
    case Json::arrayValue:
      return PutArray(out, value);
    case Json::objectValue:
      return PutObject(out, value);
  }
}

}  // namespace orbisk
