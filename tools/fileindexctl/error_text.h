// Failures of the library in words that say what to do.
#pragma once

#include <string>

#include "orbisk/error.h"

namespace fileindexctl {

// Threads: every function may be called from any thread.

/// "error CODE: REASON", and what it means in brackets where the reason alone would not say. Many reasons are a bare
/// name, and a failed question about a share may come from a registry that nobody can read, which is looked at here.
std::string ErrorLine(const orbisk::Error& error);

/// `error` with `context` behind its reason, in brackets.
orbisk::Error WithContext(const orbisk::Error& error, const std::string& context);

/// Whether `error` says that no share holds the path, and the registry of shares could be read.
bool IsInNoShare(const orbisk::Error& error);

}  // namespace fileindexctl
