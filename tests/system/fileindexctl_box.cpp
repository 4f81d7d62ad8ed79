// A box of the test's own, on which fileindexctl is run as a program.
#include "tests/system/fileindexctl_box.h"

#include <sys/mount.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

#include "tests/support/private_etc.h"
#include "tests/support/private_mounts.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

testing::AssertionResult Compare(const ProcessResult& result, int status, const std::string& output,
                                 const std::string& errors) {
  if (result.exit_status == status && result.output == output && result.errors == errors) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << "exit status " << result.exit_status << ", output:\n"
                                     << result.output << "errors:\n"
                                     << result.errors << "expected: " << status << ", output:\n"
                                     << output << "errors:\n"
                                     << errors;
}

}  // namespace

ProcessResult Fileindexctl(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {BuiltProgram("fileindexctl")};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return RunProcess(command);
}

Json::Value Parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors << " in " << text;
  return value;
}

testing::AssertionResult Succeeds(const ProcessResult& result, const std::string& output) {
  return Compare(result, 0, output, "");
}

testing::AssertionResult FailsWith(const ProcessResult& result, const std::string& line) {
  return Compare(result, 1, "", line + "\n");
}

testing::AssertionResult IsWrongUsage(const ProcessResult& result, const std::string& first_line) {
  return Compare(result, 2, "", first_line + "\nRun with --help for more information.\n");
}

void Box::SetUpTestSuite() {
  EnterPrivateMounts({"/var/packages/Orbisk/etc", "/var/run", "/tmp"});
  if (!MakePrivateEtc()) {
    throw std::runtime_error("cannot cover /etc");
  }
}

void Box::SetUp() {
  ASSERT_TRUE(MakePrivateEtc());
  fs::remove(kFoldersFile);
  fs::remove(kStatusFile);
  for (const std::string& volume : {first_, second_}) {
    fs::create_directory(volume);
    MountEmptyFileSystem(volume, size_t{16} << 20);
  }
}

void Box::TearDown() {
  for (const std::string& volume : {first_, second_}) {
    umount2(volume.c_str(), MNT_DETACH);
  }
}

void Box::SkipWithoutIdentities() {
  if (ReadFile("/proc/self/setgroups") == "deny\n") {
    GTEST_SKIP() << "a user namespace whose groups cannot be set";
  }
}

void Box::MakeFolder(const std::string& path) {
  fs::create_directories(path);
}

void Box::AddShare(const std::string& path, const std::vector<std::string>& flags) {
  MakeFolder(path);
  std::vector<std::string> command = {"share", "register", fs::path(path).filename(), path};
  command.insert(command.end(), flags.begin(), flags.end());
  ASSERT_TRUE(Succeeds(Fileindexctl(command)));
}

std::string Box::QueueOf(const std::string& share) {
  const std::string queue = Parse(Fileindexctl({"share", "show", share, "--json"}).output)["queue"].asString();
  MakeFolder(fs::path(queue).parent_path());
  return queue;
}

Json::Value Box::Entry(const std::string& path, const std::string& name) {
  Json::Value entry;
  entry["path"] = path;
  entry["name"] = name;
  for (const char* const kind : {"document", "audio", "video", "photo"}) {
    entry[kind] = true;
  }
  return entry;
}

void Box::WriteFolders(const std::vector<Json::Value>& entries) {
  Json::Value folders(Json::arrayValue);
  for (const Json::Value& entry : entries) {
    folders.append(entry);
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  WriteFile(kFoldersFile, Json::writeString(builder, folders));
}

}  // namespace orbisk::test
