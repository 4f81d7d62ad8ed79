// Reads and maps a descriptor.
#include "services/extractor/formats/input.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace extractor {

Input::Input(int fd) : fd_(fd) {
  struct stat attributes {};
  if (fstat(fd, &attributes) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot look at the file");
  }
  if (!S_ISREG(attributes.st_mode)) {
    throw std::runtime_error("not a regular file");
  }
  size_ = static_cast<std::uint64_t>(attributes.st_size);
}

std::size_t Input::ReadAt(std::uint64_t offset, void* data, std::size_t size) const {
  if (offset >= size_) {
    return 0;
  }
  const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size, size_ - offset));
  std::size_t done = 0;
  while (done < wanted) {
    const ssize_t count = pread(fd_, static_cast<char*>(data) + done, wanted - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      throw std::system_error(errno, std::generic_category(), "cannot read the file");
    }
    if (count == 0) {
      break;  // cut short since it was opened
    }
    done += static_cast<std::size_t>(count);
  }
  return done;
}

Chunks::Chunks(const Input& input)
    : input_(input), buffer_(static_cast<std::size_t>(std::min<std::uint64_t>(kBytes, input.size()))) {
  Next();
}

void Chunks::Next() {
  filled_ = input_.ReadAt(end_, buffer_.data(), buffer_.size());
  end_ += filled_;
}

Mapping::Mapping(const Input& input, std::uint64_t limit) : size_(static_cast<std::size_t>(input.size())) {
  if (size_ == 0) {
    throw std::runtime_error("the file is empty");
  }
  if (input.size() > limit) {
    throw std::runtime_error("the file is too large for its format: " + std::to_string(input.size()) + " bytes");
  }
  address_ = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, input.fd(), 0);
  if (address_ == MAP_FAILED) {
    throw std::system_error(errno, std::generic_category(), "cannot map the file");
  }
}

Mapping::~Mapping() {
  munmap(address_, size_);
}

}  // namespace extractor
