#include "programs/cli/terminal/CheckProcess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "programs/cli/terminal/InterruptReport.h"
#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

constexpr int kInterrupts[] = {SIGINT, SIGTERM, SIGQUIT, SIGHUP};

// Blocks the end of a child and what interrupts us, as long as it lives, so that they can be waited for.
class AwaitedSignals {
 public:
  AwaitedSignals() : _childHandler(std::signal(SIGCHLD, SIG_DFL)) {  // an ignored child leaves no status
    sigemptyset(&_signals);
    sigaddset(&_signals, SIGCHLD);
    for (const int signal : kInterrupts) {
      if (!IsSignalIgnored(signal)) sigaddset(&_signals, signal);
    }
    sigprocmask(SIG_BLOCK, &_signals, &_before);
  }
  ~AwaitedSignals() {
    sigprocmask(SIG_SETMASK, &_before, nullptr);
    std::signal(SIGCHLD, _childHandler);
  }

  AwaitedSignals(const AwaitedSignals&) = delete;
  AwaitedSignals& operator=(const AwaitedSignals&) = delete;

  // The next one; 0 when none came within the limit.
  int Await(Clock::time_point limit) const {
    while (true) {
      const nanoseconds left = std::max<nanoseconds>(limit - Clock::now(), nanoseconds(0));
      const timespec wait{static_cast<time_t>(left.count() / 1000000000), static_cast<long>(left.count() % 1000000000)};
      const int signal = sigtimedwait(&_signals, nullptr, &wait);
      if (signal > 0) return signal;
      if (errno != EINTR) return 0;
    }
  }

  // For a child.
  void Restore() const { sigprocmask(SIG_SETMASK, &_before, nullptr); }

 private:
  void (*const _childHandler)(int);
  sigset_t _signals{};
  sigset_t _before{};
};

[[noreturn]] void RunInChild(const std::string& command, const std::map<std::string, std::string>& variables,
                             const AwaitedSignals& signals) {
  setpgid(0, 0);
  for (const int signal : kInterrupts) {
    if (!IsSignalIgnored(signal)) std::signal(signal, SIG_DFL);
  }
  std::signal(SIGPIPE, SIG_DFL);
  signals.Restore();
  const int nothing = open("/dev/null", O_RDONLY);
  if (nothing >= 0) dup2(nothing, STDIN_FILENO);
  if (nothing > STDERR_FILENO) close(nothing);
  for (const auto& [name, value] : variables) setenv(name.c_str(), value.c_str(), 1);
  execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
  _exit(127);
}

enum class ChildState { kRuns, kStopped, kEnded };

// It is not reaped yet: its group keeps its number. Stopped is who asked for the terminal: somebody else may go on with
// what he has stopped himself.
ChildState FindState(pid_t child) {
  siginfo_t found{};
  const int result = waitid(P_PID, static_cast<id_t>(child), &found, WEXITED | WSTOPPED | WNOHANG | WNOWAIT);
  if (result != 0 || found.si_pid != child) return ChildState::kRuns;
  if (found.si_code != CLD_STOPPED) return ChildState::kEnded;
  return found.si_status == SIGTTIN || found.si_status == SIGTTOU ? ChildState::kStopped : ChildState::kRuns;
}

int Reap(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// What does not end by itself within a second is killed, and so is what the command has left behind. What is stopped
// has to go on to end.
void End(pid_t child, const AwaitedSignals& signals) {
  constexpr std::chrono::seconds kGrace(1);
  kill(-child, SIGTERM);
  kill(-child, SIGCONT);
  const Clock::time_point limit = Clock::now() + kGrace;
  while (FindState(child) != ChildState::kEnded && signals.Await(limit) != 0) continue;
  kill(-child, SIGKILL);
  Reap(child);
}

// Of one that has not ended.
CheckOutcome::End FindReason(ChildState state, int signal) {
  if (state == ChildState::kStopped) return CheckOutcome::End::kStopped;
  return signal == 0 ? CheckOutcome::End::kTimedOut : CheckOutcome::End::kInterrupted;
}

}  // namespace

CheckOutcome RunCheck(const std::string& command, const std::map<std::string, std::string>& variables,
                      Clock::time_point limit) {
  const AwaitedSignals signals;
  const pid_t child = fork();
  if (child < 0) throw Failure(kExitNotApplied, std::string("failed to start a shell: ") + std::strerror(errno));
  if (child == 0) RunInChild(command, variables, signals);
  setpgid(child, child);  // whoever of the two comes first
  CheckOutcome outcome;
  ChildState state = FindState(child);
  int signal = SIGCHLD;
  for (; state == ChildState::kRuns && signal == SIGCHLD; state = FindState(child)) signal = signals.Await(limit);
  if (state == ChildState::kEnded) {
    outcome.status = Reap(child);
    return outcome;
  }
  outcome.end = FindReason(state, signal);
  outcome.signal = signal == SIGCHLD ? 0 : signal;
  End(child, signals);
  return outcome;
}

}  // namespace tavix::programs::cli
