#include "programs/common/Deadline.h"

#include <utility>

namespace tavix::programs {

Deadline::Deadline(std::chrono::milliseconds limit, std::function<void()> onPassed)
    : _end(std::chrono::steady_clock::now() + limit),
      _onPassed(std::move(onPassed)),
      _thread("Deadline", [this] { Run(); }) {}

Deadline::~Deadline() {
  {
    osa::PlainMutexLock lock(_mutex);
    _isOver = true;
  }
  _wake.notify_one();
  _thread.Join();
}

void Deadline::Run() {
  if (!IsOverInTime()) _onPassed();
}

bool Deadline::IsOverInTime() {
  osa::PlainMutexLock lock(_mutex);
  return lock.WaitUntil(_wake, _end, [this]() TAVIX_REQUIRES(_mutex) { return _isOver; });
}

}  // namespace tavix::programs
