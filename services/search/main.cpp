// nimoelasticd: holds the full-text indexes and answers requests for them.
#include "services/search/daemon.h"

int main(int argc, char** argv) {
  return nimoelasticd::RunDaemon(argc, argv);
}
