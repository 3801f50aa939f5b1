#include "programs/web/Program.h"

int main(int argc, char** argv) {
  return tavix::web::RunProgram(argc, argv);
}
