// A box of the test's own, on which fileindexctl is run as a program: shares on two volumes, the configuration's fixed
// paths, all private to the test program.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {

constexpr char kFoldersFile[] = "/var/packages/Orbisk/etc/fileindex.folders";
constexpr char kStatusFile[] = "/var/packages/Orbisk/etc/fileindex.status";
constexpr char kRegistry[] = "/etc/nimo/shares.json";

/// Runs fileindexctl to its end.
ProcessResult Fileindexctl(const std::vector<std::string>& arguments);

/// The JSON value that `text` is, with nothing behind it. Fails the test if it is none.
Json::Value Parse(const std::string& text);

/// What a command that must succeed silently, or print `output`, gives: exit status 0 and no word on standard error.
testing::AssertionResult Succeeds(const ProcessResult& result, const std::string& output = "");

/// What a command that must fail gives: exit status 1, nothing on standard output, and this one line.
testing::AssertionResult FailsWith(const ProcessResult& result, const std::string& line);

/// What a command that was called in a wrong way gives: exit status 2, nothing on standard output, and this line first.
testing::AssertionResult IsWrongUsage(const ProcessResult& result, const std::string& first_line);

/// Empty at the start of each test: two volumes (file systems of their own), no share, no indexed folder, no status.
class Box : public testing::Test {
 protected:
  static void SetUpTestSuite();
  void SetUp() override;
  void TearDown() override;

  /// Skips the test, if called in SetUp, where the configuration cannot be stored: that is done as root with root's
  /// groups, which an ordinary user's namespace does not allow.
  static void SkipWithoutIdentities();

  /// The path of `name` on one of the volumes.
  std::string OnFirst(const std::string& name) const { return first_ + "/" + name; }
  std::string OnSecond(const std::string& name) const { return second_ + "/" + name; }
  /// Makes the folder `path` with those above it.
  static void MakeFolder(const std::string& path);
  /// Makes the folder and registers it as a share of its last component's name.
  static void AddShare(const std::string& path, const std::vector<std::string>& flags = {});
  /// Where the share's queue lies, with its folder made.
  static std::string QueueOf(const std::string& share);
  /// An entry of the folders file with all kinds wanted.
  static Json::Value Entry(const std::string& path, const std::string& name);
  /// Stores indexed folders; their order is the file's.
  static void WriteFolders(const std::vector<Json::Value>& entries);

 private:
  TempDir dir_;
  std::string first_ = dir_ / "volume1";
  std::string second_ = dir_ / "volume2";
};

}  // namespace orbisk::test
