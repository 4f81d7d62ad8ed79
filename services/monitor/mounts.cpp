// Reads /proc/self/mountinfo.
#include "services/monitor/mounts.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>

namespace nimotifyd {
namespace {

bool IsOctal(char c) {
  return c >= '0' && c <= '7';
}

// The kernel writes blanks, tabs, newlines and backslashes in names as \ooo.
std::string Unescape(std::string_view text) {
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && IsOctal(text[i + 1]) && IsOctal(text[i + 2]) &&
        IsOctal(text[i + 3])) {
      result += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
      i += 3;
    } else {
      result += text[i];
    }
  }
  return result;
}

std::vector<std::string_view> Fields(std::string_view line) {
  std::vector<std::string_view> fields;
  while (!line.empty()) {
    const size_t blank = std::min(line.find(' '), line.size());
    fields.push_back(line.substr(0, blank));
    line.remove_prefix(std::min(blank + 1, line.size()));
  }
  return fields;
}

// id parent major:minor root mountpoint options [optional ...] - type source options
bool ParseLine(std::string_view line, Mount& mount) {
  const std::vector<std::string_view> fields = Fields(line);
  const auto dash = std::find(fields.begin(), fields.end(), "-");
  if (fields.size() < 6 || dash == fields.end() || dash + 1 == fields.end()) {
    return false;
  }
  const std::string_view id = fields[0];
  if (std::from_chars(id.data(), id.data() + id.size(), mount.id).ptr != id.data() + id.size()) {
    return false;
  }
  mount.path = Unescape(fields[4]);
  mount.type = *(dash + 1);
  return true;
}

}  // namespace

std::vector<Mount> ParseMountInfo(std::string_view text) {
  std::vector<Mount> mounts;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    Mount mount;
    if (ParseLine(text.substr(0, end), mount)) {
      mounts.push_back(std::move(mount));
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return mounts;
}

bool IsPseudoFileSystem(std::string_view type) {
  static constexpr std::array<std::string_view, 22> kPseudo = {
      "autofs",   "binfmt_misc", "bpf",        "cgroup",    "cgroup2", "configfs", "debugfs", "devpts",
      "devtmpfs", "efivarfs",    "fusectl",    "hugetlbfs", "mqueue",  "nsfs",     "proc",    "pstore",
      "ramfs",    "rpc_pipefs",  "securityfs", "selinuxfs", "sysfs",   "tracefs"};
  return std::find(kPseudo.begin(), kPseudo.end(), type) != kPseudo.end();
}

MountTable::MountTable() : fd_(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {}

std::vector<Mount> MountTable::Read() const {
  std::string text;
  std::array<char, 16384> buffer;
  lseek(fd_.get(), 0, SEEK_SET);
  for (;;) {
    const ssize_t count = read(fd_.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return ParseMountInfo(text);
    }
    text.append(buffer.data(), static_cast<size_t>(count));
  }
}

}  // namespace nimotifyd
