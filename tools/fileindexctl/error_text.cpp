// Failures of the library in words that say what to do.
#include "tools/fileindexctl/error_text.h"

#include <exception>

#include "nimo/share_registry.h"

namespace fileindexctl {
namespace {

constexpr int kBadArgument = 120;
constexpr int kShareEnumeration = 121;
constexpr int kPlatform = 502;
constexpr int kIdentity = 503;
constexpr int kNoSuchShare = 800;
constexpr int kNoSuchFolder = 902;

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
      return "no such share";
    case kNoSuchFolder:
      return "no such indexed folder";
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
