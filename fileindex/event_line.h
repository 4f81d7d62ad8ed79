// Reading event lines without building a JSON value.
#pragma once

#include <string_view>

#include "orbisk/fileindex/op.h"

namespace orbisk::fileindex {

/// Reads a line as the change monitor writes nearly all of them: one object without white space, strings without
/// escapes, no "data". False, with `event` in an undefined state, for any other line, good or bad; the JSON parser has
/// to decide about those. What it does read it reads as the JSON parser would.
bool ReadPlainEvent(std::string_view line, Event& event);

}  // namespace orbisk::fileindex
