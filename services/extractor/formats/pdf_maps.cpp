// Maps in memory, and the fopen(3) that hands them out.
#include "services/extractor/formats/pdf_maps.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>

namespace extractor {
namespace {

namespace fs = std::filesystem;

using Maps = std::unordered_map<std::string, std::string_view>;

// Null until PreparePdfMaps: fopen(3) is called before main too.
Maps* taken_maps = nullptr;

// Mapped until the process ends. Empty when it cannot be had.
std::string_view Take(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat attributes {};
  void* address = MAP_FAILED;
  if (fd >= 0 && fstat(fd, &attributes) == 0 && attributes.st_size > 0) {
    address = mmap(nullptr, static_cast<size_t>(attributes.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
  }
  if (fd >= 0) {
    close(fd);
  }
  return address == MAP_FAILED
             ? std::string_view()
             : std::string_view(static_cast<const char*>(address), static_cast<size_t>(attributes.st_size));
}

FILE* OpenTaken(const std::string& path) {
  const auto found = taken_maps->find(path);
  if (found == taken_maps->end() || found->second.empty()) {
    errno = ENOENT;
    return nullptr;
  }
  // Opened for reading it is never written to.
  return fmemopen(const_cast<char*>(found->second.data()), found->second.size(), "r");
}

}  // namespace

void PreparePdfMaps() {
  if (taken_maps != nullptr) {
    return;
  }
  static Maps maps;
  std::error_code error;
  for (auto entry = fs::recursive_directory_iterator(kPdfMapFolder, error);
       !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    std::error_code ignored;
    if (entry->is_regular_file(ignored)) {
      maps[entry->path()] = Take(entry->path());
    }
  }
  taken_maps = &maps;
}

}  // namespace extractor

// In place of the C library's, for the libraries as well.
extern "C" __attribute__((visibility("default"))) FILE* fopen(const char* path, const char* mode) {
  using Fopen = FILE* (*)(const char*, const char*);
  static const auto kFopen = reinterpret_cast<Fopen>(dlsym(RTLD_NEXT, "fopen"));
  if (extractor::taken_maps != nullptr && std::string_view(path).starts_with(extractor::kPdfMapFolder)) {
    return extractor::OpenTaken(path);
  }
  return kFopen(path, mode);
}
