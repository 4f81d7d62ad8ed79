// fileindexd: keeps the indexes of shares current.
#include "services/indexer/daemon.h"

int main(int argc, char** argv) {
  return fileindexd::RunDaemon(argc, argv);
}
