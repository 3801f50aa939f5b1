#pragma once

namespace tavix::programs::cli {

// The whole program. Returns an ExitCode. SIGPIPE ends it as it ends any filter, SIGINT with kExitInterrupted.
int RunProgram(int argc, char** argv);

}  // namespace tavix::programs::cli
