// The note about a share that is being given another name.
#include "tools/fileindexctl/share_journal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "orbisk/json.h"

namespace fileindexctl {
namespace {

constexpr char kFolder[] = "/etc/nimo";
constexpr char kNote[] = "/etc/nimo/share-move.json";
constexpr char kLock[] = "/etc/nimo/share-move.json.lock";

[[noreturn]] void ThrowErrno(const std::string& what, const char* path) {
  throw std::runtime_error(what + " " + path + ": " + strerror(errno));
}

}  // namespace

ShareJournal::ShareJournal() : lock_(open(kLock, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
  if (lock_ < 0 && errno == ENOENT) {
    throw std::runtime_error(std::string("there is no registry of shares in ") + kFolder);
  }
  if (lock_ < 0) {
    ThrowErrno("cannot open", kLock);
  }
  if (flock(lock_, LOCK_EX | LOCK_NB) != 0) {
    close(lock_);
    throw std::runtime_error("another share is being given a name right now");
  }
}

ShareJournal::~ShareJournal() {
  close(lock_);
}

bool ShareJournal::IsThere() {
  return access(kNote, F_OK) == 0 || errno != ENOENT;
}

std::optional<ShareMove> ShareJournal::Read() {
  if (!IsThere()) {
    return std::nullopt;
  }
  Json::Value note;
  if (!orbisk::fromFile(note, kNote) || !note.isObject()) {
    throw std::runtime_error(std::string("cannot read ") + kNote);
  }
  ShareMove move;
  try {
    move.from = note["from"].asString();
    move.to = note["to"].asString();
    move.path_from = note["path_from"].asString();
    move.path_to = note["path_to"].asString();
    move.folder = note["folder"].asUInt64();
    move.indexed = note["indexed"].asBool();
    move.resume = note["resume"].asBool();
    move.step = note["step"].asUInt64();
  } catch (const Json::Exception& error) {
    throw std::runtime_error(std::string("cannot read ") + kNote + ": " + error.what());
  }
  return move;
}

void ShareJournal::Write(const ShareMove& move) {
  Json::Value note;
  note["from"] = move.from;
  note["to"] = move.to;
  note["path_from"] = move.path_from;
  note["path_to"] = move.path_to;
  note["folder"] = Json::UInt64{move.folder};
  note["indexed"] = move.indexed;
  note["resume"] = move.resume;
  note["step"] = Json::UInt64{move.step};
  if (!orbisk::toFile(note, kNote)) {
    throw std::runtime_error(std::string("cannot write ") + kNote);
  }
}

void ShareJournal::Remove() {
  if (unlink(kNote) != 0 && errno != ENOENT) {
    ThrowErrno("cannot remove", kNote);
  }
}

}  // namespace fileindexctl
