// The one door to the format readers: a descriptor goes in, fields of the metadata vocabulary come out.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>

namespace extractor {

/// How one file is read.
struct ExtractOptions {
  /// The file's name without its folder, as bytes. Decides only between formats that the content cannot tell apart.
  std::string name;
  /// Most bytes of NIMOMDTextContent; what is beyond is cut at a character's edge.
  std::size_t text_bytes = std::size_t{4} << 20;
};

/// What a caller wants to know beside the document.
struct ExtractResult {
  /// The media type found by content, for example "application/pdf"; "application/octet-stream" when nothing knows it.
  std::string media_type;
  /// True when NIMOMDTextContent does not hold the whole text: it reached text_bytes or a bound on pages or entries.
  bool cut = false;
};

/// Loads all that the readers ever open by path: the libmagic database, character set converters, the character maps of
/// the PDF library. Also sets LC_CTYPE of the process to C.UTF-8, which several of the libraries below read names with,
/// and its time zone to UTC. Call once before the first ExtractContent and before the sandbox closes; later calls do
/// nothing.
///
/// Throws std::runtime_error when something that every file needs cannot be loaded.
/// Threads: call while the process has only one.
void Prepare();

/// Reads the content behind `fd` and adds what it says to `document`: NIMOMDTextContent, NIMOMDTitle,
/// NIMOMDContentType and so on, only names of the metadata vocabulary, none of the file's attributes. Text is valid
/// UTF-8 without NUL. Numbers are integers, NIMOMDDurationSecond and other fractions are doubles, dates are integers in
/// seconds since 1970, everything else is a string; several authors, keywords and the like are lines of one string.
///
/// `fd` must be a regular file open for reading; it stays the caller's, its file offset is moved. Nothing is opened by
/// path, nothing is written, no process and no thread is started: after Prepare() the calls that reach the kernel are
/// read, pread, lseek, fstat, mmap, munmap, mremap, mprotect, madvise, brk, futex, getrandom and the clocks.
///
/// Content of no known format is no error: the document gets only its NIMOMDContentType.
/// Throws an exception derived from std::exception whose what() is the reason, for people, when the content is broken,
/// exceeds a bound against decompression bombs, or cannot be read. What had been found until then is in `document` all
/// the same and is sound. A file that shrinks while it is mapped ends the process with SIGBUS, and a library that meets
/// its own defect may do so too: run it where that is harmless.
///
/// Memory: a few times text_bytes and what the libraries hold; archives, text, mail, sound and films are streamed, PDF
/// files and pictures are mapped.
/// Threads: one call at a time in a process.
ExtractResult ExtractContent(int fd, const ExtractOptions& options, Json::Value& document);

}  // namespace extractor
