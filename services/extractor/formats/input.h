// The file in work, read through the one descriptor that a worker was given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

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

/// A file piece by piece, from its begin to its end.
class Chunks {
 public:
  static constexpr std::size_t kBytes = std::size_t{64} << 10;

  /// Reads the first one. `input` must outlive this. Throws std::system_error, as Next does.
  explicit Chunks(const Input& input);

  /// kBytes of the file, fewer at its end, none behind it. Valid until Next.
  std::string_view chunk() const { return {buffer_.data(), filled_}; }
  /// Whether nothing follows it.
  bool last() const { return end_ >= input_.size(); }
  void Next();

 private:
  const Input& input_;
  std::vector<char> buffer_;
  std::size_t filled_ = 0;
  std::uint64_t end_ = 0;
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
