// Runs the whole stack on a box of the test's own.
#include "tests/system/indexer_box.h"

#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <thread>

#include "nimo/daemon_connection.h"
#include "orbisk/comm.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/json.h"
#include "tests/support/private_mounts.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

std::string WithoutEnd(std::string text) {
  text.resize(text.find_last_not_of(" \n") + 1);
  return text;
}

// The monitor answers when its watches stand.
bool MonitorWatches() {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, "/var/run/nimotifyd.sock");
  char byte = 0;
  const bool answers = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                       send(fd, "reload\n", 7, MSG_NOSIGNAL) == 7 && read(fd, &byte, 1) == 1;
  close(fd);
  return answers;
}

void End(std::unique_ptr<Subprocess>& daemon, int signal) {
  if (daemon != nullptr) {
    daemon->Kill(signal);
    daemon->Wait(std::chrono::seconds(30));
    daemon.reset();
  }
}

}  // namespace

bool Indexed::operator==(const Indexed& other) const {
  const bool same = permissions == other.permissions && text == other.text;
  return is_folder == other.is_folder && (same || is_shared || other.is_shared);
}

std::ostream& operator<<(std::ostream& stream, const Indexed& indexed) {
  return stream << (indexed.is_folder ? "folder " : "file ") << indexed.permissions << " \"" << indexed.text << "\"";
}

void IndexerBox::SetUpTestSuite() {
  SearchBox::SetUpTestSuite();
  EnterPrivateMounts({"/var/lib/nimotifyd"});
}

void IndexerBox::SetUp() {
  SearchBox::SetUp();
  fs::remove_all("/var/lib/nimotifyd/queues.d");
  fs::remove("/var/packages/Orbisk/etc/fileindex.roots");
  MountVolume();
  AddIndexedShare(Docs());
  WriteFolders({Entry("/docs", "all")});
  const ProcessResult registered = Fileindexctl({"monitor", "register", QueueOf("docs"), Docs(), "--ignore", "@eaDir"});
  ASSERT_EQ(registered.exit_status, 0) << registered.errors;
  StartMonitor();
}

// So large that the library does not take another failure of a commit for want of room.
void IndexerBox::MountVolume() {
  MountEmptyFileSystem(Volume(), size_t{1} << 30);
}

void IndexerBox::TearDown() {
  End(indexer_, SIGTERM);
  End(monitor_, SIGTERM);
  umount2(Volume().c_str(), MNT_DETACH);
  SearchBox::TearDown();
}

void IndexerBox::StartMonitor() {
  monitor_ = std::make_unique<Subprocess>(std::vector<std::string>{BuiltProgram("nimotifyd")});
  ASSERT_TRUE(Eventually(MonitorWatches, std::chrono::seconds(20)));
}

void IndexerBox::KillMonitor() {
  End(monitor_, SIGKILL);
}

void IndexerBox::StartIndexer(const std::vector<std::string>& arguments) {
  // Into a file: nobody reads a pipe while it runs.
  std::vector<std::string> command = {"/bin/sh",
                                      "-c",
                                      R"(log=$0; exec "$@" 2>>"$log")",
                                      logs_ / "indexer",
                                      BuiltProgram("fileindexd"),
                                      "--log-stderr",
                                      "--retry-limit-ms",
                                      "1000",
                                      "--missing-index-ms",
                                      "300"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  indexer_ = std::make_unique<Subprocess>(command);
  ASSERT_TRUE(Eventually([] { return Command("status")["success"].asBool(); }, std::chrono::seconds(20)));
}

void IndexerBox::StartWithOneFile(const std::vector<std::string>& arguments) {
  WriteFile(Docs("a.txt"), "kingfisher");
  StartIndexer(arguments);
  ASSERT_TRUE(BecomesEqual());
  ASSERT_TRUE(Eventually(IsIdle));
}

void IndexerBox::KillIndexer() {
  End(indexer_, SIGKILL);
}

int IndexerBox::StopIndexer() {
  indexer_->Kill(SIGTERM);
  const ProcessResult result = indexer_->Wait(std::chrono::seconds(30));
  indexer_.reset();
  return result.exit_status;
}

std::string IndexerBox::IndexerLog() const {
  constexpr size_t kBytes = 16'384;
  const std::string log = ReadFile(logs_ / "indexer");
  return log.substr(log.size() - std::min(log.size(), kBytes));
}

int IndexerBox::CountRecords(const std::string& event) const {
  const std::string log = ReadFile(logs_ / "indexer");
  const std::string wanted = "event=" + event + " ";
  int count = 0;
  for (size_t at = log.find(wanted); at != std::string::npos; at = log.find(wanted, at + 1)) {
    ++count;
  }
  return count;
}

Json::Value IndexerBox::Command(const std::string& type, const Json::Value& data) {
  Json::Value command;
  command["type"] = type;
  command["data"] = data;
  nimodaemon::DomainSockConnection connection("/var/run/fileindexd.sock");
  std::string text;
  Json::Value answer;
  if (connection.Connect(5) && connection.Send(toString(command) + '\0') && connection.Recv(text)) {
    fromString(answer, text);
  }
  return answer;
}

Json::Value IndexerBox::StatusOf(const std::string& share) {
  const Json::Value answer = Command("status");
  for (const Json::Value& one : answer["data"]["shares"]) {
    if (one["share"].asString() == share) {
      return one;
    }
  }
  return Json::Value();
}

bool IndexerBox::IsIdle() {
  const Json::Value status = StatusOf();
  return status["state"].asString() == "idle" && status["backlog"] == 0;
}

bool IndexerBox::HasQueued(const std::string& share) {
  std::error_code missing;
  const std::uintmax_t bytes = fs::file_size(QueueOf(share), missing);
  return !missing && bytes > 0;
}

Json::Value IndexerBox::About(const std::string& share) {
  Json::Value data;
  data["share_name"] = share;
  return data;
}

IndexedTree IndexerBox::InIndex(const std::string& share) const {
  Json::Value request;
  request["command"] = "document_get_by_query";
  Json::Value& data = request["data"];
  data["id"] = fileindex::elastic::GetFileIndexID(share);
  data["committed"] = true;
  data["query"]["qsl"]["match_all"] = Json::Value(Json::objectValue);
  for (const char* const field : {"NIMOMDPath", "NIMOMDIsDir", "NIMOMDPrivilege", "NIMOMDTextContent"}) {
    data["load_field"].append(field);
  }
  Json::Value answer;
  IndexedTree tree;
  try {
    SendRequestImpl(answer, request);
  } catch (const Error&) {
    return tree;
  }
  for (const Json::Value& hit : answer["data"]) {
    tree[hit["NIMOMDPath"].asString()] = {hit["NIMOMDIsDir"].asBool(), hit["NIMOMDPrivilege"].asString(),
                                          WithoutEnd(hit["NIMOMDTextContent"].asString())};
  }
  return tree;
}

IndexedTree IndexerBox::OnDisk(const std::string& share) const {
  IndexedTree tree;
  const auto add = [&tree](const std::string& path) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0 || (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode))) {
      return;
    }
    char permissions[8];
    snprintf(permissions, sizeof(permissions), "%04o", info.st_mode & 07777U);
    tree[path] = {S_ISDIR(info.st_mode), permissions, S_ISDIR(info.st_mode) ? "" : WithoutEnd(ReadFile(path))};
  };
  add(OnFirst(share));
  for (const auto& entry : fs::recursive_directory_iterator(OnFirst(share))) {
    add(entry.path());
  }
  return tree;
}

testing::AssertionResult IndexerBox::BecomesEqual(std::chrono::milliseconds limit, const std::string& share) const {
  return BecomesEqualTo([this, &share] { return OnDisk(share); }, limit, share);
}

testing::AssertionResult IndexerBox::BecomesEqualTo(const std::function<IndexedTree()>& wanted,
                                                    std::chrono::milliseconds limit, const std::string& share) const {
  const IndexedTree disk = wanted();
  IndexedTree index;
  if (Eventually([&] { return (index = InIndex(share)) == disk; }, limit)) {
    return testing::AssertionSuccess();
  }
  std::ostringstream text;
  for (const auto& [path, what] : disk) {
    const auto found = index.find(path);
    if (found == index.end()) {
      text << path << ": not in the index, disk " << what << "\n";
    } else if (!(found->second == what)) {
      text << path << ": disk " << what << ", index " << found->second << "\n";
    }
  }
  for (const auto& [path, what] : index) {
    if (disk.count(path) == 0) {
      text << path << ": in the index alone\n";
    }
  }
  return testing::AssertionFailure() << text.str() << toString(Command("status"));
}

}  // namespace orbisk::test
