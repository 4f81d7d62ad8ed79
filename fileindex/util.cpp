// Paths: the two forms that a path comes in, which paths may be indexed, and events of the library's own.
#include "orbisk/fileindex/util.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/algorithm/string/split.hpp>
#include <climits>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "common/check.h"
#include "common/file_descriptor.h"
#include "fileindex/path_view.h"
#include "nimo/filesystem.h"
#include "nimo/share.h"
#include "orbisk/fileindex/queue_mgr.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/json.h"
#include "orbisk/lock_file.h"
#include "orbisk/lock_mutex.h"
#include "orbisk/sdk/sdk_mutex.h"
#include "orbisk/sdk/share.h"
#include "orbisk/string_util.h"

namespace orbisk::fileindex {

using std::string;

namespace {

constexpr std::array<std::string_view, 10> kPreservedNames = {".NIMOPPSDB",
                                                              ".TemporaryItems",
                                                              ".Spotlight-V100",
                                                              ".DocumentRevisions-V100",
                                                              ".HFS+ Private Directory Data",
                                                              ".Trashes",
                                                              ".fseventsd",
                                                              ".Maildir",
                                                              ".git",
                                                              ".DS_Store"};

// Asks for all homes' recycle bins.
constexpr int kAllHomes = 11;

// Set in the status of a share whose index has to be built anew.
constexpr int kNeedReindex = 1;

bool IsInSnapshot(const string& full_path) {
  int in_snapshot = 0;
  return string::npos != full_path.find("#snapshot") && 0 == NLIBFhsPathInSnapshot(full_path.c_str(), &in_snapshot) &&
         1 == in_snapshot;
}

PathVerdict JudgeFileSystem(const string& full_path) {
  const int type = NIMOGetFSType(full_path.c_str(), 0);
  if (0 > type) {
    return PathVerdict::kUnknownFileSystem;
  }
  if (0 != NIMOFSIsRemoteFS(type)) {
    return PathVerdict::kRemoteFileSystem;
  }
  if (0 != NIMOFSIsImageFS(type)) {
    return PathVerdict::kImageFileSystem;
  }
  return NIMO_FS_TYPE_PSEUDO == type ? PathVerdict::kPseudoFileSystem : PathVerdict::kIndexable;
}

bool HasPreservedComponent(const string& full_path) {
  std::vector<string> components;
  boost::split(components, full_path, [](char byte) { return byte == '/'; });
  return std::any_of(components.begin(), components.end(), IsSystemPreservedFileName);
}

PathVerdict JudgeRealPath(const string& full_path) {
  char resolved[PATH_MAX];
  if (nullptr == realpath(full_path.c_str(), resolved)) {
    return PathVerdict::kUnresolvable;
  }
  return full_path == resolved ? PathVerdict::kIndexable : PathVerdict::kNotRealPath;
}

// Whether the file of `size` bytes ends within a line: another writer died in it.
bool EndsTorn(int queue, off_t size) {
  char last = '\n';
  return size > 0 && pread(queue, &last, 1, size - 1) == 1 && last != '\n';
}

// Appends `line` and a newline, whole: what a failed write left of it is cut off, and a line that somebody left torn is
// ended first, so that no line spoils its neighbour. The caller holds the queue's lock. A file that cannot be opened
// takes nothing, silently. False if the write fails.
bool AppendLine(const string& queue_path, string line) {
  const FileDescriptor queue(open(queue_path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
  if (!queue.valid()) {
    errno = 0;
    return true;
  }
  const off_t old_size = lseek(queue.get(), 0, SEEK_END);
  line = (EndsTorn(queue.get(), old_size) ? "\n" : "") + line + "\n";
  for (size_t written = 0; written < line.size();) {
    const ssize_t count = write(queue.get(), line.data() + written, line.size() - written);
    if (count < 0 && EINTR == errno) {
      continue;
    }
    if (count <= 0) {
      const int saved_errno = errno;
      [[maybe_unused]] const int cut = ftruncate(queue.get(), old_size);
      errno = saved_errno;
      return false;
    }
    written += static_cast<size_t>(count);
  }
  return true;
}

}  // namespace

bool StringStartWith(const string& text, const string& prefix) {
  return 0 == text.compare(0, prefix.size(), prefix);
}

string Basename(const string& path) {
  return string(BasenameView(path));
}

string Dirname(const string& path) {
  return string(DirnameView(path));
}

string GetFileExtension(const string& path, bool lower) {
  const string extension(ExtensionView(path));
  return lower ? ToLower(extension) : extension;
}

void GetShareNameByPath(string& share, const string& share_path) {
  // NOLINTNEXTLINE(readability-container-size-empty): the record shows the condition as log readers know it.
  ORBISK_CHECK_AT(811, 1 > share_path.size() || '/' != share_path.at(0), 120, "");
  const size_t end = share_path.find('/', 1);
  share = share_path.substr(1, end == string::npos ? end : end - 1);
}

void GetFullPath(string& full_path, const string& share_path) {
  string share;
  GetShareNameByPath(share, share_path);
  // The share's own folder is named by the share path, not by the share.
  full_path = Dirname(sdk::SDKShare(share).GetPath()) + share_path;
}

void GetShareNamePathByFullPath(string& share, string& share_path, const string& full_path) {
  char szShareName[NIMO_SHARE_NAME_BYTES] = {};
  char szSharePath[NIMO_SHARE_PATH_BYTES] = {};
  {
    const LockMutex lock(sdk::SDKMutex());
    ORBISK_CHECK_AT(
        800,
        0 > NIMOShareNamePathGet(full_path.c_str(), szShareName, sizeof(szShareName), szSharePath, sizeof(szSharePath)),
        502, "NIMOShareNamePathGet failed, full_path=" + full_path);
  }
  share = szShareName;
  share_path = szSharePath;
}

bool IsFullPathInRecycleBin(const string& full_path) {
  string share;
  string share_path;
  GetShareNamePathByFullPath(share, share_path, full_path);
  const LockMutex lock(sdk::SDKMutex());
  if (string::npos != full_path.find("#recycle") && 1 == NIMOShareIsShareRecycle(full_path.c_str())) {
    return true;
  }
  return "homes" == share && 1 == NIMORecycleUserHomePathIsExist(full_path.c_str(), kAllHomes);
}

string ReplacePathShare(const string& path, const string& new_share, const string& old_share) {
  // The "/" at the end lets the last component match.
  const size_t pos = (path + "/").find("/" + old_share + "/");
  ORBISK_CHECK_AT(1016, string::npos == pos, 120, "Cannot find share: " + old_share);
  return path.substr(0, pos + 1) + new_share + path.substr(pos + 1 + old_share.size());
}

bool IsSystemPreservedFileName(const string& name) {
  return 1 == NIMOEAIsHiddenDir(name.c_str()) ||
         std::find(kPreservedNames.begin(), kPreservedNames.end(), name) != kPreservedNames.end();
}

PathVerdict JudgeFullPath(const string& full_path) {
  if (IsInSnapshot(full_path)) {
    return PathVerdict::kInSnapshot;
  }
  const PathVerdict file_system = JudgeFileSystem(full_path);
  if (PathVerdict::kIndexable != file_system) {
    return file_system;
  }
  string share_name;
  string share_path;
  GetShareNamePathByFullPath(share_name, share_path, full_path);
  const sdk::SDKShare share(share_name);
  if (!share.CanBeIndexed()) {
    return PathVerdict::kShareNotIndexable;
  }
  if (IsFullPathInRecycleBin(full_path)) {
    return PathVerdict::kInRecycleBin;
  }
  // A share of the encrypted kind is mounted at its own path.
  if (1 == NIMOFSDirIsMntPoint(full_path.c_str()) && !share.IsEncryption()) {
    return PathVerdict::kMountPoint;
  }
  return HasPreservedComponent(full_path) ? PathVerdict::kPreservedName : JudgeRealPath(full_path);
}

bool CanFullPathBeIndexed(const string& full_path) {
  return PathVerdict::kIndexable == JudgeFullPath(full_path);
}

bool CanPathBeIndexed(const string& share_path) {
  string full_path;
  GetFullPath(full_path, share_path);
  return CanFullPathBeIndexed(full_path);
}

void AddCustomEvent(int type, const string& path, const string& path_old, const Json::Value& data) {
  string share_name;
  string share_path;
  GetShareNamePathByFullPath(share_name, share_path, path);
  const sdk::SDKShare share(share_name);
  const string queue_path = share.GetQueuePath();
  if (!share.CanBeIndexed()) {
    return;
  }
  try {
    if (QueueMgr(queue_path).IsFullPathHasReindex(path)) {
      return;
    }
    // Holds the file that is at the path: nobody moves it aside meanwhile.
    const LockFile lock(queue_path, true);
    Json::Value event;
    event["event"] = type;
    event["path"] = path;
    event["path_old"] = path_old;
    event["data"] = data;
    ORBISK_CHECK(!AppendLine(queue_path, toString(event)), 502, "write failed, reason=" + GetErrnoStr());
  } catch (const Error& error) {
    ORBISK_RECORD(ORBISK_SOURCE_AT(867), "AddCustomEvent failed, code=%d, reason=%s. Set [%s] need reindex",
                  error.code(), error.what(), share_name.c_str());
    StatusMgr().SetShareStatus(share_name, kNeedReindex);
    throw Error(error);
  }
}

}  // namespace orbisk::fileindex
