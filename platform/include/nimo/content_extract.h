// What is in a file: its attributes, and on demand its text and metadata.
#pragma once

#include <json/json.h>

#include <string>

#include "nimo/export.h"

/// Reads the file or folder at `path` and fills the object `document` with its metadata fields ("NIMOMDPath" and
/// friends).
///
/// `options` is an object: "need_meta" (bool) asks for text and metadata beside the file's attributes; "pseudo_path" (a
/// string, may be missing) is the path that the document names instead of `path`.
///
/// Throws std::exception when the file cannot be read or the box's extractor fails or takes too long; `document` is
/// then unspecified. A file whose content is broken or of no known kind is no failure: its document has the attributes
/// alone.
///
/// Threads: any.
NIMO_EXPORT void NIMO_CONTENT_EXTRACT_ParseFile(const std::string& path, const Json::Value& options,
                                                Json::Value& document);
