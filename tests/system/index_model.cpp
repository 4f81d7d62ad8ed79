// Replays operations on a model of the index.
#include "tests/system/index_model.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <optional>
#include <sstream>

#include "orbisk/error.h"
#include "orbisk/fileindex/optree.h"

namespace orbisk::test {
namespace {

std::string ContentOf(const std::string& path, char kind) {
  std::array<char, 512> buffer{};
  if (kind == 'l') {
    const ssize_t length = readlink(path.c_str(), buffer.data(), buffer.size());
    return std::string(buffer.data(), length > 0 ? static_cast<size_t>(length) : 0);
  }
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  const ssize_t length = fd >= 0 ? read(fd, buffer.data(), buffer.size()) : 0;
  if (fd >= 0) {
    close(fd);
  }
  return std::string(buffer.data(), length > 0 ? static_cast<size_t>(length) : 0);
}

// What lies at `path`, without its content; nothing if it is gone.
std::optional<Document> LookAt(const std::string& path) {
  struct statx info {};
  constexpr unsigned kWanted = STATX_BASIC_STATS | STATX_BTIME;
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, kWanted, &info) != 0) {
    return std::nullopt;
  }
  const auto nanoseconds = [](const statx_timestamp& time) { return time.tv_sec * 1'000'000'000 + time.tv_nsec; };
  Document document;
  document.kind = S_ISDIR(info.stx_mode) ? 'd' : S_ISLNK(info.stx_mode) ? 'l' : 'f';
  document.permissions = info.stx_mode & 07777;
  document.inode = info.stx_ino;
  document.born_at = nanoseconds(info.stx_btime);
  document.size = static_cast<int64_t>(info.stx_size);
  document.changed_at = nanoseconds(info.stx_mtime);
  return document;
}

std::optional<Document> ReadDocument(const std::string& path) {
  std::optional<Document> document = LookAt(path);
  if (document && document->kind != 'd') {
    document->content = ContentOf(path, document->kind);
  }
  return document;
}

void Collect(const std::string& path, const std::set<std::string>& ignore, Documents& documents) {
  const std::optional<Document> document = ReadDocument(path);
  if (!document) {
    return;
  }
  documents[path] = *document;
  DIR* listing = document->kind == 'd' ? opendir(path.c_str()) : nullptr;
  if (listing == nullptr) {
    return;
  }
  while (const dirent* item = readdir(listing)) {
    const std::string name = item->d_name;
    if (name != "." && name != ".." && ignore.count(name) == 0) {
      Collect(std::string(path).append("/").append(name), ignore, documents);
    }
  }
  closedir(listing);
}

// The documents below `path`.
std::pair<Documents::iterator, Documents::iterator> Below(Documents& documents, const std::string& path) {
  return {documents.lower_bound(path + "/"), documents.lower_bound(path + "0")};  // '0' follows '/'
}

bool KnownAgain(const Document& document, const std::optional<Document>& now) {
  return now && now->inode == document.inode && now->born_at == document.born_at && now->kind == document.kind &&
         (now->kind == 'd' || (now->changed_at == document.changed_at && now->size == document.size));
}

std::string Text(const Document& document) {
  std::ostringstream text;
  text << document.kind << ' ' << std::oct << document.permissions << ' ' << document.content;
  return text.str();
}

}  // namespace

Documents ReadDocuments(const std::string& path, const std::set<std::string>& ignore) {
  Documents documents;
  Collect(path, ignore, documents);
  return documents;
}

void IndexModel::TakeHistory(const std::string& side_file) {
  std::ifstream side(side_file, std::ios::binary);
  for (std::string line; std::getline(side, line);) {
    history_.push_back(line);
  }
}

void IndexModel::Consume(const std::string& queue) {
  fresh_.clear();
  fileindex::QueueMgr manager(queue);
  manager.PrepareTmpQueue();
  TakeHistory(queue + ".tmp");
  std::set<std::string> renamed;
  manager.ProcessOP(
      [this, &renamed](std::shared_ptr<fileindex::OP> op) {
        std::ostringstream text;
        text << "    " << op;
        history_.push_back(text.str());
        ApplyOperation(*op);
        if (op->op == fileindex::OP_RENAME) {
          renamed.insert({op->path, op->node->GetPath()});
        }
      },
      true);
  for (const std::string& path : renamed) {
    Compare(path);
  }
  manager.DeleteTmp();
}

void IndexModel::ConsumeLines(const std::string& queue) {
  fileindex::QueueMgr manager(queue);
  manager.PrepareTmpQueue();
  const size_t before = history_.size();
  TakeHistory(queue + ".tmp");
  for (size_t i = before; i < history_.size(); ++i) {
    fresh_.clear();
    ApplyLine(fileindex::Event(history_[i]));
  }
  manager.DeleteTmp();
}

void IndexModel::ApplyOperation(const fileindex::OP& op) {
  const std::string path = op.node->GetPath();
  switch (op.op) {
    case fileindex::OP_DELETE:
      Delete(path);
      break;
    case fileindex::OP_UPDATE:
    case fileindex::OP_ATTR:
      Read(path);
      break;
    case fileindex::OP_REINDEX:
      ReadTree(path);
      break;
    case fileindex::OP_RENAME:
      Rename(op.path, path);
      break;
    case fileindex::OP_QUEUE_CRASHED:
      ++crashes_;
      ReadTree(folder_);
      break;
    default:
      break;
  }
}

void IndexModel::ApplyLine(const fileindex::Event& event) {
  switch (event.event) {
    case fileindex::EVENT_DELETE:
      Delete(event.path);
      break;
    case fileindex::EVENT_CREATE:
      event.is_dir ? ReadTree(event.path) : Read(event.path);
      break;
    case fileindex::EVENT_MODIFY:
    case fileindex::EVENT_ATTRIB:
      Read(event.path);
      break;
    case fileindex::EVENT_RENAME:
      Rename(event.path_old, event.path);
      break;
    case fileindex::EVENT_QUEUE_CRASHED:
      ++crashes_;
      ReadTree(folder_);
      break;
    default:
      throw std::runtime_error("not one event bit");
  }
}

// What was read under the path may be what came after the delete.
void IndexModel::Delete(const std::string& path) {
  LookAt(path) ? ReadTree(path) : Remove(path);
}

void IndexModel::Remove(const std::string& path) {
  documents_.erase(path);
  const auto [first, last] = Below(documents_, path);
  documents_.erase(first, last);
}

// The documents at `path` and below it that were not read in this pass.
void IndexModel::RemoveStale(const std::string& path) {
  const auto stale = [this](const auto& document) { return fresh_.count(document.first) == 0; };
  const auto [first, last] = Below(documents_, path);
  for (auto at = first; at != last;) {
    at = stale(*at) ? documents_.erase(at) : std::next(at);
  }
  const auto own = documents_.find(path);
  if (own != documents_.end() && stale(*own)) {
    documents_.erase(own);
  }
}

void IndexModel::Read(const std::string& path) {
  ++reads_;
  const std::optional<Document> document = ReadDocument(path);
  if (!document || document->kind != 'd') {
    Remove(path);  // nothing can be below it
  } else if (documents_.count(path) == 0 || !KnownAgain(documents_[path], document)) {
    ReadTree(path);  // a folder by now, and not one known
    return;
  }
  if (document) {
    documents_[path] = *document;
    fresh_.insert(path);
  } else {
    missed_.insert(path);
  }
}

void IndexModel::ReadTree(const std::string& path) {
  Remove(path);
  Documents found = ReadDocuments(path, ignore_);
  reads_ += static_cast<int>(found.size());
  for (const auto& [read, document] : found) {
    fresh_.insert(read);
  }
  if (found.empty()) {
    missed_.insert(path);
  }
  documents_.merge(found);
}

// Reads what is on disk at `path` and below it and is not known; removes what is known and not there.
void IndexModel::Compare(const std::string& path) {
  const Documents found = ReadDocuments(path, ignore_);
  const auto gone = [&found](const auto& document) { return found.count(document.first) == 0; };
  const auto [first, last] = Below(documents_, path);
  for (auto at = first; at != last;) {
    at = gone(*at) ? documents_.erase(at) : std::next(at);
  }
  if (found.empty()) {
    documents_.erase(path);
  }
  for (const auto& [read, document] : found) {
    const auto known = documents_.find(read);
    if (known == documents_.end() || !KnownAgain(known->second, document)) {
      documents_[read] = document;
      ++reads_;
    }
  }
}

void IndexModel::Rename(const std::string& from, const std::string& to) {
  if (from == to) {
    return;
  }
  MoveOrRead(from, to);
  std::vector<std::string> missed;
  const auto first = missed_.lower_bound(from + "/");
  const auto last = missed_.lower_bound(from + "0");
  missed.assign(first, last);
  missed_.erase(first, last);
  for (const std::string& path : missed) {
    ReadTree(to + path.substr(from.size()));
  }
}

void IndexModel::MoveOrRead(const std::string& from, const std::string& to) {
  const std::optional<Document> now = LookAt(to);
  if (!now) {
    RemoveStale(from);
    RemoveStale(to);
    missed_.insert(to);
    return;
  }
  if (fresh_.count(from) != 0) {
    if (fresh_.count(to) == 0) {
      ReadTree(to);
    }
    return;
  }
  const auto source = documents_.find(from);
  if (source != documents_.end() && KnownAgain(source->second, now)) {
    MoveDocuments(from, to);
    return;
  }
  if (source != documents_.end() && !KnownAgain(source->second, LookAt(from))) {
    RemoveStale(from);
  }
  const auto target = documents_.find(to);
  if (target == documents_.end() || !KnownAgain(target->second, now)) {
    ReadTree(to);
  }
}

void IndexModel::MoveDocuments(const std::string& from, const std::string& to) {
  Documents moved;
  std::vector<std::string> others;  // something else lies there
  moved[to] = documents_[from];
  const auto [first, last] = Below(documents_, from);
  for (auto at = first; at != last; ++at) {
    const std::string path = to + at->first.substr(from.size());
    const std::optional<Document> now = LookAt(path);
    if (KnownAgain(at->second, now)) {
      moved[path] = at->second;
    } else if (now) {
      others.push_back(path);
    }
  }
  RemoveStale(from);
  RemoveStale(to);
  documents_.merge(moved);  // keeps what is there
  for (const std::string& path : others) {
    ReadTree(path);
  }
}

std::vector<std::string> Differences(const Documents& index, const Documents& disk, size_t most) {
  std::vector<std::string> result;
  for (const auto& [path, document] : disk) {
    const auto known = index.find(path);
    if (known == index.end()) {
      result.push_back(path + ": not in the index");
    } else if (!known->second.Equals(document)) {
      result.push_back(path + ": disk [" + Text(document) + "] index [" + Text(known->second) + "]");
    }
  }
  for (const auto& [path, document] : index) {
    if (disk.count(path) == 0) {
      result.push_back(path + ": only in the index");
    }
  }
  result.resize(std::min(result.size(), most));
  return result;
}

}  // namespace orbisk::test
