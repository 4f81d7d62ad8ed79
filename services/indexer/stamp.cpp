// Digests of statx(2).
#include "services/indexer/stamp.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "orbisk/fileindex/util.h"

namespace fileindexd {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kLowerHalf = 0xffffffffULL;
constexpr size_t kDigits = 16;
constexpr size_t kTextBytes = 3 * kDigits;

// FNV-1a: the text goes to disk, so it must be the same with every compiler and version.
class Digest {
 public:
  void Add(std::uint64_t number) {
    for (int byte = 0; byte < 8; ++byte) {
      Mix(static_cast<unsigned char>(number >> (8 * byte)));
    }
  }
  void Add(const std::string& text) {
    for (const char c : text) {
      Mix(static_cast<unsigned char>(c));
    }
    Mix(0);
  }
  std::uint64_t Value() const { return value_ == 0 ? 1 : value_; }

 private:
  void Mix(unsigned char byte) { value_ = (value_ ^ byte) * 0x100000001b3ULL; }

  std::uint64_t value_ = 0xcbf29ce484222325ULL;
};

std::int64_t Nanoseconds(const statx_timestamp& time) {
  return time.tv_sec * kSecond + time.tv_nsec;
}

// The kernel stamps files with its coarse clock.
std::int64_t TwoTicks() {
  timespec tick{};
  clock_getres(CLOCK_REALTIME_COARSE, &tick);
  return 2 * (tick.tv_sec * kSecond + tick.tv_nsec);
}

Stamp StampOf(const struct statx& info, const std::string& path, bool need_meta) {
  Stamp stamp;
  Digest digest;
  digest.Add(info.stx_ino);
  digest.Add(static_cast<std::uint64_t>(info.stx_mode & S_IFMT));
  digest.Add((info.stx_mask & STATX_BTIME) != 0 ? static_cast<std::uint64_t>(Nanoseconds(info.stx_btime)) : 0);
  stamp.identity = digest.Value();
  if (S_ISREG(info.stx_mode)) {  // a folder's size and date tell of what is in it
    digest.Add(info.stx_size);
    digest.Add(static_cast<std::uint64_t>(Nanoseconds(info.stx_mtime)));
    digest.Add(need_meta ? 1 : 0);
    digest.Add(orbisk::fileindex::GetFileExtension(path, true));
  }
  stamp.content = digest.Value();
  Digest change = digest;
  digest.Add(static_cast<std::uint64_t>(info.stx_mode));
  digest.Add(info.stx_uid);
  digest.Add(info.stx_gid);
  digest.Add(info.stx_nlink);
  change.Add(static_cast<std::uint64_t>(Nanoseconds(info.stx_ctime)));
  stamp.attributes = (digest.Value() & ~kLowerHalf) | (change.Value() & kLowerHalf);
  return stamp;
}

bool ReadNumber(const std::string& text, size_t start, std::uint64_t& number) {
  number = 0;
  for (size_t i = start; i < start + kDigits; ++i) {
    const char c = text[i];
    const bool letter = c >= 'a' && c <= 'f';
    if (!letter && (c < '0' || c > '9')) {
      return false;
    }
    number = number * 16 + static_cast<std::uint64_t>(letter ? c - 'a' + 10 : c - '0');
  }
  return true;
}

// Others tell of the disk, the network or the memory.
bool SaysNothingIsThere(int error) {
  return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

}  // namespace

Found Look(const std::string& path, bool need_meta, std::chrono::system_clock::time_point now) {
  struct statx info {};
  constexpr unsigned kWanted = STATX_BASIC_STATS | STATX_BTIME;
  Found found;
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, kWanted, &info) != 0) {
    found.unknown = !SaysNothingIsThere(errno);
    return found;
  }
  found.kind = S_ISREG(info.stx_mode) ? Kind::kFile : S_ISDIR(info.stx_mode) ? Kind::kFolder : Kind::kNothing;
  found.mounted = (info.stx_attributes_mask & info.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  found.stamp = StampOf(info, path, need_meta);
  static const std::int64_t two_ticks = TwoTicks();
  const auto now_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(now.time_since_epoch()).count();
  found.young = now_ns - Nanoseconds(info.stx_ctime) < two_ticks;
  return found;
}

std::string ToText(const Stamp& stamp, bool young) {
  char text[kTextBytes + 1];
  snprintf(text, sizeof(text), "%016" PRIx64 "%016" PRIx64 "%016" PRIx64, stamp.identity,
           young ? std::uint64_t{0} : stamp.content, stamp.attributes);
  return text;
}

std::optional<Stamp> StampFromText(const std::string& text) {
  Stamp stamp;
  const bool good = text.size() == kTextBytes && ReadNumber(text, 0, stamp.identity) &&
                    ReadNumber(text, kDigits, stamp.content) && ReadNumber(text, 2 * kDigits, stamp.attributes);
  return good ? std::optional(stamp) : std::nullopt;
}

}  // namespace fileindexd
