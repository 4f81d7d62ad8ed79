// The desktop sessions of logged-in people.
#include "tools/nimonxmnotify/sessions.h"

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <optional>
#include <system_error>

#include "nimo/user.h"

namespace nimonxmnotify {
namespace {

namespace fs = std::filesystem;

constexpr char kAdministrators[] = "@administrators";
constexpr unsigned kPatienceSeconds = 5;
constexpr int kCannotRun = 127;

std::optional<uid_t> ParseUid(const std::string& text) {
  uid_t uid = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), uid);
  return error == std::errc() && end == text.data() + text.size() ? std::optional<uid_t>(uid) : std::nullopt;
}

bool IsInGroup(const Session& session, const std::string& group_name) {
  const group* const found = getgrnam(group_name.c_str());
  if (found == nullptr) {
    return false;
  }
  const gid_t wanted = found->gr_gid;
  std::vector<gid_t> groups(64);
  int count = static_cast<int>(groups.size());
  while (getgrouplist(session.user.c_str(), session.gid, groups.data(), &count) < 0) {
    groups.resize(std::max(static_cast<size_t>(count), groups.size() * 2));
    count = static_cast<int>(groups.size());
  }
  return std::find(groups.begin(), groups.begin() + count, wanted) != groups.begin() + count;
}

bool IsAddressed(const Session& session, const std::string& recipients) {
  if (recipients == kAdministrators) {
    return NLIBGroupIsAdminGroupMem(session.user.c_str(), 0) == 1;
  }
  return recipients.front() == '@' ? IsInGroup(session, recipients.substr(1)) : session.user == recipients;
}

std::optional<Session> SessionIn(const fs::path& folder) {
  struct stat status {};
  const std::optional<uid_t> uid = ParseUid(folder.filename());
  NIMOUSER* user = nullptr;
  if (!uid || stat((folder / "bus").c_str(), &status) != 0 || !S_ISSOCK(status.st_mode) ||
      NIMOUserGetByUID(*uid, &user) < 0) {
    return std::nullopt;
  }
  Session session{user->szName, user->nUid, user->nGid, folder};
  NIMOUserFree(user);
  return session;
}

// Becomes the account for good and runs the program; in a process of its own. Does not return.
[[noreturn]] void RunAs(const Session& session, const std::string& program, const std::string& title,
                        const std::string& body) {
  // A session that does not answer must not keep the caller, who waits for this program. The alarm outlives exec.
  alarm(kPatienceSeconds);
  if (geteuid() != session.uid &&
      (initgroups(session.user.c_str(), session.gid) != 0 || setgid(session.gid) != 0 || setuid(session.uid) != 0)) {
    _exit(kCannotRun);
  }
  std::string bus = "DBUS_SESSION_BUS_ADDRESS=unix:path=" + session.folder + "/bus";
  std::string runtime = "XDG_RUNTIME_DIR=" + session.folder;
  std::string path = "PATH=/usr/bin:/bin";
  std::string locale = "LC_ALL=C.UTF-8";
  char* const environment[] = {bus.data(), runtime.data(), path.data(), locale.data(), nullptr};
  execle(program.c_str(), "notify-send", "--app-name=fileindex", "--icon=dialog-warning", "--", title.c_str(),
         body.c_str(), nullptr, environment);
  _exit(kCannotRun);
}

}  // namespace

std::vector<Session> SessionsOf(const std::string& recipients, const std::string& folder) {
  std::vector<Session> sessions;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    const std::optional<Session> session = SessionIn(entry->path());
    if (session && IsAddressed(*session, recipients)) {
      sessions.push_back(*session);
    }
  }
  return sessions;
}

void Show(const std::vector<Session>& sessions, const std::string& program, const std::string& title,
          const std::string& body) {
  std::vector<pid_t> children;
  for (const Session& session : sessions) {
    const pid_t child = fork();
    if (child == 0) {
      RunAs(session, program, title, body);
    }
    if (child > 0) {
      children.push_back(child);
    }
  }
  for (const pid_t child : children) {
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
}

}  // namespace nimonxmnotify
