// Entries of an archive, one after the other, with a budget that ends decompression bombs.
#pragma once

#include <archive.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "services/extractor/formats/input.h"

namespace extractor {

/// Reads an archive through an Input. Only what libarchive decodes itself: it would start programs for other filters,
/// and filters are not stacked, so a compressed file within a compressed file stays closed.
class ArchiveSource {
 public:
  enum class Kind {
    kZip,        // an office document, a book
    kAny,        // zip, tar, 7z and what else lists names
    kCompressed  // one compressed file without an archive in it
  };
  /// Keeps `input`. Throws BrokenContent when it is no archive.
  ArchiveSource(const Input& input, Kind kind);
  ArchiveSource(const ArchiveSource&) = delete;
  ArchiveSource& operator=(const ArchiveSource&) = delete;

  /// Steps to the next entry: its path, as UTF-8 where the archive says so, else its bytes; nothing at the end.
  /// Throws BrokenContent.
  std::optional<std::string> Next();

  /// Hands the entry's bytes to `take` until it returns false. Throws BrokenContent when the archive is broken, or when
  /// it is kZip and inflates beyond what a document may.
  void Read(const std::function<bool(std::string_view)>& take);
  /// The first `limit` bytes of the entry.
  std::string ReadHead(std::size_t limit);

  /// The archive as a whole is compressed, so that stepping over an entry costs what reading it costs.
  bool is_compressed() const;
  /// True once a compressed archive has given as much as is looked at: the rest of its names is left out.
  bool Exhausted() const;

 private:
  struct Closer {
    void operator()(archive* handle) const { archive_read_free(handle); }
  };
  static la_ssize_t OnRead(archive* handle, void* self, const void** buffer);
  static la_int64_t OnSkip(archive* handle, void* self, la_int64_t count);
  static la_int64_t OnSeek(archive* handle, void* self, la_int64_t offset, int whence);

  void Support(Kind kind);
  void Spend(std::size_t bytes);
  bool IsBomb(std::uint64_t inflated) const;
  std::string Reason() const;

  const Input& input_;
  Kind kind_;
  std::uint64_t offset_ = 0;
  std::uint64_t inflated_ = 0;
  std::size_t entries_ = 0;
  std::vector<char> buffer_;
  std::unique_ptr<archive, Closer> archive_;
};

}  // namespace extractor
