// Replays operations on a model of the index.
#include "tests/system/index_model.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "orbisk/fileindex/optree.h"

namespace orbisk::test {
namespace {

std::string ContentOf(const std::string& path, mode_t mode) {
  std::array<char, 512> buffer{};
  if (S_ISLNK(mode)) {
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

// Empty if there is nothing at `path`.
std::string DocumentOf(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) {
    return {};
  }
  std::ostringstream text;
  text << (S_ISDIR(info.st_mode)   ? 'd'
           : S_ISLNK(info.st_mode) ? 'l'
                                   : 'f')
       << ' ' << std::oct << (info.st_mode & 07777) << ' ';
  return text.str() + (S_ISDIR(info.st_mode) ? std::string() : ContentOf(path, info.st_mode));
}

void Collect(const std::string& path, const std::set<std::string>& ignore, Documents& documents) {
  const std::string document = DocumentOf(path);
  if (document.empty()) {
    return;
  }
  documents[path] = document;
  DIR* listing = document[0] == 'd' ? opendir(path.c_str()) : nullptr;
  if (listing == nullptr) {
    return;
  }
  while (const dirent* item = readdir(listing)) {
    const std::string name = item->d_name;
    if (name != "." && name != ".." && ignore.count(name) == 0) {
      Collect(path + "/" + name, ignore, documents);
    }
  }
  closedir(listing);
}

// The documents at `path` and below it.
std::pair<Documents::iterator, Documents::iterator> Below(Documents& documents, const std::string& path) {
  return {documents.lower_bound(path + "/"), documents.lower_bound(path + "0")};  // '0' follows '/'
}

}  // namespace

Documents ReadDocuments(const std::string& folder, const std::set<std::string>& ignore) {
  Documents documents;
  Collect(folder, ignore, documents);
  return documents;
}

void IndexModel::Consume(const std::string& queue) {
  fileindex::QueueMgr manager(queue);
  manager.PrepareTmpQueue();
  std::ifstream side(queue + ".tmp", std::ios::binary);
  for (std::string line; std::getline(side, line);) {
    history_.push_back(line);
  }
  side.close();
  manager.ProcessOP(
      [this](std::shared_ptr<fileindex::OP> op) {
        std::ostringstream text;
        text << "    " << op;
        history_.push_back(text.str());
        Apply(*op);
      },
      true);
  manager.DeleteTmp();
}

void IndexModel::Apply(const fileindex::OP& op) {
  const std::string path = op.node->GetPath();
  switch (op.op) {
    case fileindex::OP_DELETE:
      Remove(path);
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

bool IndexModel::Known(const std::string& path) const {
  return documents_.count(path) != 0;
}

void IndexModel::Remove(const std::string& path) {
  documents_.erase(path);
  const auto [first, last] = Below(documents_, path);
  documents_.erase(first, last);
}

void IndexModel::Read(const std::string& path) {
  ++reads_;
  const std::string document = DocumentOf(path);
  if (document[0] != 'd') {  // gone, or nothing that has anything below it
    Remove(path);
  }
  if (!document.empty()) {
    documents_[path] = document;
  }
}

void IndexModel::ReadTree(const std::string& path) {
  Remove(path);
  const size_t before = documents_.size();
  Collect(path, ignore_, documents_);
  reads_ += static_cast<int>(documents_.size() - before);
}

void IndexModel::Rename(const std::string& from, const std::string& to) {
  ++renames_;
  if (from == to) {
    return;
  }
  if (DocumentOf(to).empty()) {
    Remove(from);
    Remove(to);
    return;
  }
  if (!Known(from)) {
    ReadTree(to);
    return;
  }
  Documents moved;
  moved[to] = documents_[from];
  const auto [first, last] = Below(documents_, from);
  for (auto at = first; at != last; ++at) {
    moved[to + at->first.substr(from.size())] = at->second;
  }
  Remove(from);
  Remove(to);
  documents_.merge(moved);
}

std::string IndexModel::HistoryOf(const std::string& path) const {
  std::string result;
  if (getenv("ORBISK_STORM_ALL") != nullptr) {
    for (const std::string& line : history_) {
      result += line + "\n";
    }
    return result;
  }
  for (const std::string& line : history_) {
    std::string above = path;
    while (above.size() > folder_.size()) {
      if (line.find(above + "\"") != std::string::npos || line.find(above + " ") != std::string::npos ||
          line.find(above + ",") != std::string::npos) {
        result += line + "\n";
        break;
      }
      above.erase(above.rfind('/'));
    }
  }
  return result;
}

std::vector<std::string> Differences(const Documents& index, const Documents& disk, size_t most) {
  std::vector<std::string> result;
  for (const auto& [path, document] : disk) {
    const auto known = index.find(path);
    if (known == index.end()) {
      result.push_back(path + ": not in the index");
    } else if (known->second != document) {
      result.push_back(path + ": disk [" + document + "] index [" + known->second + "]");
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
