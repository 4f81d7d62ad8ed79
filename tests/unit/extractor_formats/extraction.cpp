// Extraction for tests.
#include "tests/unit/extractor_formats/extraction.h"

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "orbisk/fileindex/metadata_names.h"
#include "services/extractor/formats/text_sink.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace names = fileindex::elastic;

bool IsOneOf(const std::string& name, std::initializer_list<const char*> list) {
  return std::find(list.begin(), list.end(), name) != list.end();
}

bool IsIntegerField(const std::string& name) {
  return IsOneOf(name, {names::kMDContentCreationDate, names::kMDContentModificationDate,
                        names::kMDAudioTrackNumber,    names::kMDRecordingYear,
                        names::kMDAudioBitRate,        names::kMDTotalBitRate,
                        names::kMDVideoBitRate,        names::kMDAudioSampleRate,
                        names::kMDAudioChannelCount,   names::kMDISOSpeed,
                        names::kMDResolutionWidthDPI,  names::kMDResolutionHeightDPI,
                        names::kMDNumberOfPages,       names::kMDPageCount,
                        names::kMDWordCount,           names::kMDPixelWidth,
                        names::kMDPixelHeight,         names::kMDPixelCount,
                        names::kMDOrientation,         names::kMDBitsPerSample,
                        names::kMDFlashOnOff,          names::kMDTempo,
                        names::kMDRecodingDate});
}

bool IsFractionField(const std::string& name) {
  return IsOneOf(name, {names::kMDDurationSecond, names::kMDExposureTimeSeconds, names::kMDFNumber,
                        names::kMDFocalLength, names::kMDMaxAperture, names::kMDPageWidth, names::kMDPageHeight});
}

void CheckPromises(const Json::Value& document) {
  for (const std::string& name : document.getMemberNames()) {
    const Json::Value& value = document[name];
    EXPECT_TRUE(std::any_of(std::begin(names::kMetadataNames), std::end(names::kMetadataNames),
                            [&](const char* known) { return name == known; }))
        << name << " is not of the vocabulary";
    if (IsIntegerField(name)) {
      EXPECT_TRUE(value.isInt64()) << name;
    } else if (IsFractionField(name)) {
      EXPECT_EQ(value.type(), Json::realValue) << name;
    } else {
      ASSERT_EQ(value.type(), Json::stringValue) << name;
      const std::string text = value.asString();
      EXPECT_EQ(extractor::ValidUtf8Prefix(text).bytes, text.size()) << name;
      EXPECT_EQ(text.find('\0'), std::string::npos) << name;
      EXPECT_FALSE(text.empty()) << name;
    }
  }
}

void Filter(archive* out, const std::string& filter) {
  if (!filter.empty() && archive_write_add_filter_by_name(out, filter.c_str()) != ARCHIVE_OK) {
    throw std::runtime_error(archive_error_string(out));
  }
}

std::string Write(archive* out, const Entries& entries) {
  std::string bytes;
  archive_write_set_bytes_per_block(out, 0);
  archive_write_open2(
      out, &bytes, nullptr,
      [](archive*, void* target, const void* data, size_t size) -> la_ssize_t {
        static_cast<std::string*>(target)->append(static_cast<const char*>(data), size);
        return static_cast<la_ssize_t>(size);
      },
      nullptr, nullptr);
  for (const auto& [name, content] : entries) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, name.c_str());
    archive_entry_set_size(entry, static_cast<la_int64_t>(content.size()));
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_entry_set_perm(entry, 0644);
    archive_write_header(out, entry);
    archive_write_data(out, content.data(), content.size());
    archive_entry_free(entry);
  }
  archive_write_close(out);
  archive_write_free(out);
  return bytes;
}

}  // namespace

Extraction ExtractFrom(int fd, const std::string& name, std::size_t text_bytes) {
  extractor::Prepare();
  Extraction extraction;
  try {
    extraction.result = extractor::ExtractContent(fd, {name, text_bytes}, extraction.document);
  } catch (const std::exception& error) {
    extraction.error = error.what();
    EXPECT_FALSE(extraction.error.empty());
  }
  CheckPromises(extraction.document);
  EXPECT_LE(extraction.Text().size(), text_bytes);
  return extraction;
}

Extraction Extract(std::string_view content, const std::string& name, std::size_t text_bytes) {
  const MemoryFile file(content);
  return ExtractFrom(file.fd(), name, text_bytes);
}

std::string Sample(const std::string& name) {
  return ReadFile(std::string(SAMPLES_DIR "/") + name);
}

std::vector<std::string> SampleNames() {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(SAMPLES_DIR)) {
    found.push_back(entry.path().filename());
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::string MakeArchive(const std::string& format, const std::string& filter, const Entries& entries) {
  archive* out = archive_write_new();
  if (format == "zip") {
    archive_write_set_format_zip(out);
  } else if (format == "7z") {
    archive_write_set_format_7zip(out);
  } else {
    archive_write_set_format_pax_restricted(out);
  }
  Filter(out, filter);
  return Write(out, entries);
}

std::string Compress(const std::string& filter, std::string_view content) {
  archive* out = archive_write_new();
  archive_write_set_format_raw(out);
  Filter(out, filter);
  return Write(out, {{"data", std::string(content)}});
}

MemoryFile::MemoryFile(std::string_view content) : fd_(memfd_create("sample", MFD_CLOEXEC)) {
  if (fd_ < 0) {
    throw std::runtime_error("memfd_create");
  }
  Append(content);
}

MemoryFile::~MemoryFile() {
  close(fd_);
}

void MemoryFile::Append(std::string_view content) const {
  while (!content.empty()) {
    const ssize_t count = write(fd_, content.data(), content.size());
    if (count <= 0) {
      throw std::runtime_error("write");
    }
    content.remove_prefix(static_cast<std::size_t>(count));
  }
}

}  // namespace orbisk::test
