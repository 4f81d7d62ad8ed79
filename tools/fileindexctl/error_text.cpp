// Failures of the library in words that say what to do.
#include "tools/fileindexctl/error_text.h"

#include <exception>

#include "nimo/share_registry.h"
#include "orbisk/fileindex/folder_mgr.h"

namespace fileindexctl {
namespace {

constexpr int kBadArgument = 120;
constexpr int kShareEnumeration = 121;
constexpr int kPlatform = 502;
constexpr int kIdentity = 503;
constexpr int kNoSuchShare = 800;
constexpr int kFolderIsIndexed = 901;
constexpr int kNoSuchFolder = 902;
constexpr int kPathRefused = 903;

bool IsNoShareForPath(const orbisk::Error& error) {
  return error.code() == kPlatform && error.reason().find("NIMOShareNamePathGet failed") == 0;
}

// Why the registry of shares cannot be read; empty if it can.
std::string RegistryTrouble() {
  try {
    NIMO::SHARE::List();
    return "";
  } catch (const std::exception& error) {
    return error.what();
  }
}

// The share that `error` says is gone, if folders of it are indexed; else empty. Context may stand behind its name.
std::string GoneButIndexed(const orbisk::Error& error) {
  try {
    for (const std::string& share : orbisk::fileindex::FolderMgr().GetIndexedShares()) {
      if ((error.reason() + " (").rfind(share + " (", 0) == 0) {
        return share;
      }
    }
  } catch (const std::exception&) {  // then there is nothing to add
  }
  return "";
}

std::string NoSuchShareText(const orbisk::Error& error) {
  const std::string share = GoneButIndexed(error);
  return share.empty() ? "no such share"
                       : "no such share, though folders of it are indexed; 'fileindexctl share clear-paused " + share +
                             " PATH --force' forgets it";
}

std::string Meaning(const orbisk::Error& error) {
  const bool is_about_shares =
      error.code() == kShareEnumeration || error.code() == kNoSuchShare || IsNoShareForPath(error);
  if (std::string trouble = is_about_shares ? RegistryTrouble() : ""; !trouble.empty()) {
    return trouble;
  }
  if (IsNoShareForPath(error)) {
    return "no share holds this path";
  }
  switch (static_cast<int>(error.code())) {
    case kNoSuchShare:
      return NoSuchShareText(error);
    case kFolderIsIndexed:
      return "this folder is indexed already; 'fileindexctl folder set' changes it";
    case kNoSuchFolder:
      return "no such indexed folder";
    case kPathRefused:
      return "'fileindexctl path check --share-path PATH' says why";
    default:
      return "";
  }
}

// Without a reason comes only what the system log says in full.
std::string ReasonOf(const orbisk::Error& error) {
  if (!error.reason().empty()) {
    return error.reason();
  }
  switch (static_cast<int>(error.code())) {
    case kBadArgument:
      return "not a share path: it does not begin with \"/\"";
    case kIdentity:
      return "cannot act as root";
    default:
      return "see the system log";
  }
}

}  // namespace

std::string ErrorLine(const orbisk::Error& error) {
  const std::string meaning = Meaning(error);
  const std::string start = "error " + std::to_string(error.code()) + ": ";
  if (error.reason().empty()) {
    return start + (meaning.empty() ? ReasonOf(error) : meaning);
  }
  return start + error.reason() + (meaning.empty() ? "" : " (" + meaning + ")");
}

orbisk::Error WithContext(const orbisk::Error& error, const std::string& context) {
  return {error.code(), ReasonOf(error) + " (" + context + ")"};
}

bool IsInNoShare(const orbisk::Error& error) {
  return IsNoShareForPath(error) && RegistryTrouble().empty();
}

}  // namespace fileindexctl
