// Writing to a descriptor in large pieces.
#include "tools/fileindexctl/output.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace fileindexctl {
namespace {

constexpr size_t kPieceBytes = size_t{256} * 1024;

}  // namespace

void Output::Write(std::string_view text) {
  gathered_ += text;
  if (gathered_.size() >= kPieceBytes) {
    Flush();
  }
}

void Output::Flush() {
  std::string_view rest = gathered_;
  while (!rest.empty()) {
    const ssize_t written = write(descriptor_, rest.data(), rest.size());
    if (written >= 0) {
      rest.remove_prefix(static_cast<size_t>(written));
    } else if (errno == EPIPE) {  // only where SIGPIPE is ignored; it ends us just as quietly elsewhere
      throw ReaderGone();
    } else if (errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "cannot write to standard output");
    }
  }
  gathered_.clear();
}

}  // namespace fileindexctl
