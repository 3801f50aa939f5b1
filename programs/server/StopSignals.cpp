#include "programs/server/StopSignals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

sigset_t Signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

}  // namespace

void StopSignals::Block() {
  const sigset_t signals = Signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

StopSignals::StopSignals() {
  const sigset_t signals = Signals();
  _descriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (_descriptor < 0) throw osa::Exception("Failed to watch for signals: %s", std::strerror(errno));
}

StopSignals::~StopSignals() {
  close(_descriptor);
}

}  // namespace tavix::daemon
