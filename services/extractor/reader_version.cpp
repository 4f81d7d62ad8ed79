// Looks at the files that the program is made of.
#include "services/extractor/reader_version.h"

#include <link.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string_view>

namespace extractor {
namespace {

// FNV-1a: the same in every run, which std::hash does not promise.
class Digest {
 public:
  void Add(std::string_view bytes) {
    for (const char byte : bytes) {
      value_ = (value_ ^ static_cast<unsigned char>(byte)) * 0x100000001B3U;
    }
  }
  std::string Text() const {
    char text[17];
    snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(value_));
    return text;
  }

 private:
  uint64_t value_ = 0xCBF29CE484222325U;
};

// Size and date of the program or of a library. Packages keep the dates of their files, so that they are the same after
// each installation of the same version.
int AddObject(dl_phdr_info* object, size_t, void* digest) {
  const bool is_program = object->dlpi_name == nullptr || *object->dlpi_name == '\0';
  struct stat attributes {};
  if (stat(is_program ? "/proc/self/exe" : object->dlpi_name, &attributes) == 0) {
    static_cast<Digest*>(digest)->Add(std::to_string(attributes.st_size) + " " +
                                      std::to_string(attributes.st_mtim.tv_sec) + "." +
                                      std::to_string(attributes.st_mtim.tv_nsec) + ";");
  }
  return 0;
}

}  // namespace

std::string ReaderVersion(const Options& options) {
  Digest digest;
  dl_iterate_phdr(AddObject, &digest);
  return digest.Text() + " memory " + std::to_string(options.memory_bytes) + " deadline " +
         std::to_string(options.deadline.count()) + " text " + std::to_string(options.text_bytes);
}

}  // namespace extractor
