// Reads and writes the files of failures.
#include "services/extractor/failure_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>

#include "services/base/json_text.h"
#include "services/base/log.h"

namespace extractor {
namespace {

// Of one content in work: the longest path with each byte escaped, and the numbers.
constexpr off_t kSlotBytes = off_t{32} << 10;
constexpr size_t kMostSuspects = 1'000;
// Lines that a later one outdated are written away once there are so many of them for each one that counts.
constexpr size_t kLinesPerEntry = 4;
constexpr size_t kLinesAnyway = 100;

using service::FromText;
using service::Record;
using service::ToText;
using Identity = FailureList::Identity;

Json::Value NumbersOf(const Identity& identity) {
  Json::Value numbers(Json::arrayValue);
  std::apply([&](auto... number) { (numbers.append(static_cast<Json::Int64>(number)), ...); }, identity);
  return numbers;
}

std::optional<Identity> IdentityIn(const Json::Value& line) {
  const Json::Value& numbers = line["content"];
  if (!numbers.isArray() || numbers.size() != std::tuple_size_v<Identity> ||
      !std::all_of(numbers.begin(), numbers.end(), [](const Json::Value& number) { return number.isInt64(); })) {
    return std::nullopt;
  }
  Identity identity;
  Json::ArrayIndex at = 0;
  std::apply(
      [&](auto&... number) { ((number = static_cast<std::decay_t<decltype(number)>>(numbers[at++].asInt64())), ...); },
      identity);
  return identity;
}

std::string StringIn(const Json::Value& line, const char* name) {
  return line[name].isString() ? line[name].asString() : "";
}

Json::Value LineOf(const Identity& identity, const std::string& path) {
  Json::Value line(Json::objectValue);
  line["content"] = NumbersOf(identity);
  line["path"] = path;
  return line;
}

Json::Value LineOf(const Identity& identity, const FailureList::Failure& failure) {
  Json::Value line = LineOf(identity, failure.path);
  line["kind"] = NameOf(failure.kind);
  line["message"] = failure.message;
  return line;
}

Json::Value SuspectLineOf(const Identity& identity, const std::string& path, bool suspect) {
  Json::Value line = LineOf(identity, path);
  line["suspect"] = suspect;
  return line;
}

std::optional<Json::Value> ObjectOf(std::string_view text) {
  std::optional<Json::Value> value = FromText(text);
  return value && value->isObject() ? value : std::nullopt;
}

std::string ReadWhole(const service::UniqueFd& file) {
  std::string text;
  std::array<char, 65536> buffer;
  ssize_t got = 0;
  while ((got = pread(file.get(), buffer.data(), buffer.size(), static_cast<off_t>(text.size()))) > 0) {
    text.append(buffer.data(), static_cast<size_t>(got));
  }
  return text;
}

// Whether all was written; else errno says why.
bool AllWritten(ssize_t written, std::string_view text) {
  if (written >= 0 && written < static_cast<ssize_t>(text.size())) {
    errno = ENOSPC;  // the call counts what there was room for, and does not say that there was no more
    return false;
  }
  return written >= 0;
}

bool WriteWhole(const service::UniqueFd& file, std::string_view text) {
  return AllWritten(write(file.get(), text.data(), text.size()), text);
}

bool WriteAt(const service::UniqueFd& file, std::string_view text, off_t place) {
  return AllWritten(pwrite(file.get(), text.data(), text.size(), place), text);
}

service::UniqueFd OpenIn(const std::string& folder, const char* name, int flags) {
  return service::UniqueFd(open((folder + "/" + name).c_str(), flags | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
}

}  // namespace

FailureStore::FailureStore(std::string folder, std::string reader, size_t most)
    : folder_(std::move(folder)), reader_(std::move(reader)), failures_(most) {
  if (folder_.empty()) {
    return;
  }
  if (!Open()) {
    GiveUp("open");
    return;
  }
  const std::string left = ReadWhole(in_work_);
  Load();
  TakeInWork(left);
}

bool FailureStore::Open() {
  // Paths of other people's files are in there.
  if (mkdir(folder_.c_str(), 0700) != 0 && errno != EEXIST) {
    return false;
  }
  in_work_ = OpenIn(folder_, "in-work", O_RDWR);
  if (!in_work_.valid()) {
    return false;
  }
  if (flock(in_work_.get(), LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    in_work_.Close();  // it is another's
    errno = error;
    return false;
  }
  list_ = OpenIn(folder_, "failures", O_RDWR | O_APPEND);
  return list_.valid();
}

void FailureStore::Load() {
  std::istringstream lines(ReadWhole(list_));
  std::string text;
  const std::optional<Json::Value> header = std::getline(lines, text) ? ObjectOf(text) : std::nullopt;
  lines_ = 1;
  if (!header || StringIn(*header, "reader") != reader_) {
    Rewrite();
    return;
  }
  // The last line may have been cut by the end of the machine.
  bool whole = !lines.eof();
  while (std::getline(lines, text)) {
    const std::optional<Json::Value> line = ObjectOf(text);
    whole = whole && line.has_value() && !lines.eof();
    if (line) {
      Take(*line);
    }
    ++lines_;
  }
  if (!whole) {
    Rewrite();
  }
}

void FailureStore::Take(const Json::Value& line) {
  const std::optional<Identity> identity = IdentityIn(line);
  if (!identity) {
    return;
  }
  if (line["suspect"].isBool()) {
    if (line["suspect"].asBool()) {
      suspects_[*identity] = StringIn(line, "path");
    } else {
      suspects_.erase(*identity);
    }
    return;
  }
  const std::optional<Outcome::Kind> kind = KindNamed(StringIn(line, "kind"));
  if (kind && IsContentsFault(*kind)) {
    suspects_.erase(*identity);
    failures_.Add(*identity, {*kind, StringIn(line, "message"), StringIn(line, "path")});
  }
}

// What the daemon before this one left in work.
void FailureStore::TakeInWork(const std::string& text) {
  for (size_t at = 0; at < text.size(); at += kSlotBytes) {
    const std::string_view slot = std::string_view(text).substr(at, kSlotBytes);
    const std::optional<Json::Value> line = ObjectOf(slot.substr(0, slot.find('\n')));
    const std::optional<Identity> identity = line ? IdentityIn(*line) : std::nullopt;
    if (!identity) {
      continue;
    }
    const std::string path = StringIn(*line, "path");
    Record(LOG_WARNING, "left_in_work").Add("path", path);
    if (IsSuspect(*identity)) {
      Add({*identity, path}, {Outcome::Kind::kDied, "the extractor ended twice while it was reading this"});
    } else if (suspects_.size() < kMostSuspects) {
      suspects_[*identity] = path;
      Append(SuspectLineOf(*identity, path, true));
    }
  }
  if (!folder_.empty() && ftruncate(in_work_.get(), 0) != 0) {
    GiveUp("ftruncate");
  }
}

void FailureStore::Add(const Content& content, FailureList::Failure failure) {
  failure.path = content.path;
  suspects_.erase(content.identity);
  Append(LineOf(content.identity, failure));
  failures_.Add(content.identity, std::move(failure));
}

void FailureStore::Acquit(const FailureList::Identity& content) {
  if (suspects_.erase(content) != 0) {
    Append(SuspectLineOf(content, "", false));
  }
}

void FailureStore::Append(const Json::Value& line) {
  if (folder_.empty()) {
    return;
  }
  ++lines_;
  if (!WriteWhole(list_, ToText(line) + "\n") || fdatasync(list_.get()) != 0) {
    GiveUp("write");
  } else if (lines_ > kLinesAnyway + kLinesPerEntry * (failures_.size() + suspects_.size())) {
    Rewrite();
  }
}

void FailureStore::Rewrite() {
  Json::Value header(Json::objectValue);
  header["reader"] = reader_;
  std::string text = ToText(header) + "\n";
  lines_ = 1;
  const auto add = [&](const Json::Value& line) {
    text += ToText(line) + "\n";
    ++lines_;
  };
  failures_.ForEach(
      [&](const Identity& identity, const FailureList::Failure& failure) { add(LineOf(identity, failure)); });
  for (const auto& [identity, path] : suspects_) {
    add(SuspectLineOf(identity, path, true));
  }
  service::UniqueFd fresh = OpenIn(folder_, "failures.new", O_RDWR | O_APPEND | O_TRUNC);
  const service::UniqueFd folder(open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fresh.valid() || !folder.valid() || !WriteWhole(fresh, text) || fdatasync(fresh.get()) != 0 ||
      renameat(folder.get(), "failures.new", folder.get(), "failures") != 0 || fsync(folder.get()) != 0) {
    GiveUp("rewrite");
    return;
  }
  list_ = std::move(fresh);
}

void FailureStore::GiveUp(const char* what) {
  const int error = errno;
  Record(LOG_WARNING, "failures_not_kept").Add("folder", folder_).Add("call", what).AddErrno("reason", error);
  folder_.clear();
  list_.Close();
  // Nobody will take from it what comes back from its worker; the next daemon would suspect it.
  if (in_work_.valid() && ftruncate(in_work_.get(), 0) != 0) {
    Record(LOG_WARNING, "in_work_not_emptied").AddErrno("reason", errno);
  }
  in_work_.Close();
}

FailureStore::InWork::InWork(FailureStore& store, const Content& content) : store_(store) {
  const auto free = std::find(store.slots_.begin(), store.slots_.end(), false);
  slot_ = static_cast<size_t>(free - store.slots_.begin());
  if (free == store.slots_.end()) {
    store.slots_.push_back(true);
  } else {
    *free = true;
  }
  if (store.folder_.empty()) {
    return;
  }
  const std::string text = ToText(LineOf(content.identity, content.path)) + "\n";
  if (!WriteAt(store.in_work_, text, static_cast<off_t>(slot_) * kSlotBytes)) {
    store.GiveUp("pwrite");
  }
}

FailureStore::InWork::~InWork() {
  store_.slots_[slot_] = false;
  if (!store_.folder_.empty() && !WriteAt(store_.in_work_, "\n", static_cast<off_t>(slot_) * kSlotBytes)) {
    store_.GiveUp("pwrite");
  }
}

}  // namespace extractor
