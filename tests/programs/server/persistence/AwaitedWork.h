#pragma once

#include "programs/server/persistence/SharedUserLayer.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

// Waits for work as the syncing thread does.
class AwaitedWork {
 public:
  explicit AwaitedWork(daemon::SharedUserLayer& shared) : _shared(shared) { _call.AwaitBlocked(); }
  ~AwaitedWork() { _shared.Stop(); }

  // Whether nobody has woken the thread, but for one that waits on.
  bool IsStillWaiting() const {
    _call.AwaitBlocked();
    return !_call.HasEnded();
  }

  daemon::JournalWork Get() {
    _call.Join();
    return _work;
  }

 private:
  daemon::SharedUserLayer& _shared;
  daemon::JournalWork _work = daemon::JournalWork::kStop;
  BackgroundCall _call{[this] { _work = _shared.AwaitJournalWork(); }};
};

}  // namespace tavix::test
