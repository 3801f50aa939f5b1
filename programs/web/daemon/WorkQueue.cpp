#include "programs/web/daemon/WorkQueue.h"

#include <algorithm>
#include <utility>

namespace tavix::web {

namespace {

constexpr size_t kMaxBatch = 32;

}  // namespace

WorkQueue::WorkQueue(const char* threadName, size_t threads, size_t maxWaiting, std::function<void()> wake,
                     Prepare prepare)
    : _maxWaiting(maxWaiting), _wake(std::move(wake)), _prepare(std::move(prepare)), _running(threads) {
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

// What is begun together still waits, but for the first of it.
size_t WorkQueue::CountWaiting() const {
  size_t count = _waiting.size();
  for (const std::set<Number>& numbers : _running) count += numbers.empty() ? 0 : numbers.size() - 1;
  return count;
}

bool WorkQueue::Add(Number number, Work work, std::optional<Reading> reading) {
  {
    const osa::PlainMutexLock lock(_mutex);
    if (CountWaiting() >= _maxWaiting) return false;
    _waiting.push_back({number, std::move(work), std::move(reading)});
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
  if (RemoveWaiting(number)) return true;
  return std::any_of(_running.begin(), _running.end(),
                     [number](std::set<Number>& numbers) { return numbers.size() > 1 && numbers.erase(number) != 0; });
}

WorkQueue::Cancelled WorkQueue::Cancel(Number number) {
  const osa::PlainMutexLock lock(_mutex);
  if (RemoveWaiting(number)) return Cancelled::kWaiting;
  const bool isRunning = std::any_of(_running.begin(), _running.end(),
                                     [number](std::set<Number>& numbers) { return numbers.erase(number) != 0; });
  return isRunning ? Cancelled::kRunning : Cancelled::kUnknown;
}

std::vector<WorkQueue::Done> WorkQueue::TakeDone() {
  const osa::PlainMutexLock lock(_mutex);
  return std::exchange(_done, {});
}

void WorkQueue::Run(size_t thread) {
  std::vector<Item> batch;
  while (TakeNext(thread, batch)) {
    PrepareAll(thread, batch);
    std::vector<Done> done;
    done.reserve(batch.size());
    for (const Item& item : batch) {
      done.push_back({item.number, item.work(thread)});
      // What takes of the memory of all answers makes room for the next ones.
      if (!done.back().response.shares.empty() && Deliver(thread, done)) _wake();
    }
    batch.clear();
    if (Deliver(thread, done)) _wake();
  }
}

void WorkQueue::PrepareAll(size_t thread, const std::vector<Item>& batch) const {
  if (!_prepare) return;
  std::vector<Reading> readings;
  for (const Item& item : batch) {
    if (item.reading) readings.push_back(*item.reading);
  }
  _prepare(thread, readings);
}

// Whether any of it is wanted.
bool WorkQueue::Deliver(size_t thread, std::vector<Done>& done) {
  const osa::PlainMutexLock lock(_mutex);
  bool isAnyWanted = false;
  for (Done& one : done) {
    if (_running[thread].erase(one.number) == 0) continue;
    _done.push_back(std::move(one));
    isAnyWanted = true;
  }
  done.clear();
  return isAnyWanted;
}

bool WorkQueue::TakeNext(size_t thread, std::vector<Item>& batch) {
  osa::PlainMutexLock lock(_mutex);
  lock.Wait(_changed, [this]() TAVIX_REQUIRES(_mutex) { return _ends || !_waiting.empty(); });
  if (_ends) return false;
  batch.push_back(std::move(_waiting.front()));
  _waiting.pop_front();
  if (batch.front().reading) TakeReadings(batch);
  for (const Item& item : batch) _running[thread].insert(item.number);
  return true;
}

void WorkQueue::TakeReadings(std::vector<Item>& batch) {
  for (auto item = _waiting.begin(); item != _waiting.end() && batch.size() < kMaxBatch;) {
    if (!item->reading) {
      ++item;
      continue;
    }
    batch.push_back(std::move(*item));
    item = _waiting.erase(item);
  }
}

}  // namespace tavix::web
