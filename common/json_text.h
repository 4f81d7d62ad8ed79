// JSON text in place, and whole files of it.
#pragma once

#include <json/json.h>

#include <streambuf>
#include <string>
#include <string_view>

namespace orbisk {

/// Parses the bytes from `begin` up to `end` by the rules of fromString, without copying them.
bool ParseJson(const char* begin, const char* end, Json::Value& value);

/// Writes the text of `value` as toString gives it. Throws what `out` throws.
void WriteJson(std::streambuf& out, const Json::Value& value);

/// Sets `text` to the whole content of the file. Returns false, with errno, if it cannot be read.
bool ReadWholeFile(const std::string& path, std::string& text);

/// Writes `text` as toFile writes a value's text. Returns false, with errno, where that does.
bool ReplaceWholeFile(std::string_view text, const std::string& path);

}  // namespace orbisk
