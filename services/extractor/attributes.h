// What the file system knows of a file, and how the document says it.
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

namespace extractor {

/// One moment of a file's attributes.
struct Attributes {
  mode_t mode = 0;
  uid_t owner = 0;
  gid_t group = 0;
  uint64_t size_bytes = 0;
  uint64_t allocated_bytes = 0;
  int64_t used = 0;      ///< seconds since 1970, as the dates below
  int64_t modified = 0;  ///< the content
  int64_t changed = 0;   ///< the attributes
  int64_t born = 0;
  bool has_born = false;  ///< not every file system keeps it
  bool encrypted = false;

  // What tells one state of one file from every other.
  uint64_t inode = 0;
  uint32_t modified_ns = 0;
  uint32_t changed_ns = 0;
};

/// Asks the kernel about the open file `fd`. Throws std::system_error.
Attributes AttributesOf(int fd);

/// What stands behind the last "/".
std::string NameOf(const std::string& path);

/// Adds the fields that every document has. `path` is what the document is to be known by.
void AddAttributes(const Attributes& attributes, const std::string& path, Json::Value& document);

/// Adds the dates of the content that the content did not tell, from the file's. They are no attributes, because a
/// change of attributes alone must not replace the date that a photo or a letter bears in itself.
void AddContentDates(const Attributes& attributes, Json::Value& document);

/// Says in the document that it has only the beginning of the text: of all the answer, the document alone reaches the
/// index. What the content tells of its coverage follows in the next line.
void AddCutNote(Json::Value& document);

}  // namespace extractor
