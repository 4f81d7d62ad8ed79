// File-system helpers. Predicates answer false where they cannot know; operations that cannot go on throw.
#pragma once

#include <dirent.h>

#include <functional>
#include <string>

#include "orbisk/export.h"

struct NIMO_COPY_OPTIONS;  // the platform's copy options, nimo/filesystem.h

namespace orbisk {

// All functions here keep no state and may be called from any thread.

/// Whether `path` itself is a regular file. A symbolic link, even to a regular file, is not.
ORBISK_EXPORT bool IsFileExist(const std::string& path);

/// Whether `path` is a directory or, with `follow`, a symbolic link that leads to one.
///
/// The target of a link is taken as it is stored: a relative target is looked up from the working directory of the
/// process, not from the link's folder. Chains are followed without limit, so a link to itself is never answered.
ORBISK_EXPORT bool IsDirExist(const std::string& path, bool follow);

/// Whether a directory entry is a directory. False for an entry whose type the file system does not tell.
/// `full_path` is the path of the entry.
ORBISK_EXPORT bool IsDirentDir(const dirent& entry, const std::string& full_path);

/// Whether this process has any of the permissions in `mask` (NIMO_ACL_... bits of the platform) on `path`.
ORBISK_EXPORT bool CheckACLPerm(const std::string& path, int mask);

/// Whether a file system is mounted at `path`.
ORBISK_EXPORT bool IsMountPoint(const std::string& path);

/// The canonical absolute form of `path` as realpath(3) gives it, "" if it cannot be resolved.
ORBISK_EXPORT std::string RealPath(const std::string& path);

/// Removes the file `path`. True when it is gone afterwards, thus also when it was missing.
ORBISK_EXPORT bool Unlink(const std::string& path);

/// Copies or moves `from`, a file or a whole tree, to the path `to` through the platform, as `options` say.
/// `progress` is the platform's progress hook, nullptr for none. Errors are left to the platform's last error.
ORBISK_EXPORT bool MVFileImpl(const std::string& from, const std::string& to, const NIMO_COPY_OPTIONS& options,
                              int (*progress)(const char* path, unsigned long long bytes));

/// Moves `from` to the path `to`, across file systems if need be.
ORBISK_EXPORT bool MVFile(const std::string& from, const std::string& to);

/// Copies `from` to the path `to`.
ORBISK_EXPORT bool CPFile(const std::string& from, const std::string& to);

/// Gives `path` to the account and group of the package, following a symbolic link. False when the system refuses.
/// Throws Error 801 without a reason when the package's account is missing. Takes sdk::SDKMutex(): do not hold it.
ORBISK_EXPORT bool ChownOrbisk(const std::string& path);

/// Calls `callback` with the full path of everything below `full_path`: depth first, a directory before its content,
/// in the order in which the file system lists entries. Symbolic links are reported and not followed.
///
/// What the callback throws is written to the log and does not stop the walk, nor keep it from descending. A directory
/// that can be opened but not read to its end is taken as ending there. Each directory is walked with a copy of the
/// callback, and holds one descriptor while the walk is below it.
///
/// Throws Error 502 "Failed to open dir: <path>" when a directory at any depth cannot be opened; this ends the walk.
ORBISK_EXPORT void ProcessDir(const std::string& full_path, std::function<void(const std::string&)> callback);

}  // namespace orbisk
