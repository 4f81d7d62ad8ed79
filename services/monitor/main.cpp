// nimotifyd: records changes of registered folders in queue files.
#include "services/monitor/daemon.h"

int main(int argc, char** argv) {
  return nimotifyd::RunDaemon(argc, argv);
}
