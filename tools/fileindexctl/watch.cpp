// Looking at the indexing daemon again and again.
#include "tools/fileindexctl/watch.h"

#include <json/json.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <thread>
#include <vector>

#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/json.h"
#include "tools/fileindexctl/daemon_client.h"
#include "tools/fileindexctl/indexed.h"
#include "tools/fileindexctl/output.h"
#include "tools/fileindexctl/progress_text.h"

namespace fileindexctl {
namespace {

constexpr std::chrono::milliseconds kBetweenLooks{250};

bool CanRedraw() {
  const char* const terminal = getenv("TERM");
  return isatty(STDOUT_FILENO) != 0 && terminal != nullptr && std::string(terminal) != "dumb";
}

// A picture on a terminal.
class Picture {
 public:
  void Draw(Output& out, const Json::Value& status) {
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 && size.ws_row > 1;
    // A character in the last column, or a line in the last row, would move what is there already.
    const std::vector<std::string> lines =
        ProgressLines(status, known ? size.ws_col - 1U : 79, known ? size.ws_row - 1U : 23);
    std::string text = drawn_ > 0 ? "\x1b[" + std::to_string(drawn_) + "A" : "";
    for (const std::string& line : lines) {
      text += "\r" + line + "\x1b[K\n";
    }
    out.Write(text + "\x1b[J");
    drawn_ = lines.size();
  }

 private:
  size_t drawn_ = 0;
};

// Lines for a file or a program.
class Lines {
 public:
  explicit Lines(bool json) : json_(json) {}

  void Print(Output& out, const Json::Value& status) {
    for (Json::Value share : status["shares"]) {
      share.removeMember("failures");
      share["paused"] = status["paused"];
      Json::Value told;
      for (const char* const member : {"state", "done", "to_do", "failed", "problem", "paused"}) {
        told[member] = share[member];
      }
      Json::Value& before = before_[share["share"].asString()];
      if (told != before) {
        out.Write((json_ ? orbisk::toString(share) : ProgressLine(share)) + "\n");
        before = told;
      }
    }
  }

 private:
  const bool json_;
  std::map<std::string, Json::Value> before_;
};

Json::Value Look(const std::optional<std::string>& wanted) {
  Json::Value status = AskIndexer("status");
  if (wanted) {
    Json::Value shares(Json::arrayValue);
    for (const Json::Value& share : status["shares"]) {
      if (share["share"].asString() == *wanted) {
        shares.append(share);
      }
    }
    status["shares"] = shares;
  }
  return status;
}

// A share whose folders are all paused has nothing to do; while indexing as a whole is paused, nobody knows.
bool HasNothingToDo(const Json::Value& status) {
  const Json::Value& shares = status["shares"];
  return std::all_of(shares.begin(), shares.end(), [&](const Json::Value& share) {
    const std::string state = share["state"].asString();
    return state == "idle" || state == "deleted" || (state == "paused" && !status["paused"].asBool());
  });
}

bool IsInShare(const std::string& share_path, const std::optional<std::string>& share) {
  return !share || (share_path + "/").compare(0, share->size() + 2, "/" + *share + "/") == 0;
}

// What the daemon does not know of yet waits in the queues, which the folders' status tells. Looked at last, so that
// nothing can slip from the one to the other unseen.
bool IsDone(const Json::Value& status, const std::optional<std::string>& wanted) {
  if (!HasNothingToDo(status)) {
    return false;
  }
  Json::Value additional(Json::arrayValue);
  additional.append("status");
  Json::Value answer;
  orbisk::fileindex::FolderList(answer, 0, ULONG_MAX, "name", "asc", "all", "", additional);
  std::string refused;
  for (const Json::Value& folder : answer["folder"]) {
    const std::string path = folder["path"].asString();
    const std::string text = folder["additional"]["status"]["text"].asString();
    if (IsInShare(path, wanted) && text == "error") {
      refused = path;
    } else if (IsInShare(path, wanted) && text != "finished") {
      return false;
    }
  }
  if (!refused.empty()) {
    throw std::runtime_error("the rest is done, but this cannot be indexed: " + refused);
  }
  return true;
}

}  // namespace

void Watch(const WatchOptions& options) {
  if (options.share) {
    CheckIndexed(*options.share);
  }
  Output out(STDOUT_FILENO);
  const bool redraws = !options.json && CanRedraw();
  Picture picture;
  Lines lines(options.json);
  while (true) {
    const Json::Value status = Look(options.share);
    redraws ? picture.Draw(out, status) : lines.Print(out, status);
    out.Flush();
    if (options.until_done && IsDone(status, options.share)) {
      return;
    }
    std::this_thread::sleep_for(kBetweenLooks);
  }
}

}  // namespace fileindexctl
