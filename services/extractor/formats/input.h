// The file in work, read through the one descriptor that a worker was given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace extractor {

/// Positioned reads of a regular file. Its size is taken once: what is appended meanwhile is not seen.
class Input {
 public:
  /// Keeps `fd` without owning it. Throws std::system_error, or std::runtime_error when it is no regular file.
  explicit Input(int fd);

  int fd() const { return fd_; }
  std::uint64_t size() const { return size_; }

  /// Reads up to `size` bytes from `offset`; fewer only at the end of the file. Throws std::system_error.
  std::size_t ReadAt(std::uint64_t offset, void* data, std::size_t size) const;

 private:
  int fd_;
  std::uint64_t size_ = 0;
};

/// A file mapped whole, for libraries that want it in memory; pages are the kernel's to drop again.
class Mapping {
 public:
  /// Throws std::runtime_error when the file is empty or larger than `limit` bytes, std::system_error when it cannot
  /// be mapped.
  Mapping(const Input& input, std::uint64_t limit);
  ~Mapping();
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  std::string_view bytes() const { return {static_cast<const char*>(address_), size_}; }

 private:
  void* address_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace extractor
