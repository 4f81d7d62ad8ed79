// What the targets that read the configuration's fixed paths have in common.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>

#include "orbisk/error.h"
#include "tests/support/fake_platform.h"
#include "tests/support/fake_share.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {

inline void Require(bool condition) {
  if (!condition) {
    abort();
  }
}

/// A fresh fake platform with the shares photo and music; the configuration's paths are the program's own.
class FuzzBox {
 public:
  FuzzBox() {
    static const bool entered = EnterOrEnd();
    Require(entered);
    FakeShares().Add("photo", "/volume1/photo");
    FakeShares().Add("music", "/volume2/music");
  }

 private:
  // Without a namespace of its own the target would write into the machine's configuration.
  static bool EnterOrEnd() {
    try {
      EnterPrivateMounts({"/var/packages/Orbisk/etc", "/tmp"});
    } catch (const NotAllowed& error) {
      fprintf(stderr, "no private mount namespace: %s\n", error.what());
      exit(77);
    }
    return true;
  }

  FakePlatform platform_;
};

/// Calls `action`; an Error that it throws must have one of `codes`. Whether it threw none.
template <class Action, class... Codes>
bool Succeeds(Action action, Codes... codes) {
  try {
    action();
    return true;
  } catch (const Error& error) {
    Require(((error.code() == codes) || ...));
    return false;
  }
}

}  // namespace orbisk::test
