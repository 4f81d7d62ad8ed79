// One shared folder of the box, as the box's share service describes it.
#pragma once

#include <map>
#include <set>
#include <string>

#include "orbisk/export.h"

struct NIMOSHARE;  // the platform's share record, nimo/share.h

namespace orbisk::sdk {

/// A share: its name and path, whether it can be indexed, its settings, and where its index lives.
///
/// The calls into the box's share service are made while SDKMutex() is held, which is not recursive: no caller of this
/// class holds it. IsHideUnReadable, GetFTPPrivilege, GetPrivilege and Enum do without.
///
/// A failed question leaves the object usable; the next call asks again.
///
/// Threads: one object is used by one thread at a time; different objects by any.
class ORBISK_EXPORT SDKShare {
 public:
  /// Looks up the share called `share_name`. Throws Error 800 with the name as reason when there is none.
  explicit SDKShare(const std::string& share_name);
  ~SDKShare();
  SDKShare(const SDKShare&) = delete;
  SDKShare& operator=(const SDKShare&) = delete;

  /// The share's name as the box spells it.
  std::string GetName() const;
  /// The full path of the share's own folder, for example /volume1/photo.
  std::string GetPath() const;

  /// Whether the share is neither locked by encryption nor read-only. Throws Error 502 when that cannot be asked.
  bool CanBeIndexed() const;
  /// Whether the share is of the encrypted kind, locked or not. Throws Error 502 when that cannot be asked.
  bool IsEncryption() const;
  /// Whether the share has its recycle bin switched on. Throws Error 502 when that cannot be asked.
  bool IsEnableRecycleBin() const;
  /// Whether people do not see what they may not read; also false when that cannot be asked.
  bool IsHideUnReadable() const;
  /// Whether 100 MiB more fit on the share's volume. Only a real shortage answers false: a question that fails
  /// otherwise must not stop indexing.
  bool IsSpaceEnough() const;

  /// What FTP clients may do with the share, in the box's numbers.
  int GetFTPPrivilege() const;
  /// What the account `user` may do with the share, in the box's numbers, an error's number included. Asked once for
  /// each account.
  int GetPrivilege(const std::string& user) const;

  /// The path of the share's event queue file. Asked once. Throws Error 502 when that cannot be asked.
  std::string GetQueuePath() const;
  /// The folder of the share's index database. Asked once. Throws Error 502 when that cannot be asked.
  std::string GetDBPath() const;
  /// The identifier of the share's index in the search daemon. Asked once. Throws Error 502 when that cannot be asked.
  std::string GetDBName() const;

  /// The names of all shares. Throws Error 121 when they cannot be listed.
  static std::set<std::string> Enum();

 private:
  NIMOSHARE* share_info_ = nullptr;
  std::string share_name_;
  mutable std::map<std::string, int> privileges_;
  mutable std::string queue_path_;
  mutable std::string db_path_;
  mutable std::string db_name_;
};

}  // namespace orbisk::sdk
