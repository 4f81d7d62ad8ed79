// The desktop sessions of logged-in people.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace nimonxmnotify {

/// One logged-in account with a session bus.
struct Session {
  std::string user;
  uid_t uid;
  gid_t gid;
  std::string folder;  ///< its runtime folder; the bus is the socket "bus" in it
};

/// The sessions of the accounts that `recipients` names: "@administrators" (whoever administers the box), "@" and
/// another group's name, or an account's name. `folder` holds a folder for each logged-in account, named by its number.
/// None where nobody is logged in, the group is unknown or anything cannot be read.
std::vector<Session> SessionsOf(const std::string& recipients, const std::string& folder);

/// Shows a notification in each session by running `program` (notify-send) as its account. Waits until it was shown
/// everywhere, for a few seconds at most. What fails is passed over.
void Show(const std::vector<Session>& sessions, const std::string& program, const std::string& title,
          const std::string& body);

}  // namespace nimonxmnotify
