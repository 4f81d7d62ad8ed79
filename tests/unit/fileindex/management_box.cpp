// A box on which the management operations run, and the story of what they do to everybody outside.
#include "tests/unit/fileindex/management_box.h"

#include <gtest/gtest.h>
#include <sys/file.h>

#include <set>

#include "orbisk/error.h"
#include "orbisk/json.h"
#include "tests/support/json_list.h"
#include "tests/unit/fileindex/system_calls.h"
#include "tests/unit/record_match.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::FakePlatform;
using orbisk::test::SeamCall;

constexpr char kFolderLock[] = "/tmp/orbisk_cfg_folder.lock";

// Calls of the platform that change something or are part of an order.
const std::set<std::string> kTold = {"NIMOSMBIsEnableSpotlight",
                                     "NIMOSMBSetSpotlight",
                                     "NLIBServiceRestart",
                                     "NLIBServiceStart",
                                     "NLIBServiceStop",
                                     "NLIBServicectlStart",
                                     "NLIBServicectlStop",
                                     "NLIBCExec",
                                     "NIMOQuotaIsEnough",
                                     "NIMORecycleHomeEnumRecyclePath",
                                     "NIMORecycleHomeEnumRecyclePathForAuthType"};

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string NoteOf(const SystemCall& call) {
  const bool is_folder_lock = call.path == kFolderLock;
  if (call.function == "flock" && is_folder_lock) {
    return call.operation == LOCK_UN ? "unlock folders" : "lock folders";
  }
  if (call.function == "rename" && call.path == kFoldersFile) {
    return "save folders";
  }
  if (call.function == "rename" && call.path == kStatusFile) {
    return "save status";
  }
  if (call.function == "write" && EndsWith(call.path, "/queue")) {
    return "event " + std::string(call.data.substr(0, call.data.size() - 1));
  }
  return call.function == "unlink" && EndsWith(call.path, "term.sugg.running") ? "unlink marker" : "";
}

std::string SearchNoteOf(const std::string& message) {
  Json::Value request;
  EXPECT_TRUE(fromString(request, message)) << message;
  if (request.isMember("compound")) {
    std::string text = "search compound";
    for (const Json::Value& item : request["compound"]) {
      text += " " + item["command"].asString() + " " + toString(item["data"]);
    }
    return text;
  }
  Json::Value data = request["data"];
  for (const char* const fixed : {"settings", "mappings", "event_handler"}) {
    data.removeMember(fixed);
  }
  return "search " + request["command"].asString() + " " + toString(data);
}

std::string NoteOf(const SeamCall& call) {
  if (call.function == "SockConnection::Send") {
    return SearchNoteOf(call.arguments.front());
  }
  const bool watches = call.function == "MonitorQueue::Upsert";
  if (watches || call.function == "MonitorQueue::Delete") {
    return (watches ? "watch " : "unwatch ") + call.arguments[0] + " " + call.arguments[1] + " " + call.arguments[2];
  }
  if (kTold.count(call.function) == 0) {
    return "";
  }
  std::string text = call.function + "(";
  for (const std::string& argument : call.arguments) {
    text += (text.back() == '(' ? "" : ", ") + argument;
  }
  return text + ")";
}

}  // namespace

ManagementBox::ManagementBox() {
  orbisk::test::WriteFile("/var/run/nimoelasticd.sock", "");
  daemon_.OnCommand([this] { Note("daemon " + daemon_.commands().back()); });
}

void ManagementBox::MakeFolders(const std::vector<std::string>& share_paths) const {
  for (const std::string& path : share_paths) {
    config_.MakeFolder(path);
  }
}

Story ManagementBox::StoryOf(const std::function<void()>& action) {
  const size_t first_call = FakePlatform::call_count();
  Forget();
  {
    const SystemCalls calls([this](const SystemCall& call) {
      if (const std::string note = NoteOf(call); !note.empty()) {
        Note(note);
      }
    });
    try {
      action();
    } catch (const Error& error) {
      daemon_.Settle();  // what it notes comes before the failure that ends the story
      Note("Error " + std::to_string(error.code()) + " " + error.what());
    } catch (const std::exception& error) {
      Note(std::string("not an Error: ") + error.what());
    }
  }
  Story story = Merge(first_call);
  for (std::string& line : story) {
    ReplaceAll(line, config_.Full(""), "V");
  }
  return story;
}

void ManagementBox::Forget() {
  log_.Clear();
  const std::lock_guard lock(mutex_);
  notes_.clear();
}

void ManagementBox::Note(const std::string& text) {
  const size_t calls_before = FakePlatform::call_count();
  const std::lock_guard lock(mutex_);
  notes_.push_back({calls_before, text});
}

Story ManagementBox::Merge(size_t first_call) const {
  const std::vector<SeamCall> calls = FakePlatform::calls();
  const std::lock_guard lock(mutex_);
  Story story;
  auto note = notes_.begin();
  for (size_t i = first_call; i <= calls.size(); ++i) {
    for (; note != notes_.end() && note->calls_before <= i; ++note) {
      story.push_back(note->text);
    }
    if (i < calls.size()) {
      if (const std::string text = NoteOf(calls[i]); !text.empty()) {
        story.push_back(text);
      }
    }
  }
  return story;
}

Story ServicesOn() {
  return {"NIMOSMBIsEnableSpotlight()", "NIMOSMBSetSpotlight(1)", "NLIBServiceRestart(samba)",
          "NLIBServiceStart(nimocontentextractd, 1)", "NLIBServicectlStart(pkg-Orbisk-fileindexd, 1)"};
}

Story ServicesOff() {
  return {"NIMOSMBIsEnableSpotlight()", "NIMOSMBSetSpotlight(0)", "NLIBServiceRestart(samba)",
          "NLIBServiceStop(nimocontentextractd, 0)", "NLIBServicectlStop(pkg-Orbisk-fileindexd, 1)"};
}

std::string EventNote(int type, const std::string& path, const std::string& path_old, const std::string& data) {
  return "event {\"data\":" + data + ",\"event\":" + std::to_string(type) + ",\"path\":\"" + path +
         "\",\"path_old\":\"" + path_old + "\"}";
}

std::string EveryKindNote(const std::string& path) {
  return EventNote(0x20000, path, "", R"({"audio":true,"document":true,"photo":true,"video":true})");
}

std::string WatchNote(const std::string& share, const std::vector<std::string>& share_paths) {
  std::string config;
  for (const std::string& path : share_paths) {
    config +=
        (config.empty() ? "" : ",") + std::string(R"({"ignore":["@eaDir"],"mask":65478,"path":"V)") + path + "\"}";
  }
  return "watch {\"config\":[" + config + R"(],"queue":"V/@fileindex/)" + share + "/queue\"} fileindex 0";
}

std::string UnwatchNote(const std::string& share) {
  return "unwatch V/@fileindex/" + share + "/queue fileindex 0";
}

std::string SearchNote(const std::string& command, const std::string& share) {
  return "search " + command + R"( {"id":"fileindex_)" + share + "\"}";
}

std::string CreateNote(const std::string& share) {
  return R"(search index_create {"id":"fileindex_)" + share + R"(","path":"V/@fileindex/)" + share + "/db\"}";
}

std::string SettingNote(const std::string& share, bool is_upsert) {
  return std::string(R"(daemon {"data":{"is_upsert":)") + (is_upsert ? "true" : "false") + R"(,"share_name":")" +
         share + R"("},"type":"notify_setting_changed"})";
}

std::string WorkerNote(const std::string& type, const std::string& share) {
  return R"(daemon {"data":{"share_name":")" + share + R"("},"type":")" + type + "\"}";
}

std::string RoomNote(const std::string& share) {
  return "NIMOQuotaIsEnough(0, V/" + share + ", 104857600)";
}

Story CleanNotes(const std::string& share_path) {
  const size_t slash = share_path.rfind('/');
  const std::string folder = share_path.substr(0, slash) + "/@fileindex" + share_path.substr(slash);
  return {"NLIBCExec(/bin/rm, -rf|" + folder + "/queue)", "NLIBCExec(/bin/rm, -rf|" + folder + "/queue.tmp)",
          "NLIBCExec(/bin/rm, -rf|" + folder + "/db)", "save status"};
}

void ExpectFailed(const orbisk::test::Record& record, const std::string& function, const std::string& condition,
                  const std::string& reason) {
  const std::string text = orbisk::test::WithoutLine(record.text);
  EXPECT_EQ(3, record.priority);
  EXPECT_EQ(orbisk::test::RecordText("index_mgr.cpp", function, "Failed [" + condition + "], reason: " + reason),
            text.substr(0, text.find(" [err: ")));
}

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (size_t place = text.find(from); place != std::string::npos; place = text.find(from, place + to.size())) {
    text.replace(place, from.size(), to);
  }
}

Story Joined(const std::vector<Story>& parts) {
  Story story;
  for (const Story& part : parts) {
    story.insert(story.end(), part.begin(), part.end());
  }
  return story;
}

Json::Value List(const std::vector<Json::Value>& items) {
  return orbisk::test::ListOf(items);
}

}  // namespace orbisk::fileindex::test
