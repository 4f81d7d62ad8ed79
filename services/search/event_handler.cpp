// dlopen with a look at who owns the file.
#include "services/search/event_handler.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cerrno>

#include "services/base/log.h"

namespace nimoelasticd {

using service::Record;

namespace {

// Root's (or our own) file that nobody else may write.
bool IsTrusted(const struct stat& info) {
  return S_ISREG(info.st_mode) && (info.st_uid == 0 || info.st_uid == geteuid()) && (info.st_mode & 022) == 0;
}

}  // namespace

void EventHandler::Unloader::operator()(void* handle) const {
  dlclose(handle);
}

std::unique_ptr<EventHandler> EventHandler::Load(const std::string& id, const Json::Value& description) {
  const Json::Value& path_value = description.isObject() ? description["lib_path"] : Json::Value::nullSingleton();
  if (!path_value.isString() || path_value.asString().empty()) {
    return nullptr;
  }
  const std::string path = path_value.asString();
  struct stat info {};
  if (path.front() != '/' || stat(path.c_str(), &info) != 0) {
    Record(LOG_NOTICE, "event_handler_missing").Add("index", id).Add("file", path);
    return nullptr;
  }
  if (!IsTrusted(info)) {
    Record(LOG_WARNING, "event_handler_refused").Add("index", id).Add("file", path).Add("reason", "not root's alone");
    return nullptr;
  }
  void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* const reason = dlerror();
    Record(LOG_WARNING, "event_handler_refused")
        .Add("index", id)
        .Add("file", path)
        .Add("reason", reason != nullptr ? reason : "unknown");
    return nullptr;
  }
  Record(LOG_INFO, "event_handler_loaded").Add("index", id).Add("file", path);
  return std::unique_ptr<EventHandler>(new EventHandler(handle));
}

}  // namespace nimoelasticd
