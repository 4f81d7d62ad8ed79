// A box with the search daemon and the extractor running, for tests of the whole chain.
#include "tests/system/search_box.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "orbisk/fileindex/elastic_control.h"
#include "tests/support/private_mounts.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience{60};

void WaitUntilSucceeds(const std::vector<std::string>& arguments) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (Fileindexctl(arguments).exit_status != 0) {
    if (std::chrono::steady_clock::now() > end) {
      throw std::runtime_error("a daemon does not answer: " + Fileindexctl(arguments).errors);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::vector<pid_t> ChildrenOf(pid_t pid) {
  const std::string number = std::to_string(pid);
  std::ifstream file("/proc/" + number + "/task/" + number + "/children");
  return {std::istream_iterator<pid_t>(file), std::istream_iterator<pid_t>()};
}

void End(std::unique_ptr<Subprocess>& daemon, int signal) {
  if (daemon != nullptr) {
    daemon->Kill(signal);
    daemon->Wait(kPatience);
    daemon.reset();
  }
}

}  // namespace

void SearchBox::SetUp() {
  Box::SetUp();
  StartSearchDaemon();
  StartExtractor();
}

void SearchBox::TearDown() {
  End(search_, SIGTERM);
  StopExtractor();
  Box::TearDown();
}

void SearchBox::StartSearchDaemon() {
  search_ = std::make_unique<Subprocess>(
      std::vector<std::string>{BuiltProgram("nimoelasticd"), "--state-dir", state_ / "search"});
  WaitUntilSucceeds({"index", "list"});
}

void SearchBox::KillSearchDaemon() {
  End(search_, SIGKILL);
}

void SearchBox::WaitUntilOpen(const std::string& share) {
  WaitUntilSucceeds({"search", "anything", "--share", share});
}

void SearchBox::StartExtractor() {
  std::vector<std::string> command = {
      extractor_program_.empty() ? BuiltProgram("nimocontentextractd") : extractor_program_, "--state-dir",
      state_ / "extractor"};
  command.insert(command.end(), extractor_arguments_.begin(), extractor_arguments_.end());
  extractor_ = std::make_unique<Subprocess>(command);
  WaitUntilSucceeds({"extract", "/"});
}

void SearchBox::ReplaceExtractor() {
  End(extractor_, SIGKILL);
  StartExtractor();
}

void SearchBox::UseExtractor(const std::string& program, const std::vector<std::string>& arguments) {
  extractor_program_ = program;
  extractor_arguments_ = arguments;
}

bool SearchBox::KillWorker() {
  const std::vector<pid_t> nursery = ChildrenOf(extractor_->pid());
  const std::vector<pid_t> workers = nursery.empty() ? nursery : ChildrenOf(nursery.front());
  return !workers.empty() && kill(workers.front(), SIGKILL) == 0;
}

void SearchBox::StopExtractor() {
  End(extractor_, SIGTERM);
}

void SearchBox::AddIndexedShare(const std::string& path) {
  AddShare(path);
  fileindex::elastic::ShareIndexCreate(fs::path(path).filename());
}

void SearchBox::Index(const std::string& share, const std::string& path, const std::string& content) {
  MakeFolder(fs::path(path).parent_path());
  WriteFile(path, content);
  fileindex::elastic::IndexUpsert(share, path, true);
}

std::vector<std::string> SearchBox::Find(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {"search", "--json"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const ProcessResult result = Fileindexctl(command);
  EXPECT_EQ(result.exit_status, 0) << result.errors;
  const Json::Value answer = Parse(result.output);
  std::vector<std::string> paths;
  for (const Json::Value& hit : answer["hits"]) {
    paths.push_back(hit["path"].asString());
  }
  return paths;
}

void RoomyBox::SetUp() {
  SkipWithoutIdentities();
  if (IsSkipped()) {
    return;
  }
  static const bool covered = (EnterPrivateMounts({"/var/lib/nimotifyd"}), true);
  ASSERT_TRUE(covered);
  fs::remove_all(kRegistrations);
  SearchBox::SetUp();
  MountEmptyFileSystem(roomy_.path(), size_t{512} << 20);
}

}  // namespace orbisk::test
