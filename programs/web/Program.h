#pragma once

namespace tavix::web {

// Runs the program to its end. Returns its exit status.
int RunProgram(int argc, char** argv);

}  // namespace tavix::web
