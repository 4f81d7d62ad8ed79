// Stock Linux's own: the registry of shares, for the administrator's command. A box with a share service of its own
// does not offer this, and the library never asks for it.
#pragma once

#include <string>
#include <vector>

#include "nimo/export.h"

namespace NIMO::SHARE {

/// One share as it is registered.
struct Entry {
  std::string name;
  std::string path;              ///< full path of its folder; the last component is the share's name
  bool encrypted = false;        ///< locked now
  bool encryption = false;       ///< of the encrypted kind: while unlocked, mounted at its own path
  bool read_only = false;        ///< nobody may write
  bool recycle = false;          ///< has a recycle bin
  bool hide_unreadable = false;  ///< people do not see what they may not read
  int ftp_privilege = 0;         ///< in the box's own numbers
};

// All throw std::runtime_error with a reason for people. Processes exclude each other by a lock beside the registry;
// readers need none, as the file is replaced whole. Threads: any.

/// The shares in the order of the registry; empty when there is no registry yet.
NIMO_EXPORT std::vector<Entry> List();

/// Adds a share, or replaces the one of the same name. Refuses a name that is empty, holds "/" or a NUL byte, is "." or
/// ".." or is too long; a path that is not absolute and in its plain form (no "//", "." or "..", no "/" at the end), is
/// no folder, leads through a link, does not end in the name, or lies in another share's folder or around one.
///
/// The folder that FILEIDXQueuePathCompose (nimo/index_location.h) names a file in is made as well, so that events can
/// be queued for a share without an index. Where it cannot be made, that is logged and the share registered all the
/// same.
NIMO_EXPORT void Register(const Entry& entry);

/// Puts `entry` in the place of the share `name`, which has another name or another folder now: readers see the one or
/// the other. Refuses as Register, a name that is not registered, and the name of a third share. Makes what Register
/// makes.
NIMO_EXPORT void Replace(const std::string& name, const Entry& entry);

/// Removes a share from the registry; its folder stays. False when there was none.
NIMO_EXPORT bool Unregister(const std::string& name);

}  // namespace NIMO::SHARE
