// By what a document says which state of which file it was made from.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace fileindexd {

/// What lies at a path, as far as the index is concerned with it.
enum class Kind { kNothing, kFile, kFolder };

/// Three digests of a file's attributes. They are kept with the document, so that a later look tells whether the file
/// is another one, has other content, or other attributes alone, by nanoseconds and inode and not by seconds.
struct Stamp {
  std::uint64_t identity = 0;  ///< which file: device's inode, birth, kind
  std::uint64_t content = 0;   ///< identity, size, date of change, and how it was read; 0 matches nothing
  /// All of that; in the upper half with permissions, owner and number of names, in the lower half with the date of the
  /// last change of anything.
  std::uint64_t attributes = 0;

  static constexpr std::uint64_t kFailed = 0x6661696c6c696166ULL;  ///< any number but 0

  bool operator==(const Stamp&) const = default;
  /// Whether a document with this stamp has the content that `now` says; never for a stamp that was made too early.
  bool SameContent(const Stamp& now) const { return content != 0 && content == now.content; }
  /// As a document has it whose content could not be read: it matches nothing. Of such a one, what it was made from.
  Stamp Failed() const { return {identity, content == 0 ? 0 : content ^ kFailed, attributes}; }
  /// Whether, with the same content, the attributes that people see are the same. If the file was changed all the same,
  /// something set its date back, so that its content cannot be known without reading it.
  bool SamePermissions(const Stamp& now) const { return attributes >> 32 == now.attributes >> 32; }
  bool Same(const Stamp& now) const { return SameContent(now) && attributes == now.attributes; }
};

/// What there is at a path.
struct Found {
  Kind kind = Kind::kNothing;
  bool mounted = false;  ///< another file system begins here
  /// It is not known what lies there: the file system does not say. `kind` is kNothing then.
  bool unknown = false;
  Stamp stamp;
  /// So recently changed that one more change could leave the same dates: the clock of the file system ticks only every
  /// few milliseconds.
  bool young = false;
};

/// Looks at `path` itself: links, devices, pipes and sockets count as nothing, and so does what cannot be there.
/// `need_meta` and the name's extension are part of how a file is read. `now` is the time at which the look began.
Found Look(const std::string& path, bool need_meta,
           std::chrono::system_clock::time_point now = std::chrono::system_clock::now());

/// The stamp as a document keeps it, and back; nothing for other text. One that is `young` matches no content.
std::string ToText(const Stamp& stamp, bool young);
std::optional<Stamp> StampFromText(const std::string& text);

}  // namespace fileindexd
