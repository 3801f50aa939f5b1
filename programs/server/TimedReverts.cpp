#include "programs/server/TimedReverts.h"

#include <sys/eventfd.h>

#include <exception>

namespace tavix::daemon {

TimedReverts::TimedReverts(StoreTrials& trials, SlowLane& lane)
    : _trials(trials), _lane(lane), _done(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

TimedReverts::~TimedReverts() {
  _lane.Withdraw(*this);
}

void TimedReverts::OnDue() {
  _trials.AcknowledgeTimer();
  if (_isQueued.exchange(true)) return;
  try {
    _lane.Add(*this);
  } catch (const std::exception&) {
    _isQueued = false;
    _trials.RetryLater();
  }
}

void TimedReverts::Run(const std::function<bool()>&) noexcept {
  _isQueued = false;  // what becomes due from here on may be missed below
  _trials.RevertDue();
}

}  // namespace tavix::daemon
