// What must survive a restart: the pause, the shares' flags, the VM-touch switch.
#pragma once

#include <json/json.h>

#include <string>

#include "orbisk/export.h"

namespace orbisk::fileindex {

/// The status file, read at construction.
///
/// Each changing call takes the lock file /tmp/orbisk_cfg_fi_status.lock, changes what was read at construction and
/// writes all of it: a change that another process made meanwhile is lost. Make a new object for each change. Changing
/// calls throw Error 506 if the lock cannot be had, 120 if the file holds something else than an object, and as Save.
///
/// Questions throw Error 120 if the file holds something else than an object.
///
/// Threads: one object is used by one thread at a time.
class ORBISK_EXPORT StatusMgr {
 public:
  /// Reads /var/packages/Orbisk/etc/fileindex.status, without the lock; a missing file gives the defaults. Throws Error
  /// 504 if the file cannot be read and parsed.
  StatusMgr();

  /// When the pause ends, in seconds since the epoch; 0 for a pause without end, -1 for none. An instant in the past is
  /// no pause, and stays until the next Pause or Resume.
  long GetPauseInfo() const;
  /// The flags of `share`, 0 if it has none. Bit 1: its index has to be built anew. Bit 2 is reserved, and cleared with
  /// it.
  int GetShareStatus(const std::string& share) const;
  bool GetVMTouchEnabled() const;

  /// Pauses indexing for `hours` hours, for good if 0, saves this and tells the indexing daemon. 3600 times `hours`
  /// wraps in 32 bits. Throws Error 120 for negative hours, and as SendCommandToDaemon; the pause is saved by then.
  void Pause(int hours);
  /// Ends a pause, saves this and tells the indexing daemon. Throws as SendCommandToDaemon; it is saved by then.
  void Resume();

  /// Sets the bits of `flags` for `share`.
  void SetShareStatus(const std::string& share, int flags);
  /// Clears the bits of `flags` for `share`, which stays listed, with 0 if need be.
  void UnsetShareStatus(const std::string& share, int flags);
  /// Takes `share` off the list.
  void ClearShareStatus(const std::string& share);
  void SetVMTouchEnabled(bool enabled);

  /// Replaces the status file, as root, mode 0644, without taking the lock. Throws Error 503 if the process cannot act
  /// as root, 505 if the file cannot be written, 502 if its mode cannot be set.
  void Save();

 private:
  template <typename T>
  T Read(const char* key, T missing) const;
  void StoreShareStatus(const std::string& share, int flags);

  Json::Value data_;
};

}  // namespace orbisk::fileindex
