#pragma once

namespace tavix::daemon {

// The whole program: options, listening, loading, serving until SIGTERM or SIGINT. Returns an ExitCode.
int RunProgram(int argc, char** argv);

}  // namespace tavix::daemon
