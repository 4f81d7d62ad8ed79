// Says what a file is by looking into it.
#pragma once

#include <string>

#include "services/extractor/formats/input.h"

namespace extractor {

/// Loads the database of signatures. Throws std::runtime_error.
void PrepareSniffer();

/// The media type of the content; `name` decides only where content alone cannot, as between mail and other text.
/// "application/octet-stream" when nothing knows it, "inode/x-empty" for an empty file.
std::string SniffMediaType(const Input& input, const std::string& name);

}  // namespace extractor
