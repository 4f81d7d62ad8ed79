// Indexes lie on the volume of their share, beside it: <volume>/@fileindex/<share>.
#include "nimo/index_location.h"

#include <cstring>
#include <string>

#include "nimo/share_registry.h"
#include "platform/linux/last_error.h"
#include "platform/linux/share_registry_text.h"

namespace nimo {
namespace {

int Store(const std::string& text, char* buffer, size_t bytes) {
  if (text.size() >= bytes) {
    return NIMO_FAIL(ENAMETOOLONG);
  }
  memcpy(buffer, text.c_str(), text.size() + 1);
  return 0;
}

int ComposePath(const char* share_path, const char* leaf, char* buffer, size_t bytes) {
  if (share_path == nullptr || buffer == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  const std::string path = share_path;
  const size_t slash = path.rfind('/');
  NIMO::SHARE::Entry share;
  share.path = path;
  share.name = slash == std::string::npos ? "" : path.substr(slash + 1);
  if (!ReasonAgainst(share).empty()) {
    return NIMO_FAIL(EINVAL);
  }
  return Store(path.substr(0, slash) + "/@fileindex/" + share.name + "/" + leaf, buffer, bytes);
}

}  // namespace
}  // namespace nimo

int FILEIDXQueuePathCompose(const char* share_path, char* buffer, size_t bytes) {
  return nimo::ComposePath(share_path, "queue", buffer, bytes);
}

int FILEIDXDBPathCompose(const char* share_path, char* buffer, size_t bytes) {
  return nimo::ComposePath(share_path, "db", buffer, bytes);
}

int FILEIDXGetIndexID(const char* share_name, char* buffer, size_t bytes) {
  if (share_name == nullptr || buffer == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  NIMO::SHARE::Entry share;
  share.name = share_name;
  share.path = "/" + share.name;
  if (!nimo::ReasonAgainst(share).empty()) {
    return NIMO_FAIL(EINVAL);
  }
  return nimo::Store("fileindex_" + share.name, buffer, bytes);
}
