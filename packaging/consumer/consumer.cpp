// Uses the installed library: folds the queue file that it is given, and catches the library's error.
#include <iostream>
#include <memory>

#include "orbisk/error.h"
#include "orbisk/fileindex/queue_mgr.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    return 2;
  }
  try {
    orbisk::fileindex::OPTree(std::string(argv[1]) + ".missing");
    return 3;
  } catch (const orbisk::Error& error) {
    std::cout << "code=" << error.code() << "\n";
  }
  orbisk::fileindex::QueueMgr queue(argv[1]);
  const int count =
      queue.ProcessOP([](const std::shared_ptr<orbisk::fileindex::OP>& op) { std::cout << op << "\n"; }, false);
  std::cout << "count=" << count << "\n";
  return 0;
}
