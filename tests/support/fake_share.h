// The fake platform's shares.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "nimo/share.h"
#include "tests/support/fake_platform.h"

namespace orbisk::test {

/// A share of the fake box.
struct FakeShare {
  std::string name;
  std::string path;
  bool encrypted = false;
  bool encryption = false;
  bool read_only = false;
  bool recycle = false;
  bool hide_unreadable = false;
  int ftp_privilege = 0;
};

template <>
struct ArgumentText<NIMOSHARE*> {
  static std::string Of(const NIMOSHARE* share) { return share == nullptr ? "null" : share->szName; }
};

/// Knows no share until a test adds some; their folders need not exist. Every account may write to them.
class FakeShareService final : public FakeService {
 public:
  FakeShareService();

  FakeFunction<int(const char*, NIMOSHARE**)> get;
  FakeFunction<void(NIMOSHARE*)> free;
  FakeFunction<int(SZLIST**, NLIB_SHARE_FILTER*)> enumerate;
  FakeFunction<int(NIMOSHARE*, int*)> is_encrypted;
  FakeFunction<int(NIMOSHARE*, int*)> is_read_only;
  FakeFunction<int(NIMOSHARE*, int*)> is_encryption;
  FakeFunction<int(NIMOSHARE*, int*)> recycle_status;
  FakeFunction<int(NIMOSHARE*, int*)> hide_unreadable;
  FakeFunction<int(const char*, NIMOSHARE*)> user_privilege;
  FakeFunction<int(const char*, char*, size_t, char*, size_t)> name_path_get;
  FakeFunction<int(const char*)> is_share_recycle;
  FakeFunction<int(const char*, int)> is_home_recycle;  ///< looks whether the bin is really there

  void Add(const FakeShare& share);
  /// With one of its settings switched on, if `setting` says which.
  void Add(const std::string& name, const std::string& path, bool FakeShare::*setting = nullptr);
  void Remove(const std::string& name);
  /// The share whose folder is `full_path` or above it, the longest one.
  std::optional<FakeShare> HolderOf(const std::string& full_path) const;
  /// Records handed out and not yet freed.
  int outstanding() const;
  void Reset() override;

 private:
  int Get(const char* name, NIMOSHARE** share);
  void Free(NIMOSHARE* share);
  int Enumerate(SZLIST** list, NLIB_SHARE_FILTER* filter);
  int Setting(const NIMOSHARE* share, bool FakeShare::*setting, int* value);
  const FakeShare* Holder(const std::string& full_path) const;
  int NamePathGet(const char* full_path, char* name, size_t name_bytes, char* path, size_t path_bytes);
  int IsShareRecycle(const char* full_path);
  int IsHomeRecycle(const char* full_path);

  mutable std::mutex mutex_;  // guards the rest
  std::map<std::string, FakeShare> shares_;
  int outstanding_ = 0;
};

FakeShareService& FakeShares();

}  // namespace orbisk::test
