// The operations, each in a forked process.
#include "tests/system/truth_manager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "orbisk/error.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/status_mgr.h"
#include "tests/support/eventually.h"
#include "tests/support/json_list.h"
#include "tests/support/temp_dir.h"
#include "tests/system/fileindexctl_box.h"

namespace orbisk::test {

namespace fs = std::filesystem;
namespace fi = fileindex;

namespace {

constexpr std::chrono::seconds kLongestOperation{20};
constexpr size_t kLongestStory = 60;
constexpr int kRefused = 3;  // exit statuses
constexpr int kFailed = 4;

Json::Value FolderOf(const std::string& path, bool document) {
  Json::Value folder;
  folder["path"] = path;
  folder["name"] = path;
  for (const char* const kind : {"audio", "video", "photo"}) {
    folder[kind] = true;
  }
  folder["document"] = document;
  return folder;
}

// Nothing was changed: the argument is wrong, or there is no such folder or share any more.
bool IsRefusal(int code) {
  return code == 120 || (code >= 800 && code < 910);
}

// Says on `answer` what failed.
int Run(const std::function<void()>& operation, int answer) {
  const auto say = [answer](const std::string& text) {
    [[maybe_unused]] const ssize_t written = write(answer, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
  };
  try {
    operation();
    return 0;
  } catch (const Error& error) {
    say(std::to_string(error.code()) + " " + error.reason());
    return IsRefusal(error.code()) ? kRefused : kFailed;
  } catch (const std::exception& error) {
    say(error.what());
    return kFailed;
  }
}

std::string ReadAll(int fd) {
  char text[PIPE_BUF];
  const ssize_t length = read(fd, text, sizeof(text));
  return std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
}

}  // namespace

TruthManager::~TruthManager() {
  if (process_ > 0) {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    close(answer_);
  }
}

std::vector<std::string> TruthManager::Roots() const {
  std::vector<std::string> roots;
  for (const std::string& share : shares_) {
    roots.push_back(volume_ + "/" + share);
  }
  return roots;
}

Json::Value TruthManager::Governing(const std::string& path) const {
  const Json::Value folders = Parse(ReadFile(kFoldersFile));
  for (std::string at = path; at.size() > volume_.size(); at.resize(at.rfind('/'))) {
    for (const Json::Value& folder : folders) {
      if (volume_ + folder["path"].asString() == at) {
        return folder;
      }
    }
  }
  return Json::Value();
}

bool TruthManager::IsIndexed(const std::string& share) const {
  const Json::Value folders = Parse(ReadFile(kFoldersFile));
  return std::any_of(folders.begin(), folders.end(), [&share](const Json::Value& folder) {
    return (folder["path"].asString() + "/").compare(0, share.size() + 2, "/" + share + "/") == 0;
  });
}

void TruthManager::Begin(unsigned kind) {
  ++turn_;
  if (process_ > 0 && !HasEnded()) {
    return;
  }
  Finish();
  kind < 6 ? BeginFolder(kind) : BeginShare(kind);
}

void TruthManager::BeginFolder(unsigned kind) {
  const std::string path = AnyFolder();
  const std::string share = AnyShare();
  switch (kind) {
    case 0:
    case 1:
      return Start("add " + path, [path] { fi::FolderAdd(ListOf({FolderOf(path, true)}), false); });
    case 2:
      return Start("set " + path, [path, on = turn_ % 2 == 0] { fi::FolderSet(ListOf({FolderOf(path, on)}), false); });
    case 3:
      return Start("delete " + path, [path] { fi::FolderDelete(ListOf({path})); });
    case 4:
      return Start("reindex " + path, [path] { fi::FolderReindex(ListOf({path})); });
    default:
      return Start("rebuild " + share, [share] { fi::ShareRebuild(share); });
  }
}

void TruthManager::BeginShare(unsigned kind) {
  const std::string share = AnyShare();
  const std::string folder = volume_ + "/" + share;
  switch (kind) {
    case 6:
    case 7:
      if (paused_shares_.erase(share) != 0) {
        return Start("resume " + share, [share] { fi::ShareResume(share); });
      }
      paused_shares_.insert(share);
      return Start("pause " + share, [share] { fi::SharePause(share); });
    case 8:
      paused_volume_ = !paused_volume_;
      return paused_volume_ ? Start("pause volume", [this] { fi::VolumePause(volume_); })
                            : Start("resume volume", [this] { fi::VolumeResume(volume_); });
    case 9:
      paused_ = !paused_;
      return paused_ ? Start("pause", [] { fi::StatusMgr().Pause(0); })
                     : Start("resume", [] { fi::StatusMgr().Resume(); });
    case 10:
      if (paused_volume_) {
        paused_volume_ = false;
        return Start("clear volume", [this] { fi::VolumeClearPaused(volume_); });
      }
      [[fallthrough]];
    case 11:
      return Start("clear " + share, [share, folder] { fi::ShareClearPaused(share, folder); });
    default:
      return Start("delete all of " + share, [share] { fi::FolderDelete(share); });
  }
}

// As an administrator does, with the tool: it goes on where an operation that was killed left off.
void TruthManager::MakeGood(const std::vector<std::string>& command) {
  ProcessResult result;
  const bool done = Eventually(
      [&] {
        result = Fileindexctl(command);
        return result.exit_status == 0;
      },
      std::chrono::minutes(3));
  story_.push_back("made good: " + command[0] + " " + command[1] + " " + command[2] + " " + result.errors);
  EXPECT_TRUE(done) << Story();
}

void TruthManager::Settle() {
  Finish();
  if (paused_ || trouble_) {
    MustSucceed("resume", [] { fi::StatusMgr().Resume(); });
  }
  for (const std::string& share : paused_shares_) {
    if (IsIndexed(share)) {
      MakeGood({"share", "resume", share});
    }
  }
  const bool any_is_indexed =
      std::any_of(shares_.begin(), shares_.end(), [&](const auto& share) { return IsIndexed(share); });
  if (any_is_indexed && (paused_volume_ || trouble_)) {
    MakeGood({"volume", "resume", volume_});
  }
  paused_ = paused_volume_ = trouble_ = false;
  paused_shares_.clear();
  story_.push_back("settled");
  story_.erase(story_.begin(), story_.end() - static_cast<long>(std::min<size_t>(story_.size(), kLongestStory)));
  if (Parse(ReadFile(kFoldersFile)).empty()) {
    MakeGood({"folder", "add", "/" + shares_.front()});
  }
}

void TruthManager::RenameShare(const std::string& name, const std::string& other) {
  for (std::string& share : shares_) {
    if (share != name && share != other) {
      continue;
    }
    if (!IsIndexed(share)) {
      return;
    }
    const std::string from = share;
    const std::string to = from == name ? other : name;
    MustSucceed("pause " + from, [&] { fi::SharePause(from); });
    ASSERT_EQ(Fileindexctl({"share", "unregister", from, "--force"}).exit_status, 0);
    fs::rename(volume_ + "/" + from, volume_ + "/" + to);
    ASSERT_EQ(Fileindexctl({"share", "register", to, volume_ + "/" + to}).exit_status, 0);
    MustSucceed("rename " + from + " to " + to, [&] { fi::ShareRename(from, to); });
    MustSucceed("resume " + to, [&] { fi::ShareResume(to); });
    share = to;
  }
}

std::string TruthManager::Story() const {
  std::string text;
  for (const std::string& line : story_) {
    text += line + "\n";
  }
  return text;
}

std::string TruthManager::Counts() const {
  return std::to_string(done_) + " operations done, " + std::to_string(refused_) + " refused, " +
         std::to_string(failed_) + " failed or ended";
}

void TruthManager::Start(const std::string& name, const Operation& operation) {
  story_.push_back(name);
  int ends[2] = {-1, -1};
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  process_ = fork();
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(Run(operation, ends[1]));
  }
  close(ends[1]);
  answer_ = ends[0];
}

bool TruthManager::HasEnded() const {
  siginfo_t info{};
  return waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != 0;
}

void TruthManager::Finish() {
  if (process_ <= 0) {
    return;
  }
  if (!Eventually([this] { return HasEnded(); }, kLongestOperation)) {
    kill(process_, SIGKILL);
  }
  int status = 0;
  waitpid(process_, &status, 0);
  process_ = -1;
  const std::string reason = ReadAll(answer_);
  close(answer_);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
    ++done_;
  } else if (WIFEXITED(status) && WEXITSTATUS(status) == kRefused) {
    ++refused_;
    story_.back() += ": refused, " + reason;
  } else {
    ++failed_;
    trouble_ = true;
    story_.back() += ": failed, " + (reason.empty() ? "no answer" : reason);
  }
}

bool TruthManager::Succeeds(const std::string& name, const Operation& operation) {
  const unsigned before = done_;
  Start(name, operation);
  Finish();
  return done_ != before;
}

void TruthManager::MustSucceed(const std::string& name, const Operation& operation) {
  EXPECT_TRUE(Succeeds(name, operation)) << Story();
}

const std::string& TruthManager::AnyShare() {
  return shares_[turn_ % shares_.size()];
}

// A share as a whole, or something in it that comes and goes, and is a folder or a file by turns.
std::string TruthManager::AnyFolder() {
  const std::string share = "/" + AnyShare();
  const unsigned which = turn_ / static_cast<unsigned>(shares_.size()) % 4;
  return which < 2 ? share : share + (which == 2 ? "/a" : "/d e");
}

}  // namespace orbisk::test
