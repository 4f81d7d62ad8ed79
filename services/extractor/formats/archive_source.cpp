// libarchive over positioned reads.
#include "services/extractor/formats/archive_source.h"

#include <archive_entry.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>

#include "services/extractor/formats/limits.h"
#include "services/extractor/formats/reading.h"

namespace extractor {
namespace {

constexpr std::size_t kBlockBytes = std::size_t{64} << 10;

}  // namespace

ArchiveSource::ArchiveSource(const Input& input, Kind kind)
    : input_(input), kind_(kind), buffer_(kBlockBytes), archive_(archive_read_new()) {
  if (!archive_) {
    throw std::bad_alloc();
  }
  Support(kind);
  archive_read_set_callback_data(archive_.get(), this);
  archive_read_set_read_callback(archive_.get(), OnRead);
  archive_read_set_skip_callback(archive_.get(), OnSkip);
  archive_read_set_seek_callback(archive_.get(), OnSeek);
  if (archive_read_open1(archive_.get()) < ARCHIVE_WARN) {
    throw BrokenContent(Reason());
  }
  // One filter and the file below it; more is a matryoshka.
  if (archive_filter_count(archive_.get()) > 2) {
    throw BrokenContent("compressed more than once");
  }
}

void ArchiveSource::Support(Kind kind) {
  archive* handle = archive_.get();
  if (kind == Kind::kZip) {
    archive_read_support_format_zip_seekable(handle);
    return;
  }
  archive_read_support_filter_gzip(handle);
  archive_read_support_filter_bzip2(handle);
  archive_read_support_filter_xz(handle);
  archive_read_support_filter_lzma(handle);
  archive_read_support_filter_zstd(handle);
  archive_read_support_filter_lz4(handle);
  archive_read_support_filter_compress(handle);
  if (kind == Kind::kCompressed) {
    archive_read_support_format_raw(handle);
    return;
  }
  archive_read_support_format_zip(handle);
  archive_read_support_format_tar(handle);
  archive_read_support_format_7zip(handle);
}

la_ssize_t ArchiveSource::OnRead(archive* handle, void* self, const void** buffer) {
  auto* source = static_cast<ArchiveSource*>(self);
  try {
    const std::size_t count = source->input_.ReadAt(source->offset_, source->buffer_.data(), source->buffer_.size());
    source->offset_ += count;
    *buffer = source->buffer_.data();
    return static_cast<la_ssize_t>(count);
  } catch (const std::exception& error) {
    archive_set_error(handle, EIO, "%s", error.what());
    return -1;
  }
}

la_int64_t ArchiveSource::OnSkip(archive*, void* self, la_int64_t count) {
  auto* source = static_cast<ArchiveSource*>(self);
  const std::uint64_t left = source->input_.size() - std::min(source->offset_, source->input_.size());
  const std::uint64_t step = std::min(static_cast<std::uint64_t>(std::max<la_int64_t>(count, 0)), left);
  source->offset_ += step;
  return static_cast<la_int64_t>(step);
}

la_int64_t ArchiveSource::OnSeek(archive*, void* self, la_int64_t offset, int whence) {
  auto* source = static_cast<ArchiveSource*>(self);
  const auto size = static_cast<la_int64_t>(source->input_.size());
  const la_int64_t base = whence == SEEK_END ? size : whence == SEEK_CUR ? static_cast<la_int64_t>(source->offset_) : 0;
  la_int64_t target = 0;
  if (__builtin_add_overflow(base, offset, &target) || target < 0) {
    return ARCHIVE_FATAL;
  }
  source->offset_ = static_cast<std::uint64_t>(target);
  return target;
}

std::string ArchiveSource::Reason() const {
  const char* text = archive_error_string(archive_.get());
  return text != nullptr ? text : "broken archive";
}

std::optional<std::string> ArchiveSource::Next() {
  archive_entry* entry = nullptr;
  const int result = archive_read_next_header(archive_.get(), &entry);
  if (result == ARCHIVE_EOF) {
    return std::nullopt;
  }
  if (result < ARCHIVE_WARN) {
    throw BrokenContent(Reason());
  }
  if (++entries_ > kMaxArchiveEntries) {
    throw BrokenContent("more than " + std::to_string(kMaxArchiveEntries) + " entries");
  }
  if (const char* utf8 = archive_entry_pathname_utf8(entry)) {
    return utf8;
  }
  const char* bytes = archive_entry_pathname(entry);
  return bytes != nullptr ? bytes : "";
}

bool ArchiveSource::IsBomb(std::uint64_t inflated) const {
  return inflated > kRatioGraceBytes && inflated / kMaxInflationRatio > input_.size();
}

void ArchiveSource::Spend(std::size_t bytes) {
  inflated_ += bytes;
  if (kind_ != Kind::kZip) {
    return;
  }
  if (inflated_ > kMaxPackageBytes) {
    throw BrokenContent("inflates to more than " + std::to_string(kMaxPackageBytes) + " bytes");
  }
  if (IsBomb(inflated_)) {
    throw BrokenContent("inflates to more than " + std::to_string(kMaxInflationRatio) + " times its size");
  }
}

void ArchiveSource::Read(const std::function<bool(std::string_view)>& take) {
  while (true) {
    const void* block = nullptr;
    std::size_t size = 0;
    la_int64_t offset = 0;
    const int result = archive_read_data_block(archive_.get(), &block, &size, &offset);
    if (result == ARCHIVE_EOF) {
      return;
    }
    if (result < ARCHIVE_WARN) {
      throw BrokenContent(Reason());
    }
    Spend(size);
    if (size > 0 && !take({static_cast<const char*>(block), size})) {
      return;
    }
  }
}

std::string ArchiveSource::ReadHead(std::size_t limit) {
  std::string head;
  Read([&](std::string_view bytes) {
    head += bytes.substr(0, limit - head.size());
    return head.size() < limit;
  });
  return head;
}

bool ArchiveSource::is_compressed() const {
  return archive_filter_count(archive_.get()) > 1;
}

bool ArchiveSource::Exhausted() const {
  if (!is_compressed()) {
    return false;
  }
  const auto inflated = static_cast<std::uint64_t>(archive_filter_bytes(archive_.get(), 0));
  return inflated > kMaxArchiveBytes || IsBomb(inflated);
}

}  // namespace extractor
