// Making a large text of many small pieces.
#include "common/text_chunks.h"

#include <sys/mman.h>

#include <algorithm>
#include <new>

namespace orbisk {
namespace {

constexpr size_t kChunkBytes = size_t{1} << 20;

}  // namespace

void TextChunks::Unmap::operator()(char* chunk) const noexcept {
  munmap(chunk, kChunkBytes);
}

// Not from the heap, which would keep the chunks while the text takes their place.
void TextChunks::AddChunk() {
  void* const chunk = mmap(nullptr, kChunkBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (chunk == MAP_FAILED) {
    throw std::bad_alloc();
  }
  std::unique_ptr<char, Unmap> owned(static_cast<char*>(chunk));
  chunks_.push_back(std::move(owned));
  used_ = 0;
}

std::streamsize TextChunks::xsputn(const char* bytes, std::streamsize count) {
  auto rest = static_cast<size_t>(count);
  if (chunks_.empty() && rest <= kChunkBytes - first_.size()) {
    first_.append(bytes, rest);
    return count;
  }
  while (rest > 0) {
    if (chunks_.empty() || used_ == kChunkBytes) {
      AddChunk();
    }
    const size_t step = std::min(rest, kChunkBytes - used_);
    std::copy_n(bytes, step, chunks_.back().get() + used_);
    used_ += step;
    bytes += step;
    rest -= step;
  }
  return count;
}

TextChunks::int_type TextChunks::overflow(int_type byte) {
  const char text = traits_type::to_char_type(byte);
  xsputn(&text, 1);
  return traits_type::not_eof(byte);
}

std::string TextChunks::Take() {
  if (chunks_.empty()) {
    return std::move(first_);
  }
  std::string text;
  text.reserve(first_.size() + (chunks_.size() - 1) * kChunkBytes + used_);
  text.append(first_);
  for (std::unique_ptr<char, Unmap>& chunk : chunks_) {
    text.append(chunk.get(), &chunk == &chunks_.back() ? used_ : kChunkBytes);
    chunk.reset();
  }
  return text;
}

}  // namespace orbisk
