#include "programs/cli/Program.h"

int main(int argc, char** argv) {
  return tavix::programs::cli::RunProgram(argc, argv);
}
