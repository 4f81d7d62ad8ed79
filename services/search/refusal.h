// What the daemon answers when it does not do what it was asked.
#pragma once

#include <stdexcept>
#include <string>

namespace nimoelasticd {

/// Codes of the daemon itself. Those of one index's engine (search::ErrorCode) go out beside them.
enum class Code : int {
  kNotReady = 606,   ///< the index is being opened or moved: ask again
  kUpgrading = 607,  ///< the database is brought to this daemon's format: ask again
  kPaused = 608,     ///< until index_resume
  kRepairing = 609,  ///< the index is being rebuilt from its stored documents: ask again
  kMalformedRequest = 1201,
  kUnknownCommand = 1202,
  kBadMember = 1203,  ///< a member of the request is missing, or of the wrong type
  kUnknownIndex = 1204,
  kPathInUse = 1205,       ///< another index has its files there
  kMoveFailed = 1206,      ///< the index is where it was, and works
  kAnswerTooLarge = 1207,  ///< over what one message carries
  kNoSuchAccount = 1208,   ///< whom a question is asked as
  kCannotActAs = 1209,     ///< the daemon may not find out what that account may see
  kBadDocument = 1210,     ///< as search::ErrorCode::kBadDocument
  kIndexExists = 1220,
  kNoDatabase = 1221,  ///< the files are not there; tried anew with each request
  kDamaged = 1222,     ///< and cannot be repaired: delete and create the index
  kStorage = 1224,
  kInternal = 1299,
  kTooManyWaiting = 1400,  ///< come back later
  kTooMuchMemory = 1401,   ///< come back later
};

/// A request that is answered with a code and a message.
class Refusal : public std::runtime_error {
 public:
  Refusal(Code code, const std::string& message) : std::runtime_error(message), code_(code) {}
  Code code() const { return code_; }

 private:
  Code code_;
};

}  // namespace nimoelasticd
