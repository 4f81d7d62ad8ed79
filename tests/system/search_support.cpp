// Runs the search daemon on a place of its own.
#include "tests/system/search_support.h"

#include <json/json.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "tests/support/local_socket.h"
#include "tests/support/private_mounts.h"

namespace orbisk::test {
namespace {

void EnterNamespaceOnce() {
  [[maybe_unused]] static const bool entered = [] {
    EnterPrivateMounts({});
    return true;
  }();
}

int CodeIn(const Json::Value& answer) {
  if (!answer.isObject()) {
    return -1;
  }
  return answer["success"].asBool() ? 0 : answer["error"]["code"].asInt();
}

}  // namespace

RawClient::RawClient(const std::string& socket_path) : fd_(ConnectTo(socket_path)) {
  if (fd_ < 0) {
    throw std::runtime_error("nobody listens at " + socket_path);
  }
}

RawClient::~RawClient() {
  close(fd_);
}

bool RawClient::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

bool RawClient::SendLength(std::uint64_t length) {
  return Send({reinterpret_cast<const char*>(&length), sizeof(length)});
}

std::optional<std::string> RawClient::ReceiveAll(std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  std::string bytes;
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    pollfd item = {fd_, POLLIN, 0};
    if (left.count() <= 0 || poll(&item, 1, static_cast<int>(left.count())) <= 0) {
      return std::nullopt;
    }
    char buffer[65536];
    const ssize_t count = recv(fd_, buffer, sizeof(buffer), 0);
    if (count <= 0) {
      return bytes;
    }
    bytes.append(buffer, static_cast<size_t>(count));
  }
}

std::optional<std::string> RawClient::ReceiveMessage(std::chrono::milliseconds limit) {
  const std::optional<std::string> bytes = ReceiveAll(limit);
  std::uint64_t length = 0;
  if (!bytes || bytes->size() < sizeof(length)) {
    return std::nullopt;
  }
  memcpy(&length, bytes->data(), sizeof(length));
  if (length != bytes->size() - sizeof(length)) {
    return std::nullopt;
  }
  return bytes->substr(sizeof(length));
}

SearchBox::SearchBox() {
  EnterNamespaceOnce();
  root_ = area_.path() + "/box";
  std::filesystem::create_directories(root_);
  MountEmptyFileSystem(root_, size_t{1} << 30);
  std::filesystem::create_directories(volume());
}

SearchBox::~SearchBox() {
  if (daemon_ != nullptr) {
    Kill();
  }
}

std::string SearchDaemonProgram() {
  return BuiltProgram("nimoelasticd");
}

void SearchBox::Start(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {SearchDaemonProgram(), "--socket",     socket(),      "--state-dir",
                                      root_ + "/state",      "--log-stderr", "--log-level", "info"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  daemon_ = std::make_unique<Subprocess>(command);
  if (!Eventually([&] { return CodeOf("index_list", Json::objectValue) == 0; })) {
    throw std::runtime_error("the daemon does not start: " + daemon_->Wait(std::chrono::seconds(1)).errors);
  }
}

ProcessResult SearchBox::Stop() {
  daemon_->Kill(SIGTERM);
  ProcessResult result = daemon_->Wait(std::chrono::seconds(60));
  daemon_.reset();
  return result;
}

void SearchBox::Kill() {
  daemon_->Kill(SIGKILL);
  daemon_.reset();
}

Json::Value SearchBox::Ask(const Json::Value& request) const {
  try {
    RawClient client(socket());
    const std::string text = JsonLine(request);
    if (!client.SendLength(text.size()) || !client.Send(text)) {
      return Json::Value();
    }
    const std::optional<std::string> answer = client.ReceiveMessage(std::chrono::seconds(120));
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (answer && reader->parse(answer->data(), answer->data() + answer->size(), &value, nullptr)) {
      return value;
    }
  } catch (const std::runtime_error&) {  // it does not listen
  }
  return Json::Value();
}

Json::Value SearchBox::Ask(const std::string& command, const Json::Value& data) const {
  Json::Value request;
  request["command"] = command;
  request["data"] = data;
  return Ask(request);
}

Json::Value SearchBox::AskPatiently(const std::string& command, const Json::Value& data) const {
  Json::Value answer;
  Eventually([&] {
    answer = Ask(command, data);
    const int code = CodeIn(answer);
    return code != 606 && code != 607 && code != 609;
  });
  return answer;
}

int SearchBox::CodeOf(const std::string& command, const Json::Value& data) const {
  return CodeIn(Ask(command, data));
}

void SearchBox::CreateIndex(const std::string& id) {
  Json::Value data;
  data["id"] = id;
  data["path"] = volume() + "/" + id;
  data["settings"] = Json::Value(Json::objectValue);
  data["mappings"] = SmallMappings();
  data["event_handler"] = Object("{'lib_path':'/nowhere/handler.so'}");
  const Json::Value answer = Ask("index_create", data);
  if (CodeIn(answer) != 0) {
    throw std::runtime_error("no index: " + JsonLine(answer));
  }
}

int SearchBox::Put(const std::string& id, const std::string& path, const std::string& text) const {
  Json::Value data;
  data["id"] = id;
  data["doc_id"] = path;
  data["data"]["NIMOMDPath"] = path;
  data["data"]["NIMOMDTextContent"] = text;
  return CodeIn(AskPatiently("document_upsert_by_id", data));
}

std::vector<std::string> SearchBox::PathsBelow(const std::string& id, const std::string& folder) const {
  Json::Value data;
  data["id"] = id;
  data["query"]["qsl"]["prefix"]["NIMOMDPath"] = folder + "/";
  data["load_field"].append("NIMOMDPath");
  std::vector<std::string> paths;
  const Json::Value answer = AskPatiently("document_get_by_query", data);
  for (const Json::Value& hit : answer["data"]) {
    paths.push_back(hit["NIMOMDPath"].asString());
  }
  return paths;
}

Json::Value Object(std::string text) {
  std::replace(text.begin(), text.end(), '\'', '"');
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
    throw std::runtime_error("not JSON: " + text);
  }
  return value;
}

Json::Value SmallMappings() {
  return Object(
      "{'property_id':'NIMOMDPath','default':{'type':'string','analyzer':'nimostandard','required':false,"
      "'stored':true,'_all':true},'properties':{'NIMOMDPath':{'analyzer':'keyword','required':true,'_all':false},"
      "'NIMOMDFSName':{'analyzer':'keyword','_all':false},'NIMOMDFSSize':{'type':'int'},"
      "'NIMOMDTextContent':{'type':'text'}}}");
}

std::string JsonLine(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

}  // namespace orbisk::test
