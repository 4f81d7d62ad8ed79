// Writes queue lines by hand: a line costs a copy and one look at each byte.
#include "services/monitor/line.h"

#include <charconv>

namespace nimotifyd {
namespace {

bool IsPlain(char c) {
  return static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\';
}

void AppendEscape(std::string& out, char c) {
  static constexpr char kHex[] = "0123456789abcdef";
  switch (c) {
    case '"':
    case '\\':
      out += {'\\', c};
      break;
    case '\b':
      out += "\\b";
      break;
    case '\f':
      out += "\\f";
      break;
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default:
      out += "\\u00";
      out += {kHex[static_cast<unsigned char>(c) >> 4], kHex[static_cast<unsigned char>(c) & 15]};
  }
}

void AppendPlace(std::string& out, const Place& place) {
  out += place.escaped_folder;
  if (!place.name.empty()) {
    out += '/';
    AppendEscaped(out, place.name);
  } else if (place.escaped_folder.empty()) {
    out += '/';
  }
}

void AppendHead(std::string& out, uint32_t event, bool is_dir) {
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof(digits), event).ptr;
  out += "{\"event\":";
  out.append(digits, end);
  out += is_dir ? ",\"is_dir\":true,\"path\":\"" : ",\"is_dir\":false,\"path\":\"";
}

}  // namespace

void AppendEscaped(std::string& out, std::string_view text) {
  size_t start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (!IsPlain(text[i])) {
      out.append(text, start, i - start);
      AppendEscape(out, text[i]);
      start = i + 1;
    }
  }
  out.append(text, start);
}

void AppendLine(std::string& out, uint32_t event, bool is_dir, const Place& place) {
  AppendHead(out, event, is_dir);
  AppendPlace(out, place);
  out += "\"}\n";
}

void AppendRenameLine(std::string& out, bool is_dir, const Place& from, const Place& to) {
  AppendHead(out, kRename, is_dir);
  AppendPlace(out, to);
  out += "\",\"path_old\":\"";
  AppendPlace(out, from);
  out += "\"}\n";
}

}  // namespace nimotifyd
