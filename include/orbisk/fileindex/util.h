// Paths: the two forms that a path comes in, which paths may be indexed, and events of the library's own.
#pragma once

#include <json/json.h>

#include <string>

#include "orbisk/export.h"

namespace orbisk::fileindex {

// A share path begins with "/" and the share's name (/photo/2019); a full path is where the same file lies in the file
// system (/volume1/photo/2019). Paths are bytes and are compared byte for byte.
//
// Threads: all functions may be called from any thread. Those that ask about shares take sdk::SDKMutex(): do not hold
// it.

/// Whether `text` begins with `prefix`. An empty prefix always matches.
ORBISK_EXPORT bool StringStartWith(const std::string& text, const std::string& prefix);

/// What stands behind the last "/": "" for a path that ends in "/", the whole path if there is no "/".
ORBISK_EXPORT std::string Basename(const std::string& path);

/// What stands before the last "/": "" for "/a", and the whole path, not ".", if there is no "/".
ORBISK_EXPORT std::string Dirname(const std::string& path);

/// What stands behind the last "." of the base name, "" if there is none. A leading dot counts: .bashrc gives bashrc.
/// With `lower`, in lower case as tolower(3) knows it.
ORBISK_EXPORT std::string GetFileExtension(const std::string& path, bool lower);

/// Sets `share` to the first component of `share_path`: "photo" for "/photo/a" and "/photo/", "" for "/". Throws Error
/// 120 if the path is empty or does not begin with "/".
ORBISK_EXPORT void GetShareNameByPath(std::string& share, const std::string& share_path);

/// Sets `full_path` to where `share_path` lies: the folder that holds the share's folder, and `share_path` behind it.
/// Throws as GetShareNameByPath, and Error 800 if there is no such share.
ORBISK_EXPORT void GetFullPath(std::string& full_path, const std::string& share_path);

/// Sets `share` to the name of the share that holds `full_path` and `share_path` to the full path of its folder. Throws
/// Error 502 if no share does.
ORBISK_EXPORT void GetShareNamePathByFullPath(std::string& share, std::string& share_path,
                                              const std::string& full_path);

/// Whether `full_path` is or lies in a recycle bin, a share's or, in the share "homes", an account's. Throws as
/// GetShareNamePathByFullPath.
ORBISK_EXPORT bool IsFullPathInRecycleBin(const std::string& full_path);

/// `path` with the first component called `old_share` replaced by `new_share`; later ones of that name stay. Throws
/// Error 120 "Cannot find share: <old_share>" if there is none.
ORBISK_EXPORT std::string ReplacePathShare(const std::string& path, const std::string& new_share,
                                           const std::string& old_share);

/// Whether `name`, one component of a path, is never indexed wherever it stands: the box's own metadata folders, and
/// some names of version control and desktop systems, compared with case.
ORBISK_EXPORT bool IsSystemPreservedFileName(const std::string& name);

/// Why a path may not be indexed, in the order in which the rules are looked at.
enum class PathVerdict {
  kIndexable,
  kInSnapshot,
  kUnknownFileSystem,  ///< the kind of the file system cannot be told, for example because the path is missing
  kRemoteFileSystem,
  kImageFileSystem,    ///< of a mounted disk image
  kPseudoFileSystem,   ///< made up by the kernel
  kShareNotIndexable,  ///< the share is locked by encryption or read-only
  kInRecycleBin,
  kMountPoint,     ///< and not of a share of the encrypted kind
  kPreservedName,  ///< a component is IsSystemPreservedFileName
  kUnresolvable,   ///< realpath(3) fails
  kNotRealPath,    ///< has links, ".", "..", "//" or a "/" at the end
};

/// Whether `full_path` may be indexed and, if not, the first rule that refuses it. What cannot be asked refuses, except
/// a snapshot. Throws Error 502 if no share holds the path, 800 if that share is gone, and 502 if the share's settings
/// cannot be asked.
ORBISK_EXPORT PathVerdict JudgeFullPath(const std::string& full_path);

/// Whether JudgeFullPath has nothing against `full_path`. Throws as it does.
ORBISK_EXPORT bool CanFullPathBeIndexed(const std::string& full_path);

/// CanFullPathBeIndexed of the path that GetFullPath gives. Throws as the two.
ORBISK_EXPORT bool CanPathBeIndexed(const std::string& share_path);

/// Appends an event to the queue of the share that holds `path`, as one line, under the queue's lock.
///
/// `type` is an event bit (orbisk/fileindex/op.h), `path` and `path_old` are full paths, the latter for a rename and
/// else empty, `data` belongs to the type. Nothing is written, and nothing fails, if the share cannot be indexed, if a
/// reindex that covers `path` is pending already, or if the queue file cannot be opened for appending.
///
/// Throws what the look-up of the share throws. If the question for a pending reindex, the lock or the write fails, the
/// share is marked as needing a reindex, so that no change is lost, and the same Error is thrown; if marking fails, its
/// Error is.
ORBISK_EXPORT void AddCustomEvent(int type, const std::string& path, const std::string& path_old,
                                  const Json::Value& data);

}  // namespace orbisk::fileindex
