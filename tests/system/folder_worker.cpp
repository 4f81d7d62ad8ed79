// A management process: adds COUNT folders SHARE_PATH-0, -1, ... one by one, and removes every second of them again.
#include <cstdlib>
#include <iostream>

#include "orbisk/error.h"
#include "orbisk/fileindex/index_mgr.h"
#include "tests/support/json_list.h"

namespace {

using orbisk::test::ListOf;

void Change(const std::string& path, bool is_kept) {
  Json::Value folder;
  folder["path"] = path;
  folder["name"] = path;
  for (const char* const kind : {"document", "audio", "video", "photo"}) {
    folder[kind] = true;
  }
  orbisk::fileindex::FolderAdd(ListOf({folder}), false);
  if (!is_kept) {
    orbisk::fileindex::FolderDelete(ListOf({path}));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    return 2;
  }
  try {
    const int count = std::atoi(argv[2]);
    for (int i = 0; i < count; ++i) {
      Change(std::string(argv[1]) + "-" + std::to_string(i), i % 2 == 0);
    }
  } catch (const orbisk::Error& error) {
    std::cerr << error.code() << " " << error.what() << "\n";
    return 1;
  }
  return 0;
}
