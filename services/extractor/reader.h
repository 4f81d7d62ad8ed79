// What a worker does with a file: the place where format readers are put in, and tests put in hostile ones.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>

namespace extractor {

/// Reads contents. Prepare is called once in a process that has one thread and all files; Read then in descendants of
/// it that can open nothing.
class ContentReader {
 public:
  virtual ~ContentReader() = default;

  /// Loads all that Read needs from files. Throws std::exception when that is not possible.
  virtual void Prepare() = 0;

  /// Adds the fields of the content behind `fd`, a regular file called `name`, to `document`, with at most `text_bytes`
  /// of text. True when there was more text. Throws std::bad_alloc when the worker's memory is used up, another
  /// std::exception when the content is broken; what() is the reason.
  virtual bool Read(int fd, const std::string& name, size_t text_bytes, Json::Value& document) = 0;
};

}  // namespace extractor
