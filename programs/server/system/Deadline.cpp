#include "programs/server/system/Deadline.h"

#include <utility>

namespace tavix::daemon {

Deadline::Deadline(std::chrono::milliseconds limit, std::function<void()> onPassed)
    : _end(std::chrono::steady_clock::now() + limit),
      _onPassed(std::move(onPassed)),
      _thread("Deadline", [this] { Run(); }) {}

Deadline::~Deadline() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _isOver = true;
  }
  _wake.notify_one();
  _thread.Join();
}

void Deadline::Run() {
  std::unique_lock<std::mutex> lock(_mutex);
  if (_wake.wait_until(lock, _end, [this] { return _isOver; })) return;
  lock.unlock();
  _onPassed();
}

}  // namespace tavix::daemon
