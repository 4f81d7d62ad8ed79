// Making a large text of many small pieces.
#pragma once

#include <cstddef>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

namespace orbisk {

/// Collects what a stream writes. A string that grows is in memory twice each time that it moves to a larger place;
/// here a large text takes hardly more than its own size at any time.
///
/// Threads: one object is used by one thread at a time.
class TextChunks : public std::streambuf {
 public:
  /// All that was written, once. A text of more than a chunk has no room to spare. Throws std::bad_alloc, as writing
  /// does.
  std::string Take();

 private:
  struct Unmap {
    void operator()(char* chunk) const noexcept;
  };

  std::streamsize xsputn(const char* bytes, std::streamsize count) override;
  int_type overflow(int_type byte) override;
  void AddChunk();

  std::string first_;  // what fits into one chunk needs none
  std::vector<std::unique_ptr<char, Unmap>> chunks_;
  size_t used_ = 0;  // of the last chunk
};

}  // namespace orbisk
