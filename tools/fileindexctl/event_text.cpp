// Words for events and operations.
#include "tools/fileindexctl/event_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace fileindexctl {
namespace {

using namespace orbisk::fileindex;

constexpr std::array<std::pair<EventMask, const char*>, 8> kBitNames = {{
    {EVENT_MODIFY, "modify"},
    {EVENT_ATTRIB, "attrib"},
    {EVENT_CREATE, "create"},
    {EVENT_DELETE, "delete"},
    {EVENT_RENAME, "rename"},
    {EVENT_QUEUE_CRASHED, "queue_crashed"},
    {EVENT_REINDEX, "reindex"},
    {EVENT_UPDATE_DIRECTORY, "update_directory"},
}};

std::string Hexadecimal(const char* format, unsigned number) {
  std::array<char, 16> text{};
  snprintf(text.data(), text.size(), format, number);
  return text.data();
}

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

std::string Visible(char c) {
  switch (c) {
    case '\n':
      return "\\n";
    case '\t':
      return "\\t";
    case '\r':
      return "\\r";
    default:
      return Hexadecimal("\\x%02x", static_cast<unsigned char>(c));
  }
}

}  // namespace

std::string OperationName(FileIndexOP op) {
  switch (op) {
    case OP_NONE:
      return "none";
    case OP_DELETE:
      return "delete";
    case OP_UPDATE:
      return "update";
    case OP_ATTR:
      return "attributes";
    case OP_UPDATE_DIRECTORY:
      return "update_directory";
    case OP_RENAME:
      return "rename";
    case OP_REINDEX:
      return "reindex";
    case OP_QUEUE_CRASHED:
      return "queue_crashed";
  }
  return "unknown";
}

std::vector<std::string> EventBitNames(std::int32_t event) {
  auto rest = static_cast<std::uint32_t>(event);
  std::vector<std::string> names;
  for (const auto& [bit, name] : kBitNames) {
    if ((event & bit) != 0) {
      names.emplace_back(name);
      rest &= ~static_cast<std::uint32_t>(bit);
    }
  }
  if (rest != 0 || names.empty()) {
    names.push_back(Hexadecimal("0x%x", rest));
  }
  return names;
}

std::string OneLine(std::string_view text) {
  std::string line;
  for (auto from = text.begin(); from != text.end();) {
    const auto control = std::find_if(from, text.end(), IsControl);
    line.append(from, control);
    from = control;
    if (control != text.end()) {
      line += Visible(*control);
      ++from;
    }
  }
  return line;
}

}  // namespace fileindexctl
