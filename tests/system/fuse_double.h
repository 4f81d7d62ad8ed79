// A file system of any name, where no real one of its kind can be mounted.
#pragma once

#include <string>
#include <thread>

namespace orbisk::test {

/// An empty folder served through FUSE, as programs like sshfs serve theirs, mounted from construction to destruction.
class FuseDouble {
 public:
  /// Mounts at the existing directory `path`, in the mount table as "fuse.<name>". Only after EnterPrivateMounts.
  /// Throws std::system_error where the machine does not allow it.
  FuseDouble(const std::string& path, const std::string& name);
  ~FuseDouble();
  FuseDouble(const FuseDouble&) = delete;
  FuseDouble& operator=(const FuseDouble&) = delete;

 private:
  void Serve() const;

  std::string path_;
  int device_;
  std::thread thread_;
};

}  // namespace orbisk::test
