#pragma once

namespace tavix::bridge {

class EngineKind;

// Runs the program to its end. Returns its exit status.
int RunProgram(const EngineKind& kind, int argc, char** argv);

}  // namespace tavix::bridge
