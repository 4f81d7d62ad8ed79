// The registry of shares, which people edit: every text is refused with a reason or read, and what was read is written
// so that it reads the same.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/linux/share_registry_text.h"

namespace {

using NIMO::SHARE::Entry;

bool IsSame(const Entry& a, const Entry& b) {
  return a.name == b.name && a.path == b.path && a.encrypted == b.encrypted && a.encryption == b.encryption &&
         a.read_only == b.read_only && a.recycle == b.recycle && a.hide_unreadable == b.hide_unreadable &&
         a.ftp_privilege == b.ftp_privilege;
}

void RequireSound(const Entry& share) {
  const std::string inside = share.path + "//a/";
  const auto below = nimo::ComponentsBelow(inside, share.path);
  if (!nimo::ReasonAgainst(share).empty() || !below || below->size() != 1 || below->front() != "a" ||
      nimo::ComponentsBelow(share.path + "a", share.path)) {
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  std::vector<Entry> shares;
  try {
    shares = nimo::ParseShares(std::string(reinterpret_cast<const char*>(data), size));
  } catch (const std::runtime_error& error) {
    if (*error.what() == '\0') {
      abort();
    }
    return 0;
  }
  const std::vector<Entry> again = nimo::ParseShares(nimo::FormatShares(shares));
  if (again.size() != shares.size()) {
    abort();
  }
  for (size_t i = 0; i < shares.size(); ++i) {
    RequireSound(shares[i]);
    if (!IsSame(shares[i], again[i])) {
      abort();
    }
  }
  return 0;
}
