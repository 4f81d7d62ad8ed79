// A file system of any name: the kernel's requests answered just far enough for its root folder to be looked at.
#include "tests/system/fuse_double.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

namespace orbisk::test {
namespace {

void Reply(int device, uint64_t request, int error, const void* answer, size_t bytes) {
  fuse_out_header header{};
  header.len = static_cast<uint32_t>(sizeof(header) + bytes);
  header.error = -error;
  header.unique = request;
  const iovec parts[] = {{&header, sizeof(header)}, {const_cast<void*>(answer), bytes}};
  [[maybe_unused]] const ssize_t written = writev(device, parts, 2);  // fails if the asker has given up
}

template <class Answer>
void Reply(int device, uint64_t request, const Answer& answer) {
  Reply(device, request, 0, &answer, sizeof(answer));
}

void Initialise(int device, uint64_t request) {
  fuse_init_out answer{};
  answer.major = FUSE_KERNEL_VERSION;
  answer.minor = FUSE_KERNEL_MINOR_VERSION;
  answer.max_write = 4096;
  Reply(device, request, answer);
}

void TellAttributes(int device, uint64_t request) {
  fuse_attr_out answer{};
  answer.attr.ino = FUSE_ROOT_ID;
  answer.attr.mode = S_IFDIR | 0755;
  answer.attr.nlink = 2;
  Reply(device, request, answer);
}

void Answer(int device, const fuse_in_header& request) {
  switch (request.opcode) {
    case FUSE_INIT:
      return Initialise(device, request.unique);
    case FUSE_GETATTR:
      return TellAttributes(device, request.unique);
    case FUSE_STATFS:
      return Reply(device, request.unique, fuse_statfs_out{});
    case FUSE_FORGET:
    case FUSE_BATCH_FORGET:
      return;  // wants no answer
    default:
      return Reply(device, request.unique, ENOSYS, nullptr, 0);
  }
}

}  // namespace

FuseDouble::FuseDouble(const std::string& path, const std::string& name)
    : path_(path), device_(open("/dev/fuse", O_RDWR | O_CLOEXEC)) {
  const std::string options = "fd=" + std::to_string(device_) + ",rootmode=40000,user_id=0,group_id=0";
  if (device_ < 0 || mount("double", path.c_str(), ("fuse." + name).c_str(), MS_NOSUID | MS_NODEV, options.c_str())) {
    const int error = errno;
    close(device_);
    throw std::system_error(error, std::generic_category(), "mount fuse." + name);
  }
  thread_ = std::thread([this] { Serve(); });
}

FuseDouble::~FuseDouble() {
  umount2(path_.c_str(), MNT_DETACH);  // ends the wait for requests
  thread_.join();
  close(device_);
}

void FuseDouble::Serve() const {
  std::vector<char> buffer(FUSE_MIN_READ_BUFFER + 4096);
  while (true) {
    const ssize_t count = read(device_, buffer.data(), buffer.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN || errno == ENOENT)) {
      continue;  // ENOENT: the asker gave up meanwhile
    }
    if (count < static_cast<ssize_t>(sizeof(fuse_in_header))) {
      return;  // unmounted
    }
    fuse_in_header request;
    memcpy(&request, buffer.data(), sizeof(request));
    Answer(device_, request);
  }
}

}  // namespace orbisk::test
