// The shared object that an index names for its events.
#pragma once

#include <json/value.h>

#include <memory>
#include <string>

namespace nimoelasticd {

/// A loaded shared object; unloaded at destruction.
class EventHandler {
 public:
  /// Loads {"lib_path": PATH} if there is such a file. A missing file is no error, and neither is one that cannot be
  /// loaded: nothing is returned, with a record that names the index `id`. What others than root may change is not
  /// loaded: the daemon may be asked by people who are not root.
  static std::unique_ptr<EventHandler> Load(const std::string& id, const Json::Value& description);

 private:
  struct Unloader {
    void operator()(void* handle) const;
  };
  explicit EventHandler(void* handle) : handle_(handle) {}

  std::unique_ptr<void, Unloader> handle_;
};

}  // namespace nimoelasticd
