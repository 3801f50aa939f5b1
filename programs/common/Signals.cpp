#include "programs/common/Signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "tavix/osa/Exception.h"

namespace tavix::programs {

namespace {

sigset_t Answered() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) sigaddset(&signals, signal);
  return signals;
}

}  // namespace

void Signals::Block() {
  const sigset_t signals = Answered();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

Signals::Signals() {
  const sigset_t signals = Answered();
  _descriptor.Reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!_descriptor) throw osa::Exception("Failed to watch for signals: %s", std::strerror(errno));
}

Signals::Signal Signals::Take() const {
  signalfd_siginfo info{};
  if (read(_descriptor.Get(), &info, sizeof info) != sizeof info) return {};
  return {static_cast<int>(info.ssi_signo), static_cast<pid_t>(info.ssi_pid), info.ssi_uid};
}

}  // namespace tavix::programs
