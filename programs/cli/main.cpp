#include "programs/cli/Program.h"

int main(int argc, char** argv) {
  return tavix::cli::RunProgram(argc, argv);
}
