// Small byte-wise string helpers. All work on single bytes in the C library's locale and never fail.
#pragma once

#include <string>

#include "orbisk/export.h"

namespace orbisk {

/// `text` without leading white space, as isspace(3) knows it (vertical tab and form feed included).
ORBISK_EXPORT std::string LTrim(const std::string& text);
/// `text` without trailing white space.
ORBISK_EXPORT std::string RTrim(const std::string& text);
/// `text` without white space at either end.
ORBISK_EXPORT std::string Trim(const std::string& text);
/// `text` with every byte passed through tolower(3); bytes of multi-byte characters stay as they are.
ORBISK_EXPORT std::string ToLower(const std::string& text);

}  // namespace orbisk
