// Files and folders that survive a power cut.
#pragma once

#include <string>
#include <string_view>

namespace nimoelasticd {

/// Replaces the file at `path` (mode 0600): whoever reads it, after whatever crash, sees the old text or the new one.
/// Throws std::system_error; nearly always the old one stands then.
void WriteWholeFile(const std::string& path, std::string_view text);

/// Makes the names in a folder durable. Throws std::system_error.
void SyncFolder(const std::string& path);

/// The folder that `path` is in.
std::string ParentOf(const std::string& path);

}  // namespace nimoelasticd
