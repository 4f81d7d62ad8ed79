// Runs the change monitor on a place of its own.
#include "tests/system/monitor_support.h"

#include <json/json.h>
#include <sys/socket.h>
#include <sys/stat.h>
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
    EnterPrivateMounts({"/var/lib/nimotifyd"});
    return true;
  }();
}

QueueLine ParseLine(const std::string& text) {
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    throw std::runtime_error("bad queue line: " + text);
  }
  return {value["event"].asInt(), value["is_dir"].asBool(), value["path"].asString(), value["path_old"].asString()};
}

std::string Text(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

std::string FileNameOf(std::string queue) {
  std::replace(queue.begin(), queue.end(), '/', '_');
  return queue + ".json";
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const QueueLine& line) {
  stream << line.event << (line.is_dir ? " dir " : " ");
  if (!line.path_old.empty()) {
    stream << line.path_old << " -> ";
  }
  return stream << line.path;
}

MonitorBox::MonitorBox(bool on_disk) {
  EnterNamespaceOnce();
  area_ = std::make_unique<TempDir>();
  root_ = area_->path() + "/box";
  std::filesystem::create_directories(root_);
  if (!on_disk) {
    MountEmptyFileSystem(root_, size_t{1} << 30);
  }
  std::filesystem::create_directories(share());
  std::filesystem::create_directories(outside());
  std::filesystem::create_directories(root_ + "/registrations");
}

MonitorBox::~MonitorBox() {
  if (monitor_ != nullptr) {
    monitor_->Kill(SIGKILL);
    monitor_.reset();
  }
}

void MonitorBox::Register() {
  Register(queue(), {share()});
}

void MonitorBox::Register(const std::string& queue, const std::vector<std::string>& folders, int mask,
                          const std::vector<std::string>& ignore) {
  Json::Value registration;
  registration["app"] = "fileindex";
  registration["type"] = 0;
  registration["queue"] = queue;
  registration["config"] = Json::Value(Json::arrayValue);
  for (const std::string& folder : folders) {
    Json::Value entry;
    entry["path"] = folder;
    entry["mask"] = mask;
    entry["ignore"] = Json::Value(Json::arrayValue);
    for (const std::string& name : ignore) {
      entry["ignore"].append(name);
    }
    registration["config"].append(entry);
  }
  WriteFile(root_ + "/registrations/" + FileNameOf(queue), Text(registration));
}

void MonitorBox::Unregister(const std::string& queue) {
  std::filesystem::remove(root_ + "/registrations/" + FileNameOf(queue));
}

void MonitorBox::Start(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = launcher_;
  command.insert(command.end(), {BuiltProgram("nimotifyd"), "--registrations", root_ + "/registrations", "--socket",
                                 root_ + "/socket", "--log-stderr", "--log-level", "debug"});
  command.insert(command.end(), arguments.begin(), arguments.end());
  monitor_ = std::make_unique<Subprocess>(command);
  if (!Eventually([&] { return Ask("status").substr(0, 1) == "{"; })) {
    throw std::runtime_error("the monitor does not start: " + monitor_->Wait(std::chrono::seconds(1)).errors);
  }
}

ProcessResult MonitorBox::Stop() {
  monitor_->Kill(SIGTERM);
  ProcessResult result = monitor_->Wait(std::chrono::seconds(60));
  monitor_.reset();
  return result;
}

std::string MonitorBox::Ask(const std::string& request) const {
  const int fd = ConnectTo(root_ + "/socket");
  if (fd < 0) {
    return "";
  }
  std::string answer;
  const std::string line = request + "\n";
  if (send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size())) {
    char buffer[4096];
    for (ssize_t got = recv(fd, buffer, sizeof(buffer), 0); got > 0; got = recv(fd, buffer, sizeof(buffer), 0)) {
      answer.append(buffer, static_cast<size_t>(got));
    }
  }
  close(fd);
  while (!answer.empty() && answer.back() == '\n') {
    answer.pop_back();
  }
  return answer;
}

std::vector<QueueLine> MonitorBox::Lines() const {
  return Lines(queue());
}

std::vector<QueueLine> MonitorBox::Lines(const std::string& queue) {
  std::vector<QueueLine> lines;
  if (!std::filesystem::exists(queue)) {
    return lines;
  }
  const std::string text = ReadFile(queue);
  for (size_t start = 0; start < text.size();) {
    const size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      break;
    }
    lines.push_back(ParseLine(text.substr(start, end - start)));
    start = end + 1;
  }
  return lines;
}

void MonitorBox::Settle() {
  // More than one try, because the kernel may still be dropping events.
  for (int tries = 0; tries < 30; ++tries) {
    const std::string mark = share() + "/.settled" + std::to_string(++marks_);
    WriteFile(mark, "");
    std::filesystem::remove(mark);
    const QueueLine line{kDeleteLine, false, mark, ""};
    if (Eventually([&] { return Holds(Lines(), line); }, std::chrono::seconds(2))) {
      return;
    }
  }
  throw std::runtime_error("the monitor does not report what happens");
}

std::vector<QueueLine> MonitorBox::LinesSoFar() {
  Settle();
  std::vector<QueueLine> lines = Lines();
  std::erase_if(lines, [](const QueueLine& line) {
    return line.event == kCrashedLine || line.path.find("/.settled") != std::string::npos;
  });
  return lines;
}

void MonitorBox::Forget() {
  Settle();
  std::filesystem::remove(queue());
}

bool Holds(const std::vector<QueueLine>& lines, const QueueLine& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

long CountOf(const std::vector<QueueLine>& lines, int event) {
  return std::count_if(lines.begin(), lines.end(), [event](const QueueLine& line) { return line.event == event; });
}

}  // namespace orbisk::test
