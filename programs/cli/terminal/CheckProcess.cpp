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

#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

bool IsIgnored(int signal) {
  struct sigaction action {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

// Blocks the end of a child and what interrupts us, as long as it lives, so that they can be waited for.
class AwaitedSignals {
 public:
  AwaitedSignals() : _childHandler(std::signal(SIGCHLD, SIG_DFL)) {  // an ignored child leaves no status
    sigemptyset(&_signals);
    sigaddset(&_signals, SIGCHLD);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      if (!IsIgnored(signal)) sigaddset(&_signals, signal);
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
  if (!IsIgnored(SIGINT)) std::signal(SIGINT, SIG_DFL);
  signals.Restore();
  const int nothing = open("/dev/null", O_RDONLY);
  if (nothing >= 0) dup2(nothing, STDIN_FILENO);
  if (nothing > STDERR_FILENO) close(nothing);
  for (const auto& [name, value] : variables) setenv(name.c_str(), value.c_str(), 1);
  execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
  _exit(127);
}

// It is not reaped yet: its group keeps its number.
bool HasEnded(pid_t child) {
  siginfo_t ended{};
  return waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid == child;
}

int Reap(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// What does not end by itself within a second is killed, and so is what the command has left behind.
void End(pid_t child, const AwaitedSignals& signals) {
  constexpr std::chrono::seconds kGrace(1);
  kill(-child, SIGTERM);
  const Clock::time_point limit = Clock::now() + kGrace;
  while (!HasEnded(child) && signals.Await(limit) != 0) continue;
  kill(-child, SIGKILL);
  Reap(child);
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
  while (!HasEnded(child)) {
    const int signal = signals.Await(limit);
    if (signal == SIGCHLD) continue;
    outcome.end = signal == 0 ? CheckOutcome::End::kTimedOut : CheckOutcome::End::kInterrupted;
    outcome.signal = signal;
    End(child, signals);
    return outcome;
  }
  outcome.status = Reap(child);
  return outcome;
}

}  // namespace tavix::programs::cli
