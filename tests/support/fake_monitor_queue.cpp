// The fake platform's registration with the change monitor.
#include "tests/support/fake_monitor_queue.h"

#include <algorithm>

namespace orbisk::test {
namespace {

bool IsPlain(const std::string& path) {
  const std::string ended = path + "/";
  return !path.empty() && path.front() == '/' && path.find('\0') == std::string::npos &&
         path.find("//") == std::string::npos && ended.find("/./") == std::string::npos &&
         ended.find("/../") == std::string::npos;
}

bool IsFolder(const Json::Value& path) {
  return path.isString() && IsPlain(path.asString());
}

bool IsQueue(const Json::Value& path) {
  return IsFolder(path) && path.asString().back() != '/';
}

bool IsName(const Json::Value& name) {
  return name.isString() && !name.asString().empty() && name.asString().find('/') == std::string::npos;
}

bool IsEntry(const Json::Value& entry) {
  if (!entry.isObject() || !IsFolder(entry["path"]) || !entry["mask"].isUInt()) {
    return false;
  }
  const Json::Value& ignore = entry["ignore"];
  return ignore.isNull() || (ignore.isArray() && std::all_of(ignore.begin(), ignore.end(), IsName));
}

bool IsDescription(const Json::Value& description) {
  if (!description.isObject() || !IsQueue(description["queue"])) {
    return false;
  }
  const Json::Value& config = description["config"];
  return config.isNull() || (config.isArray() && std::all_of(config.begin(), config.end(), IsEntry));
}

}  // namespace

std::string ArgumentText<Json::Value>::Of(const Json::Value& argument) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, argument);
}

FakeMonitorQueueService::FakeMonitorQueueService()
    : upsert("MonitorQueue::Upsert", [this](const Json::Value& description, const std::string& app,
                                            int type) { return Upsert(description, app, type); }),
      remove("MonitorQueue::Delete", [this](const std::string& queue_path, const std::string& app, int type) {
        return Delete(queue_path, app, type);
      }) {}

std::map<std::tuple<std::string, std::string, int>, Json::Value> FakeMonitorQueueService::registrations() const {
  const std::lock_guard lock(mutex_);
  return registrations_;
}

void FakeMonitorQueueService::Reset() {
  const std::lock_guard lock(mutex_);
  registrations_.clear();
}

bool FakeMonitorQueueService::Upsert(const Json::Value& description, const std::string& app, int type) {
  if (!IsDescription(description) || app.empty()) {
    return false;
  }
  const std::lock_guard lock(mutex_);
  registrations_[{description["queue"].asString(), app, type}] = description;
  return true;
}

bool FakeMonitorQueueService::Delete(const std::string& queue_path, const std::string& app, int type) {
  if (!IsQueue(Json::Value(queue_path)) || app.empty()) {
    return false;
  }
  const std::lock_guard lock(mutex_);
  registrations_.erase({queue_path, app, type});
  return true;
}

FakeMonitorQueueService& FakeMonitorQueues() {
  static auto* const queues = new FakeMonitorQueueService;
  return *queues;
}

}  // namespace orbisk::test

namespace NIMO::NIMOTIFYD {

MonitorQueue::MonitorQueue(const Json::Value& description) : description_(description) {}

bool MonitorQueue::Upsert(const MonitorQueue& queue, const std::string& app, MONITOR_QUEUE_TYPE type) {
  return orbisk::test::FakeMonitorQueues().upsert(queue.description_, app, type);
}

bool MonitorQueue::Delete(const std::string& queue_path, const std::string& app, MONITOR_QUEUE_TYPE type) {
  return orbisk::test::FakeMonitorQueues().remove(queue_path, app, type);
}

}  // namespace NIMO::NIMOTIFYD
