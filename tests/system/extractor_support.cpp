// Runs the extractor daemon and talks to it.
#include "tests/system/extractor_support.h"

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "services/base/json_text.h"
#include "services/extractor/frame.h"
#include "tests/support/local_socket.h"

namespace orbisk::test {
namespace {

constexpr size_t kLongestAnswer = size_t{1} << 30;

}  // namespace

ExtractorClient::ExtractorClient(const std::string& socket_path) : fd_(ConnectTo(socket_path)) {
  if (fd_ < 0) {
    throw std::runtime_error("nobody listens at " + socket_path);
  }
}

ExtractorClient::~ExtractorClient() {
  close(fd_);
}

void ExtractorClient::SendRaw(std::string_view bytes) {
  // The daemon may hang up meanwhile; then there is no answer, which the test sees.
  extractor::SendBytes(fd_, bytes);
}

void ExtractorClient::Send(const std::string& request) {
  SendRaw(extractor::Framed(request));
}

std::string ExtractorClient::Receive() {
  const auto frame = extractor::ReceiveFrame(fd_, kLongestAnswer);
  return frame ? frame->message : "";
}

ExtractorBox::~ExtractorBox() {
  if (daemon_ != nullptr) {
    daemon_->Kill(SIGKILL);
  }
}

std::vector<std::string> ExtractorBox::Command(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command = {ProgramBeside("hostile_extractor"),
                                      "--socket",
                                      socket(),
                                      "--pid-file",
                                      pid_file(),
                                      "--state-dir",
                                      state_folder()};
  command.insert(command.end(), {"--log-stderr", "--log-level", "info"});
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

void ExtractorBox::Start(const std::vector<std::string>& arguments) {
  Launch(Command(arguments));
}

void ExtractorBox::StartProgram(const std::string& program, const std::vector<std::string>& arguments) {
  std::vector<std::string> command = Command(arguments);
  command.front() = program;
  Launch(command);
}

void ExtractorBox::Launch(const std::vector<std::string>& command) {
  daemon_ = std::make_unique<Subprocess>(command);
  const bool answers = Eventually([&] {
    try {
      return Status().isObject();
    } catch (const std::exception&) {
      return false;
    }
  });
  if (!answers) {
    throw std::runtime_error("the extractor does not start: " + daemon_->Wait(std::chrono::seconds(1)).errors);
  }
}

ProcessResult ExtractorBox::Stop() {
  daemon_->Kill(SIGTERM);
  ProcessResult result = daemon_->Wait(std::chrono::seconds(20));
  daemon_.reset();
  return result;
}

Json::Value ExtractorBox::Ask(const std::string& request) const {
  ExtractorClient client(socket());
  client.Send(request);
  const auto answer = service::FromText(client.Receive());
  return answer ? *answer : Json::Value();
}

Json::Value ExtractorBox::Parse(const std::string& path, bool need_meta) const {
  return Ask(ParseText(path, need_meta));
}

Json::Value ExtractorBox::Do(const std::string& content) {
  const std::string path = area_ / ("file" + std::to_string(++files_));
  WriteFile(path, content);
  return Parse(path);
}

Json::Value ExtractorBox::Status() const {
  return Ask(R"({"status":true})")["data"];
}

std::string ParseText(const std::string& path, bool need_meta) {
  Json::Value request;
  request["path"] = path;
  request["need_meta"] = need_meta;
  return service::ToText(request);
}

bool IsRunning(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string stat;
  std::getline(file, stat);
  const size_t name_end = stat.rfind(") ");
  return name_end != std::string::npos && stat[name_end + 2] != 'Z' && stat[name_end + 2] != 'X';
}

}  // namespace orbisk::test
