// fileindexctl, the administrator's command.
#include "tools/fileindexctl/program.h"

int main(int argc, char** argv) {
  return fileindexctl::Run(argc, argv);
}
