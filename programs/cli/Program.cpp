#include "programs/cli/Program.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Completer.h"
#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

namespace {

// Nothing of ours needs to be cleaned up: files are replaced whole, and a watched line is flushed when it is printed.
extern "C" void ExitAtInterrupt(int) {
  _exit(kExitInterrupted);
}

// A shell that starts a program in the background may have it ignore interrupts.
void HandleInterrupt() {
  if (std::signal(SIGINT, ExitAtInterrupt) == SIG_IGN) std::signal(SIGINT, SIG_IGN);
}

// What is opened later must not take the place of a standard stream that was closed: what is printed would go there.
// Reading and writing fails as before, for the streams are opened the wrong way round.
void FillClosedStreams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (fcntl(stream, F_GETFD) >= 0) continue;
    if (open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY) != stream)
      throw Failure(kExitNotApplied, std::string("failed to open '/dev/null': ") + std::strerror(errno));
  }
}

int Report(const Failure& failure) {
  Console::ReportFailure(failure.what(), failure.GetHint());
  return failure.GetCode();
}

int Run(const std::vector<std::string>& words) {
  CommandLine line;
  if (Completer::IsAsked(words)) return Completer(line).Run(words);
  GlobalOptions options;
  const CommandLine::Action action = line.Parse(words, options);
  Console console(options);
  Context context(options, console);
  const int code = action(context);
  console.Flush();
  return code;
}

}  // namespace

int RunProgram(int argc, char** argv) {
  HandleInterrupt();
  std::signal(SIGPIPE, SIG_DFL);  // the parent process may have it ignored
  try {
    FillClosedStreams();
    return Run({argv + (argc > 0 ? 1 : 0), argv + argc});
  } catch (const Failure& failure) {
    return Report(failure);
  } catch (const std::exception& exception) {
    return Report(Failure(kExitNotApplied, exception.what()));
  }
}

}  // namespace tavix::programs::cli
