#include "programs/server/system/Periodic.h"

#include <utility>

namespace tavix::daemon {

namespace {

constexpr unsigned int kStackSize = 128 * 1024;

}  // namespace

Periodic::Periodic(const char* name, std::chrono::milliseconds interval, std::function<void()> work)
    : _interval(interval), _work(std::move(work)), _thread(name, this, kStackSize, 0) {
  _thread.Run();
}

Periodic::~Periodic() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _stop = true;
  }
  _changed.notify_one();
  _thread.Join();
}

void Periodic::Trigger() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _isTriggered = true;
  }
  _changed.notify_one();
}

void Periodic::Run() {
  std::unique_lock<std::mutex> lock(_mutex);
  while (!_stop) {
    _isTriggered = false;
    lock.unlock();
    _work();
    lock.lock();
    _changed.wait_for(lock, _interval, [this] { return _stop || _isTriggered; });
  }
}

}  // namespace tavix::daemon
