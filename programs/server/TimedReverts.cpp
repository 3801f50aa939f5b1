#include "programs/server/TimedReverts.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr int kPause = 100;  // milliseconds, when the system can't watch the descriptors

osa::Descriptor CreateEvent() {
  osa::Descriptor event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!event) throw osa::Exception("Failed to create an event for trials: %s", std::strerror(errno));
  return event;
}

}  // namespace

TimedReverts::TimedReverts(StoreTrials& trials)
    : _trials(trials), _wake(CreateEvent()), _thread("TimedReverts", [this] { Run(); }) {}

TimedReverts::~TimedReverts() {
  _isStopping = true;
  const uint64_t one = 1;
  static_cast<void>(write(_wake.Get(), &one, sizeof one));
}

void TimedReverts::Run() {
  while (true) {
    pollfd watched[] = {{_trials.GetDescriptor(), POLLIN, 0}, {_wake.Get(), POLLIN, 0}};
    if (poll(watched, 2, -1) < 0) poll(nullptr, 0, kPause);
    if (_isStopping) return;
    _trials.AcknowledgeTimer();
    _trials.RevertDue();
  }
}

}  // namespace tavix::daemon
