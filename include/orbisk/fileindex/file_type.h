// What kind of file a name stands for.
#pragma once

#include <string>

#include "orbisk/export.h"

namespace orbisk::fileindex {

/// The kinds that a folder's switches tell apart.
enum FileType : int {
  FILE_TYPE_DOCUMENT = 0,
  FILE_TYPE_AUDIO = 1,
  FILE_TYPE_VIDEO = 2,
  FILE_TYPE_PHOTO = 3,
  FILE_TYPE_OTHER = 4,  ///< governed by no switch: always wanted
};

/// The kind of the file at `full_path` by the extension of its name alone, in lower case. A name without an extension,
/// or that ends in ".", is a document; an unknown extension is FILE_TYPE_OTHER. The file is not looked at, so a folder
/// called x.mp3 is audio. Allocates nothing. Threads: any.
ORBISK_EXPORT FileType GetFileTypeByFullPath(const std::string& full_path);

}  // namespace orbisk::fileindex
