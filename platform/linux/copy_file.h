// Copying what one file holds, and what is known of it.
#pragma once

#include <sys/stat.h>

#include <functional>

namespace nimo {

/// Copies the content of `from` to the empty file `to`; holes stay holes. `on_copied` is told of each piece, in bytes,
/// and cancels with false. False with errno set on failure (ECANCELED when cancelled).
bool CopyContent(int from, int to, const std::function<bool(unsigned long long)>& on_copied);

/// Gives `to` the owner, group, mode, extended attributes, access control lists and times of `from`, which are files or
/// directories alike; `status` is that of `from`. What the target's file system cannot hold, and what an ordinary user
/// may not set, is left out. False with errno set on failure.
bool CopyAttributes(int from, int to, const struct stat& status);

/// The same for an entry that cannot be opened (a link, a device), without extended attributes.
bool CopyEntryAttributes(int to_directory, const char* to_name, const struct stat& status);

}  // namespace nimo
