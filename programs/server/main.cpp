#include "programs/server/Program.h"

int main(int argc, char** argv) {
  return tavix::daemon::RunProgram(argc, argv);
}
