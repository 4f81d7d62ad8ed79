// Attributes from statx(2).
#include "services/extractor/attributes.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "orbisk/fileindex/metadata_names.h"

namespace extractor {
namespace {

namespace names = orbisk::fileindex::elastic;

constexpr uint64_t kBlockBytes = 512;
constexpr mode_t kPermissionBits = 07777;

std::string ParentOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

// As the library finds it when it renames a document: behind the last dot of the name, a leading one included.
std::string ExtensionOf(const std::string& name) {
  const size_t dot = name.rfind('.');
  std::string extension = dot == std::string::npos ? "" : name.substr(dot + 1);
  for (char& c : extension) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return extension;
}

std::string Octal(mode_t mode) {
  char text[16];
  snprintf(text, sizeof(text), "%04o", mode & kPermissionBits);
  return text;
}

}  // namespace

Attributes AttributesOf(int fd) {
  struct statx answer {};
  if (statx(fd, "", AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS | STATX_BTIME, &answer) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot be looked at");
  }
  Attributes attributes;
  attributes.mode = answer.stx_mode;
  attributes.owner = answer.stx_uid;
  attributes.group = answer.stx_gid;
  attributes.size_bytes = answer.stx_size;
  attributes.allocated_bytes = answer.stx_blocks * kBlockBytes;
  attributes.used = answer.stx_atime.tv_sec;
  attributes.modified = answer.stx_mtime.tv_sec;
  attributes.changed = answer.stx_ctime.tv_sec;
  attributes.has_born = (answer.stx_mask & STATX_BTIME) != 0;
  attributes.born = attributes.has_born ? answer.stx_btime.tv_sec : 0;
  attributes.encrypted = (answer.stx_attributes & STATX_ATTR_ENCRYPTED) != 0;
  attributes.inode = answer.stx_ino;
  attributes.modified_ns = answer.stx_mtime.tv_nsec;
  attributes.changed_ns = answer.stx_ctime.tv_nsec;
  return attributes;
}

std::string NameOf(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

void AddAttributes(const Attributes& attributes, const std::string& path, Json::Value& document) {
  const std::string name = NameOf(path);
  const std::string extension = ExtensionOf(name);
  document[names::kMDPath] = path;
  document[names::kMDParent] = ParentOf(path);
  document[names::kMDFSName] = name;
  document[names::kMDDisplayName] = name;
  document[names::kMDExtension] = extension;
  document[names::kMDKind] = extension;
  document[names::kMDFSSize] = static_cast<Json::Int64>(attributes.size_bytes);
  document[names::kMDLogicalSize] = static_cast<Json::Int64>(attributes.size_bytes);
  document[names::kMDPhysicalSize] = static_cast<Json::Int64>(attributes.allocated_bytes);
  document[names::kMDFSContentChangeDate] = Json::Int64{attributes.modified};
  document[names::kMDAttributeChangeDate] = Json::Int64{attributes.changed};
  document[names::kMDLastUsedDate] = Json::Int64{attributes.used};
  if (attributes.has_born) {
    document[names::kMDFSCreationDate] = Json::Int64{attributes.born};
  }
  document[names::kMDOwnerUserID] = std::to_string(attributes.owner);
  document[names::kMDOwnerGroupID] = std::to_string(attributes.group);
  document[names::kMDPrivilege] = Octal(attributes.mode);
  document[names::kMDIsDir] = S_ISDIR(attributes.mode);
  document[names::kMDIsEncrypted] = attributes.encrypted;
}

void AddContentDates(const Attributes& attributes, Json::Value& document) {
  if (!document.isMember(names::kMDContentModificationDate)) {
    document[names::kMDContentModificationDate] = Json::Int64{attributes.modified};
  }
  if (attributes.has_born && !document.isMember(names::kMDContentCreationDate)) {
    document[names::kMDContentCreationDate] = Json::Int64{attributes.born};
  }
}

void AddCutNote(Json::Value& document) {
  const Json::Value own = document[names::kMDCoverage];
  document[names::kMDCoverage] = names::kCoverageOfCutText + (own.isString() ? "\n" + own.asString() : "");
}

}  // namespace extractor
