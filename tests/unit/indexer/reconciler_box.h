// A folder of real files, an index in memory, and what compares them.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "services/indexer/reconciler.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/indexer/fake_index.h"
#include "tests/unit/indexer/tick.h"

namespace fileindexd {

class ReconcilerBox : public testing::Test {
 protected:
  ReconcilerBox() {
    policy_ = Policy(Policy::Folders{{dir_.path(), {}}});
    box_.may_be_indexed = [](const std::string& path) { return path.find("forbidden") == std::string::npos; };
    box_.is_preserved = [](const std::string& name) { return name == ".git"; };
    box_.extractor_answers = [this] { return !index_.extractor_down; };
    box_.interrupted = [this] { return interrupted_; };
    box_.check_online = [this] {
      if (offline_) {
        throw Offline();
      }
    };
  }

  std::string At(const std::string& name) const { return dir_ / name; }
  void Write(const std::string& name, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(At(name)).parent_path());
    orbisk::test::WriteFile(At(name), text);
  }
  // Files are old enough for their stamps to count, and what is written later has other dates.
  void Age() {
    AwaitTick();
    now_ = [] { return std::chrono::system_clock::now() + std::chrono::seconds(1); };
  }

  Reconciler& Fresh() {
    reconciler_ = std::make_unique<Reconciler>(index_, policy_, box_, progress_);
    reconciler_->clock = now_;
    if (hands_ > 0) {
      reconciler_->WorkWith(hands_);
    }
    return *reconciler_;
  }
  void Tree(const std::string& path) { Fresh().Tree(path); }
  void Build() {
    Age();
    Tree(dir_.path());
    index_.calls.clear();
  }

  std::map<std::string, std::string> Texts() const {
    std::map<std::string, std::string> texts;
    for (const auto& [path, document] : index_.documents) {
      texts[path.substr(dir_.path().size())] = document.text;
    }
    return texts;
  }
  std::map<std::string, std::string> DiskTexts() const {
    std::map<std::string, std::string> texts = {{"", ""}};
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_.path())) {
      texts[entry.path().string().substr(dir_.path().size())] =
          entry.is_regular_file() ? orbisk::test::ReadFile(entry.path()) : "";
    }
    return texts;
  }

  orbisk::test::TempDir dir_;
  FakeIndex index_;
  Policy policy_;
  Reconciler::Box box_;
  Progress progress_;
  std::unique_ptr<Reconciler> reconciler_;
  bool interrupted_ = false;
  bool offline_ = false;
  unsigned hands_ = 0;  // of the crew; none has the reconciler work alone
  std::function<std::chrono::system_clock::time_point()> now_ = std::chrono::system_clock::now;
};

}  // namespace fileindexd
