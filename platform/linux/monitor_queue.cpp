// Registration with nimotifyd: one JSON file per queue, written whole, and a poke to the monitor's socket.
#include "nimo/monitor_queue.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/linux/unique_fd.h"

namespace NIMO::NIMOTIFYD {
namespace {

constexpr char kRegistrationsFolder[] = "/var/lib/nimotifyd/queues.d";
constexpr char kSocketPath[] = "/var/run/nimotifyd.sock";
constexpr char kSuffix[] = ".json";
// NAME_MAX is 255; this leaves room for ".json", a collision counter and the temporary file's marks.
constexpr size_t kLongestReadableName = 160;
constexpr std::chrono::milliseconds kAnswerTime{5000};
constexpr std::chrono::milliseconds kConnectPause{10};

using Clock = std::chrono::steady_clock;

// Lines carry paths as they are registered, so there must be one way to write a path: absolute, without empty, "." and
// ".." components. A slash may end it.
bool IsPlainPath(std::string_view path) {
  if (path.empty() || path[0] != '/' || path.find('\0') != std::string_view::npos) {
    return false;
  }
  for (size_t slash = 0; slash < path.size();) {
    const size_t end = std::min(path.find('/', slash + 1), path.size());
    const std::string_view name = path.substr(slash + 1, end - slash - 1);
    if (name == "." || name == ".." || (name.empty() && end < path.size())) {
      return false;
    }
    slash = end;
  }
  return true;
}

// The string's bytes, as long as the value stays; null for a value of another type.
std::string_view Bytes(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  return value.isString() && value.getString(&begin, &end) ? std::string_view(begin, static_cast<size_t>(end - begin))
                                                           : std::string_view();
}

bool IsQueuePath(const Json::Value& value) {
  return IsPlainPath(Bytes(value)) && Bytes(value).back() != '/';
}

bool IsName(const Json::Value& value) {
  const std::string_view name = Bytes(value);
  return !name.empty() && name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

bool IsAppName(const std::string& app) {
  return !app.empty() && app.find('\0') == std::string::npos;
}

// Keeps letters, digits, "-", "." and "_"; every other byte becomes %XX, so different texts stay different.
std::string Escape(const std::string& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string result;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' ||
                       c == '_' || (c == '.' && !result.empty());
    if (plain) {
      result += c;
    } else {
      result += {'%', kHex[byte >> 4], kHex[byte & 15]};
    }
  }
  return result;
}

uint64_t Fnv1a(const std::string& text) {
  uint64_t hash = 14695981039346656037U;
  for (const char c : text) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
  }
  return hash;
}

struct Identity {
  std::string queue;
  std::string app;
  MONITOR_QUEUE_TYPE type;
};

std::string BaseName(const Identity& identity) {
  std::string name =
      std::to_string(static_cast<int>(identity.type)) + "@" + Escape(identity.app) + "@" + Escape(identity.queue);
  if (name.size() <= kLongestReadableName) {
    return name;
  }
  char hash[20];
  snprintf(hash, sizeof(hash), "~%016llx", static_cast<unsigned long long>(Fnv1a(name)));
  return name.substr(0, kLongestReadableName - strlen(hash)) + hash;
}

std::optional<std::string> ReadBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return std::nullopt;
  }
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

std::optional<Json::Value> ParseObject(const std::string& bytes) {
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  try {
    if (!reader->parse(bytes.data(), bytes.data() + bytes.size(), &value, nullptr) || !value.isObject()) {
      return std::nullopt;
    }
  } catch (const Json::Exception&) {
    return std::nullopt;
  }
  return value;
}

std::string Text(const Json::Value& value) {
  static const Json::StreamWriterBuilder builder = [] {
    Json::StreamWriterBuilder made;
    made["indentation"] = "";
    made["emitUTF8"] = true;  // names are bytes: without this, bytes that are not UTF-8 are replaced
    return made;
  }();
  return Json::writeString(builder, value);
}

void AppendString(std::string& text, std::string_view bytes) {
  const auto stays = [](char c) { return static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\'; };
  if (std::all_of(bytes.begin(), bytes.end(), stays)) {
    text += '"';
    text += bytes;
    text += '"';
  } else {
    text += Text(Json::Value(bytes.data(), bytes.data() + bytes.size()));
  }
}

// As Text would, where an entry has nothing but what it needs: there may be thousands, and they are written anew for
// each change of one. False if it is malformed.
bool AppendEntry(std::string& text, const Json::Value& entry) {
  if (!entry.isObject()) {
    return false;
  }
  const std::string_view path = Bytes(entry["path"]);
  const Json::Value& mask = entry["mask"];
  const Json::Value& ignore = entry["ignore"];
  if (!IsPlainPath(path) || !mask.isUInt() || (!ignore.isNull() && !ignore.isArray()) ||
      !std::all_of(ignore.begin(), ignore.end(), IsName)) {
    return false;
  }
  if (entry.size() != 3 || !ignore.isArray() || mask.type() == Json::realValue) {
    text += Text(entry);
    return true;
  }
  text += R"({"ignore":[)";
  for (const Json::Value& name : ignore) {
    text += text.back() != '[' ? "," : "";
    AppendString(text, Bytes(name));
  }
  text += R"(],"mask":)";
  text += std::to_string(mask.asUInt());
  text += R"(,"path":)";
  AppendString(text, path);
  text += '}';
  return true;
}

// The text of the array of folders; nothing if the description is malformed.
std::optional<std::string> ConfigText(const Json::Value& description) {
  if (!description.isObject() || !IsQueuePath(description["queue"])) {
    return std::nullopt;
  }
  const Json::Value& config = description["config"];
  if (!config.isNull() && !config.isArray()) {
    return std::nullopt;
  }
  constexpr size_t kUsualBytes = 128;
  std::string text = "[";
  text.reserve(config.size() * kUsualBytes);
  for (const Json::Value& entry : config) {
    text += text.size() > 1 ? "," : "";
    if (!AppendEntry(text, entry)) {
      return std::nullopt;
    }
  }
  text += ']';
  return text;
}

// A registration's text is what comes before its folders, the folders' array, and what comes behind, with the members
// in the order of their names.
std::string Before(const Identity& identity) {
  return "{\"app\":" + Text(identity.app) + ",\"config\":";
}

std::string Behind(const Identity& identity) {
  return ",\"queue\":" + Text(identity.queue) + ",\"type\":" + std::to_string(static_cast<int>(identity.type)) + "}\n";
}

// Whether the file has `text` at `offset`.
bool HasAt(int fd, off_t offset, const std::string& text) {
  std::string bytes(text.size(), '\0');
  return pread(fd, bytes.data(), bytes.size(), offset) == static_cast<ssize_t>(bytes.size()) && bytes == text;
}

// Behind an array's end, what Behind says can only stand in the outermost object, so the folders need not be read.
bool IsWrittenFor(const std::string& path, const Identity& identity) {
  const std::string before = Before(identity) + "[";
  const std::string behind = "]" + Behind(identity);
  const nimo::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  const off_t size = file.ok() ? lseek(file.get(), 0, SEEK_END) : -1;
  return size >= static_cast<off_t>(before.size() + behind.size()) && HasAt(file.get(), 0, before) &&
         HasAt(file.get(), size - static_cast<off_t>(behind.size()), behind);
}

bool BelongsTo(const Json::Value& registration, const Identity& identity) {
  const Json::Value& queue = registration["queue"];
  const Json::Value& app = registration["app"];
  const Json::Value& type = registration["type"];
  return queue.isString() && queue.asString() == identity.queue && app.isString() && app.asString() == identity.app &&
         type.isInt() && type.asInt() == static_cast<int>(identity.type);
}

// The registration's file. Two long paths may share a hash: a file that belongs to another queue is stepped over.
std::string FileOf(const Identity& identity) {
  const std::string base = std::string(kRegistrationsFolder) + "/" + BaseName(identity);
  for (int number = 0;; ++number) {
    std::string path = base + (number == 0 ? "" : "~" + std::to_string(number)) + kSuffix;
    if (IsWrittenFor(path, identity)) {
      return path;
    }
    const std::optional<std::string> bytes = ReadBytes(path);
    if (!bytes) {
      return path;
    }
    const std::optional<Json::Value> present = ParseObject(*bytes);
    if (!present || BelongsTo(*present, identity)) {
      return path;
    }
  }
}

bool SyncFolder(const std::string& folder) {
  const nimo::UniqueFd descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return descriptor.ok() && fsync(descriptor.get()) == 0;
}

// A folder just made is lost in a crash of the machine, with what is synced in it, unless its parent is synced as well.
bool MakeFolder(const std::string& folder) {
  if (mkdir(folder.c_str(), 0755) != 0) {
    return errno == EEXIST;
  }
  const size_t slash = folder.rfind('/');
  return SyncFolder(slash == 0 ? "/" : folder.substr(0, slash));
}

bool MakeFolders(const std::string& folder) {
  for (size_t slash = folder.find('/', 1); slash != std::string::npos; slash = folder.find('/', slash + 1)) {
    if (!MakeFolder(folder.substr(0, slash))) {
      return false;
    }
  }
  return MakeFolder(folder);
}

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = write(fd, text.data() + done, text.size() - done);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    done += static_cast<size_t>(written);
  }
  return true;
}

// The name of the temporary file does not end in ".json", so the monitor never reads a torn registration.
bool WriteWhole(const std::string& path, const std::string& text) {
  std::string temporary = path + ".XXXXXX";
  nimo::UniqueFd file(mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.ok()) {
    return false;
  }
  const bool written =
      WriteAll(file.get(), text) && fchmod(file.get(), 0644) == 0 && fsync(file.get()) == 0 && file.Close();
  if (!written || rename(temporary.c_str(), path.c_str()) != 0) {
    const int reason = errno;
    unlink(temporary.c_str());
    errno = reason;
    return false;
  }
  return SyncFolder(kRegistrationsFolder);
}

enum class Connection { kMade, kNobodyListens, kFailed };

// The kernel does not let a connection wait that must not block: while the monitor has more of them than it can keep,
// it says EAGAIN.
Connection Connect(int fd, Clock::time_point deadline) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  static_assert(sizeof(kSocketPath) <= sizeof(address.sun_path));
  memcpy(address.sun_path, kSocketPath, sizeof(kSocketPath));
  while (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    if (errno == ENOENT || errno == ECONNREFUSED) {
      return Connection::kNobodyListens;
    }
    if ((errno != EAGAIN && errno != EINTR) || Clock::now() >= deadline) {
      return Connection::kFailed;
    }
    std::this_thread::sleep_for(kConnectPause);
  }
  return Connection::kMade;
}

bool AwaitAnswer(int fd, Clock::time_point deadline) {
  std::string answer;
  while (answer.find('\n') == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd waiting{fd, POLLIN, 0};
    const int ready = left.count() > 0 ? poll(&waiting, 1, static_cast<int>(left.count())) : 0;
    if (ready < 0 && errno == EINTR) {
      continue;
    }
    char buffer[64];
    const ssize_t received = ready > 0 ? recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT) : 0;
    if (received <= 0) {
      return false;
    }
    answer.append(buffer, static_cast<size_t>(received));
  }
  return answer.compare(0, 3, "ok\n") == 0;
}

// Asks a running monitor to look at the registrations and waits until its watches stand. That no monitor runs is
// nothing to report: it reads the registrations when it starts.
void PokeMonitor() {
  static constexpr char kRequest[] = "reload\n";
  const auto deadline = Clock::now() + kAnswerTime;
  const nimo::UniqueFd socket_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const Connection connection = socket_fd.ok() ? Connect(socket_fd.get(), deadline) : Connection::kFailed;
  if (connection == Connection::kNobodyListens) {
    return;
  }
  if (connection == Connection::kFailed ||
      send(socket_fd.get(), kRequest, sizeof(kRequest) - 1, MSG_NOSIGNAL) != sizeof(kRequest) - 1 ||
      !AwaitAnswer(socket_fd.get(), deadline)) {
    syslog(LOG_WARNING, "event=monitor_silent socket=%s", kSocketPath);
  }
}

}  // namespace

// Keeps what is written of it and no copy, which would take longer to make than the text; null if it is malformed.
MonitorQueue::MonitorQueue(const Json::Value& description) {
  if (const std::optional<std::string> config = ConfigText(description)) {
    description_["queue"] = description["queue"];
    description_["config"] = *config;
  }
}

bool MonitorQueue::Upsert(const MonitorQueue& queue, const std::string& app, MONITOR_QUEUE_TYPE type) {
  if (!IsAppName(app) || queue.description_.isNull()) {
    return false;
  }
  const Identity identity{queue.description_["queue"].asString(), app, type};
  std::string text = Before(identity);
  text += Bytes(queue.description_["config"]);
  text += Behind(identity);
  if (!MakeFolders(kRegistrationsFolder) || !WriteWhole(FileOf(identity), text)) {
    syslog(LOG_ERR, "event=registration_failed queue=%s reason=%s", identity.queue.c_str(), strerror(errno));
    return false;
  }
  PokeMonitor();
  return true;
}

bool MonitorQueue::Delete(const std::string& queue_path, const std::string& app, MONITOR_QUEUE_TYPE type) {
  if (!IsAppName(app) || !IsQueuePath(Json::Value(queue_path))) {
    return false;
  }
  const std::string path = FileOf({queue_path, app, type});
  if (unlink(path.c_str()) != 0) {
    return errno == ENOENT;
  }
  SyncFolder(kRegistrationsFolder);
  PokeMonitor();
  return true;
}

}  // namespace NIMO::NIMOTIFYD
