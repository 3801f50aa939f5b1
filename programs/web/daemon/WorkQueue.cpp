#include "programs/web/daemon/WorkQueue.h"

#include <algorithm>
#include <utility>

namespace tavix::web {

WorkQueue::WorkQueue(const char* threadName, size_t threads, size_t maxWaiting, std::function<void()> wake)
    : _maxWaiting(maxWaiting), _wake(std::move(wake)), _running(threads, 0) {
  for (size_t thread = 0; thread < threads; ++thread)
    _threads.emplace_back(threadName, [this, thread] { Run(thread); });
}

WorkQueue::~WorkQueue() {
  {
    const osa::PlainMutexLock lock(_mutex);
    _ends = true;
    _waiting.clear();
  }
  _changed.notify_all();
  _threads.clear();
}

bool WorkQueue::Add(Number number, Work work) {
  {
    const osa::PlainMutexLock lock(_mutex);
    if (_waiting.size() >= _maxWaiting) return false;
    _waiting.push_back({number, std::move(work)});
  }
  _changed.notify_one();
  return true;
}

bool WorkQueue::RemoveWaiting(Number number) {
  const auto found =
      std::find_if(_waiting.begin(), _waiting.end(), [number](const Item& item) { return item.number == number; });
  if (found == _waiting.end()) return false;
  _waiting.erase(found);
  return true;
}

bool WorkQueue::CancelWaiting(Number number) {
  const osa::PlainMutexLock lock(_mutex);
  return RemoveWaiting(number);
}

WorkQueue::Cancelled WorkQueue::Cancel(Number number) {
  const osa::PlainMutexLock lock(_mutex);
  if (RemoveWaiting(number)) return Cancelled::kWaiting;
  const auto running = std::find(_running.begin(), _running.end(), number);
  if (running == _running.end()) return Cancelled::kUnknown;
  *running = 0;
  return Cancelled::kRunning;
}

std::vector<WorkQueue::Done> WorkQueue::TakeDone() {
  const osa::PlainMutexLock lock(_mutex);
  return std::exchange(_done, {});
}

void WorkQueue::Run(size_t thread) {
  Item item;
  while (TakeNext(thread, item)) {
    Response response = item.work(thread);
    item.work = nullptr;
    bool isWanted = false;
    {
      const osa::PlainMutexLock lock(_mutex);
      isWanted = std::exchange(_running[thread], 0) == item.number;
      if (isWanted) _done.push_back({item.number, std::move(response)});
    }
    if (isWanted) _wake();
  }
}

bool WorkQueue::TakeNext(size_t thread, Item& item) {
  osa::PlainMutexLock lock(_mutex);
  lock.Wait(_changed, [this]() TAVIX_REQUIRES(_mutex) { return _ends || !_waiting.empty(); });
  if (_ends) return false;
  item = std::move(_waiting.front());
  _waiting.pop_front();
  _running[thread] = item.number;
  return true;
}

}  // namespace tavix::web
