// "fileindexctl path": what the library thinks of a path.
#include <json/json.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/fileindex/file_type.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/json.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/error_text.h"
#include "tools/fileindexctl/event_text.h"
#include "tools/fileindexctl/output.h"

namespace fileindexctl {
namespace {

using orbisk::fileindex::FileType;
using orbisk::fileindex::PathVerdict;

struct Options {
  std::string path;
  std::vector<std::string> names;
  bool share_path = false;
  bool json = false;
};

struct Rule {
  std::string_view name;  // stable, for programs
  std::string_view text;
};

Rule RuleOf(PathVerdict verdict) {
  switch (verdict) {
    case PathVerdict::kIndexable:
      return {"indexable", "may be indexed"};
    case PathVerdict::kInSnapshot:
      return {"snapshot", "it is in a snapshot"};
    case PathVerdict::kUnknownFileSystem:
      return {"unknown_file_system", "its file system cannot be told; is the path missing?"};
    case PathVerdict::kRemoteFileSystem:
      return {"remote_file_system", "it is on a network file system"};
    case PathVerdict::kImageFileSystem:
      return {"image_file_system", "it is on a mounted disk image"};
    case PathVerdict::kPseudoFileSystem:
      return {"pseudo_file_system", "it is on a file system that the kernel makes up"};
    case PathVerdict::kShareNotIndexable:
      return {"share", "its share is locked by encryption or read-only"};
    case PathVerdict::kInRecycleBin:
      return {"recycle_bin", "it is in a recycle bin"};
    case PathVerdict::kMountPoint:
      return {"mount_point", "another file system is mounted on it"};
    case PathVerdict::kPreservedName:
      return {"preserved_name", "a folder on the way, or the file itself, has a name that is never indexed"};
    case PathVerdict::kUnresolvable:
      return {"unresolvable", "it cannot be resolved; is it missing, or may it not be looked at?"};
    case PathVerdict::kNotRealPath:
      return {"not_real_path",
              "it is not written out plainly: it has a symbolic link, \".\", \"..\", \"//\" or a \"/\" at the end"};
  }
  return {"unknown", "unknown"};
}

// What the rules say; a path that no share holds is refused like others.
Rule RuleFor(const std::string& full_path) {
  try {
    return RuleOf(orbisk::fileindex::JudgeFullPath(full_path));
  } catch (const orbisk::Error& error) {
    if (!IsInNoShare(error)) {
      throw;
    }
    return {"no_share", "it lies in no share"};
  }
}

// Whether the path may be indexed.
bool Check(const Options& options) {
  std::string full_path = options.path;
  if (options.share_path) {
    orbisk::fileindex::GetFullPath(full_path, options.path);
  }
  const Rule rule = RuleFor(full_path);
  const bool indexable = rule.name == RuleOf(PathVerdict::kIndexable).name;
  Output out(STDOUT_FILENO);
  if (options.json) {
    Json::Value answer;
    answer["full_path"] = full_path;
    answer["indexable"] = indexable;
    answer["rule"] = std::string(rule.name);
    answer["text"] = std::string(rule.text);
    out.Write(orbisk::toString(answer) + "\n");
  } else {
    out.Write(OneLine(full_path) +
              (indexable ? ": may be indexed\n" : ": may not be indexed: " + std::string(rule.text) + "\n"));
  }
  out.Flush();
  return indexable;
}

const char* TypeName(FileType type) {
  switch (type) {
    case orbisk::fileindex::FILE_TYPE_DOCUMENT:
      return "document";
    case orbisk::fileindex::FILE_TYPE_AUDIO:
      return "audio";
    case orbisk::fileindex::FILE_TYPE_VIDEO:
      return "video";
    case orbisk::fileindex::FILE_TYPE_PHOTO:
      return "photo";
    case orbisk::fileindex::FILE_TYPE_OTHER:
      break;
  }
  return "other";
}

void ShowTypes(const Options& options) {
  Output out(STDOUT_FILENO);
  for (const std::string& name : options.names) {
    const char* const type = TypeName(orbisk::fileindex::GetFileTypeByFullPath(name));
    if (options.json) {
      Json::Value answer;
      answer["name"] = name;
      answer["type"] = type;
      out.Write(orbisk::toString(answer) + "\n");
    } else {
      out.Write(OneLine(name) + "\t" + type + "\n");
    }
  }
  out.Flush();
}

}  // namespace

void AddPathCommands(CLI::App& app) {
  CLI::App* const group = app.add_subcommand("path", "What the library thinks of a path");
  group->require_subcommand(1);
  const auto options = std::make_shared<Options>();

  CLI::App* const check = group->add_subcommand("check", "Whether a path may be indexed and, if not, why");
  check->add_option("PATH", options->path, "A full path, for example /volume1/photo/2019")->required();
  check->add_flag("--share-path", options->share_path, "PATH begins with the share's name, as in /photo/2019");
  check->add_flag("--json", options->json, "Print one line of JSON");
  check->callback([options] {
    if (!Check(*options)) {
      throw AnswerIsNo();
    }
  });

  CLI::App* const type = group->add_subcommand("type", "The kind of file that a name stands for");
  type->add_option("NAME", options->names, "A name or path; it is not looked at")->required();
  type->add_flag("--json", options->json, "Print one line of JSON for each name");
  type->callback([options] { ShowTypes(*options); });
}

}  // namespace fileindexctl
