// The fake platform's registration with the change monitor.
#pragma once

#include <json/json.h>

#include <map>
#include <mutex>
#include <string>
#include <tuple>

#include "nimo/monitor_queue.h"
#include "tests/support/fake_platform.h"

namespace orbisk::test {

template <>
struct ArgumentText<Json::Value> {
  static std::string Of(const Json::Value& argument);
};

/// Keeps registrations in memory.
class FakeMonitorQueueService final : public FakeService {
 public:
  FakeMonitorQueueService();

  /// The description of the queue, the application's name and the type; of delete the queue's path instead.
  FakeFunction<bool(Json::Value, std::string, int)> upsert;
  FakeFunction<bool(std::string, std::string, int)> remove;

  /// Descriptions by queue path, application and type.
  std::map<std::tuple<std::string, std::string, int>, Json::Value> registrations() const;
  void Reset() override;

 private:
  bool Upsert(const Json::Value& description, const std::string& app, int type);
  bool Delete(const std::string& queue_path, const std::string& app, int type);

  mutable std::mutex mutex_;  // guards the registrations
  std::map<std::tuple<std::string, std::string, int>, Json::Value> registrations_;
};

FakeMonitorQueueService& FakeMonitorQueues();

}  // namespace orbisk::test
