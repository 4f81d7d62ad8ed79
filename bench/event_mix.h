// Generated event lines for the benches: always the same for the same arguments.
#pragma once

#include <cstddef>
#include <string>

namespace orbisk::bench {

/// Writes `count` lines of everyday traffic on a share of 2,000 folders: files created, written, given attributes,
/// deleted and renamed, and now and then a folder created, deleted or renamed. 110 to 140 bytes a line.
void WriteEventMix(const std::string& path, size_t count);

/// Writes the creation of `count` files in one folder.
void WriteFlatFolder(const std::string& path, size_t count);

}  // namespace orbisk::bench
