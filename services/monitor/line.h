// The text of one queue line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace nimotifyd {

/// Event bits of a queue line.
constexpr uint32_t kModify = 0x2;
constexpr uint32_t kAttrib = 0x4;
constexpr uint32_t kCreate = 0x40;
constexpr uint32_t kDelete = 0x80;
constexpr uint32_t kRename = 0x100;
constexpr uint32_t kQueueCrashed = 0x200;

/// Appends `text` as it stands between the quotes of a JSON string: quotes, backslashes and bytes below 0x20 escaped,
/// every other byte as it is. File names are bytes; those that are no UTF-8 must come back as they went in.
void AppendEscaped(std::string& out, std::string_view text);

/// The place of an object in a line: the folder's path escaped and without a slash at its end, and the object's own
/// name as it is, empty for the folder itself.
struct Place {
  std::string_view escaped_folder;
  std::string_view name;
};

/// Appends {"event":N,"is_dir":B,"path":"..."} and a newline.
void AppendLine(std::string& out, uint32_t event, bool is_dir, const Place& place);

/// Appends {"event":256,"is_dir":B,"path":"NEW","path_old":"OLD"} and a newline.
void AppendRenameLine(std::string& out, bool is_dir, const Place& from, const Place& to);

}  // namespace nimotifyd
