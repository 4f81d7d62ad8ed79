// Reading, merging and storing JSON: the one typed way into a Json::Value.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "orbisk/export.h"

namespace orbisk {

// Threads: every function may be called from any thread; a Json::Value is used by one thread at a time.

/// Parses `text` into `value`. False, with `value` unchanged, on a syntax error, on text behind the value and on more
/// than 1000 levels of nesting. White space and comments round the value are accepted and dropped; any type of root is.
ORBISK_EXPORT bool fromString(Json::Value& value, const std::string& text);

/// Reads and parses the file at `path`, by the rules of fromString. False, with `value` unchanged, if that fails.
ORBISK_EXPORT bool fromFile(Json::Value& value, const std::string& path);

/// Replaces the file at `path` by the text of `value`, mode 0644. Readers see the old file or the new one, never a
/// part, also after a power cut. False on any failure, which leaves the old file and nothing else; only when the
/// folder cannot be synced at the end is the new file in place already.
ORBISK_EXPORT bool toFile(const Json::Value& value, const std::string& path);

/// The text of `value`: one line, keys sorted, no newline at the end. Bytes from 0x20 up stand as they are, but for the
/// quote and the backslash, so that file names come back unchanged even where they are not UTF-8.
ORBISK_EXPORT std::string toString(const Json::Value& value);

/// Whether `value` can be read as T: std::string, bool, int, unsigned int, long or double. All but long go by the JSON
/// library's convertibility (null reads as "", false and 0); long wants a stored integer that fits.
template <typename T>
ORBISK_EXPORT bool isJsonType(const Json::Value& value);

/// `value` as T. Only for a value that passed isJsonType<T>.
template <typename T>
ORBISK_EXPORT T asJsonType(const Json::Value& value);

/// Sets `out` to the member `key` of `json`; T as for isJsonType, or Json::Value for a member of any type.
///
/// Throws Error 120, its reason ending in the text of `json`, if `json` is not an object, also for an optional member;
/// if a required member is missing ("Missing property: "); and if it is not a T ("Not a string", whatever T is). An
/// optional member that is missing or not a T leaves `out` unchanged.
template <typename T>
ORBISK_EXPORT void GetJsonValue(T& out, const Json::Value& json, const std::string& key, bool required);

/// Applies the members of `changes` to `target`: null removes a member, an object is merged into it, anything else
/// replaces it whole. Changes that are not an object change nothing.
ORBISK_EXPORT void JsonApplyChanges(Json::Value& target, const Json::Value& changes);

/// ", data=" and the text of `json`: the tail of an error's reason.
ORBISK_EXPORT std::string AppendData(const Json::Value& json);

/// An array of `list` in order; empty, not null, for an empty list. T is std::string.
template <typename T>
ORBISK_EXPORT Json::Value Vec2JsonArr(const std::vector<T>& list);

}  // namespace orbisk
