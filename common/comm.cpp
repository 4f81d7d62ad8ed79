// The request channel to the search daemon: single exchanges, and waiting out a daemon that is not ready or busy.
#include "orbisk/comm.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "common/check.h"
#include "nimo/daemon_connection.h"
#include "orbisk/json.h"
#include "orbisk/notification.h"

namespace orbisk {
namespace {

constexpr char kElasticdSocketPath[] = "/var/run/nimoelasticd.sock";
constexpr long kElasticdConnectTimeout = 86400;
constexpr int kSocketWaits = 31;

constexpr unsigned kNotReadyPauseSeconds = 30;
constexpr unsigned kBusyPauseSeconds = 900;
constexpr unsigned kBusyPauseStepSeconds = 60;
constexpr int kBusyPauseSteps = 5;
constexpr unsigned kBusyTriesBeforeNotice = 10;

bool IsDatabaseNotReady(int code) {
  return code == 606 || code == 607 || code == 609;
}

bool IsDaemonBusy(int code) {
  return code == 1400 || code == 1401;
}

// Waits for the daemon's socket to appear. When it does not, connecting shows what is wrong.
void WaitForSocket() {
  for (int failures = 1; 0 != access(kElasticdSocketPath, F_OK) && failures <= kSocketWaits; ++failures) {
    ORBISK_NOTE("elastic socket is not ready, retry ... %d", failures);
    sleep(1);
  }
}

// The member `key` of `object`, null if there is none: for values that may be of any type.
const Json::Value& Member(const Json::Value& object, const char* key) {
  return object.isObject() ? object[key] : Json::Value::nullSingleton();
}

// Element `index` of `array`, null if there is none.
const Json::Value& Element(const Json::Value& array, Json::ArrayIndex index) {
  return array.isArray() ? array[index] : Json::Value::nullSingleton();
}

// Whether `value` is this truth value, and nothing else.
bool Says(const Json::Value& value, bool truth) {
  return value.isBool() && value.asBool() == truth;
}

// The string member `key` of `object`, "" if there is none: for records, which never fail.
std::string Text(const Json::Value& object, const char* key) {
  std::string text;
  if (object.isObject()) {
    GetJsonValue(text, object, key, false);
  }
  return text;
}

// The number that a failed sub-request gives for its failure, 0 if there is none.
int FailureCode(const Json::Value& error) {
  int code = 0;
  if (error.isObject()) {
    GetJsonValue(code, error, "code", false);
  }
  return code;
}

}  // namespace

void SendRequestImpl(Json::Value& res, const Json::Value& req) {
  WaitForSocket();
  nimodaemon::DomainSockConnection conn(kElasticdSocketPath);
  ORBISK_CHECK(!conn.Connect(kElasticdConnectTimeout), 913, "Connect failed");
  ORBISK_CHECK_TEXT(!conn.Send(toString(req)), "!conn.Send(req.toString())", 913, "Send failed");
  std::string resp_raw;
  ORBISK_CHECK_TEXT(!conn.Recv(resp_raw) || !fromString(res, resp_raw) || !res.isObject() || !res.isMember("success") ||
                        !res["success"].isBool(),
                    "!conn.Recv(resp_raw) || !res.fromString(resp_raw) || !res.isMember(\"success\") || "
                    "!res[\"success\"].isBool()",
                    913, "Recv failed, res=" + toString(res));
  if (!res["success"].asBool()) {
    Json::Value error;
    int code = 0;
    std::string msg;
    GetJsonValue(error, res, "error", true);
    GetJsonValue(code, error, "code", true);
    GetJsonValue(msg, error, "msg", true);
    ORBISK_CHECK(!res["success"].asBool(), code, "Request failed, msg=" + msg);
  }
  if (!req.isObject() || !req.isMember("compound") || !Says(Member(res, "has_fail"), true)) {
    return;
  }
  const Json::Value& results = Member(res, "data");
  for (Json::ArrayIndex i = 0; results.isArray() && i < results.size(); ++i) {
    if (!Says(Member(results[i], "success"), false)) {
      continue;
    }
    const Json::Value& failure = Member(results[i], "error");
    const std::string msg = Text(failure, "msg");
    const int code = FailureCode(failure);
    ORBISK_CHECK(IsDaemonBusy(code), code, msg);
    const std::string request = toString(Element(Member(req, "compound"), i));
    ORBISK_RECORD(ORBISK_SOURCE, "Compound failed: %s (%d) %s", msg.c_str(), code, request.c_str());
  }
}

void SendRequest(Json::Value& res, const Json::Value& req) {
  unsigned retries = 0;
  bool is_notified = false;
  while (true) {
    try {
      SendRequestImpl(res, req);
      return;
    } catch (const Error& error) {
      if (IsDatabaseNotReady(error.code())) {
        ORBISK_NOTE("DB is not good yet, retry... (Error Code: %d)", error.code());
        sleep(kNotReadyPauseSeconds);
        continue;
      }
      if (!IsDaemonBusy(error.code())) {
        throw Error(error);
      }
    }
    ORBISK_NOTE("Retry[%u] since nimoelasticd is busy. Command: %s, db: %s", retries, Text(req, "command").c_str(),
                Text(Member(req, "data"), "id").c_str());
    ++retries;
    if (retries > kBusyTriesBeforeNotice && !is_notified) {
      fileindex::NotifyLackOfMemory();
      is_notified = true;
    }
    // Apart from each other, so that waiting callers do not all come back at once.
    sleep(kBusyPauseSeconds + kBusyPauseStepSeconds * static_cast<unsigned>(rand() % kBusyPauseSteps));
  }
}

void SendRequest(const Json::Value& req) {
  Json::Value res;
  SendRequest(res, req);
}

}  // namespace orbisk
