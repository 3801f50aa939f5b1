#include "programs/server/system/Periodic.h"

#include <utility>

#include "tavix/osa/Time.h"

namespace tavix::daemon {

Periodic::Periodic(const char* name, std::chrono::milliseconds interval, std::function<void()> work)
    : _interval(interval), _work(std::move(work)), _thread(name, [this] { Run(); }) {}

Periodic::~Periodic() {
  {
    osa::PlainMutexLock lock(_mutex);
    _isStopping = true;
  }
  _changed.notify_one();
  _thread.Join();
}

void Periodic::Trigger() {
  {
    osa::PlainMutexLock lock(_mutex);
    _isTriggered = true;
  }
  _changed.notify_one();
}

void Periodic::Run() {
  while (BeginRound()) {
    _work();
    AwaitNextRound();
  }
}

// False when the thread is to end. A trigger that comes from here on is for the next round.
bool Periodic::BeginRound() {
  osa::PlainMutexLock lock(_mutex);
  _isTriggered = false;
  return !_isStopping;
}

void Periodic::AwaitNextRound() {
  osa::PlainMutexLock lock(_mutex);
  const auto isWoken = [this]() TAVIX_REQUIRES(_mutex) { return _isStopping || _isTriggered; };
  (void)lock.WaitUntil(_changed, osa::Deadline::Clock::now() + _interval, isWoken);
}

}  // namespace tavix::daemon
