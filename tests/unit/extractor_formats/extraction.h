// What the tests of the format readers share: files made in memory, and their extraction with every promise checked.
#pragma once

#include <json/json.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "services/extractor/formats/extract.h"

namespace orbisk::test {

/// What came out of one file.
struct Extraction {
  Json::Value document;
  extractor::ExtractResult result;
  std::string error;  // the reason when it failed

  std::string Text() const { return document["NIMOMDTextContent"].asString(); }
  std::string operator[](const char* field) const { return document[field].asString(); }
};

/// Extracts `content` as a file called `name`. Fails the test when a field is outside the vocabulary, has the wrong
/// type, or is not valid UTF-8.
Extraction Extract(std::string_view content, const std::string& name = "", std::size_t text_bytes = 4 << 20);
/// The same for an open file.
Extraction ExtractFrom(int fd, const std::string& name, std::size_t text_bytes = 4 << 20);

/// The content of a checked-in sample.
std::string Sample(const std::string& name);
/// Names of all checked-in samples.
std::vector<std::string> SampleNames();

/// An archive of `format` ("zip", "tar", "7z") with `filter` ("", "gzip", "bzip2", "xz", "zstd") round it.
using Entries = std::vector<std::pair<std::string, std::string>>;
std::string MakeArchive(const std::string& format, const std::string& filter, const Entries& entries);
/// The same bytes compressed alone.
std::string Compress(const std::string& filter, std::string_view content);

/// An anonymous file; closed at destruction.
class MemoryFile {
 public:
  explicit MemoryFile(std::string_view content = "");
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  int fd() const { return fd_; }
  void Append(std::string_view content) const;

 private:
  int fd_;
};

}  // namespace orbisk::test
