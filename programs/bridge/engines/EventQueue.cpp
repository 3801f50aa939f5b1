#include "programs/bridge/engines/EventQueue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "tavix/osa/Exception.h"

namespace tavix::bridge {

namespace {

int MakeSignal() {
  const int signal = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (signal < 0) throw osa::Exception("Failed to make a queue of events: %s", std::strerror(errno));
  return signal;
}

std::size_t GetSize(const Item& item) {
  return item.key.size() + (item.bytes ? item.bytes->size() : 0);
}

std::size_t GetSize(const EngineEvent& event) {
  if (const Item* item = std::get_if<Item>(&event)) return GetSize(*item);
  if (const PutDone* done = std::get_if<PutDone>(&event)) return GetSize(done->present);
  return 0;
}

}  // namespace

EventQueue::EventQueue() : _signal(MakeSignal()) {}

void EventQueue::Open() {
  osa::PlainMutexLock lock(_mutex);
  _isOpen = true;
}

void EventQueue::Close() {
  {
    osa::PlainMutexLock lock(_mutex);
    _isOpen = false;
    _entries.clear();
    _bytes = 0;
    ShowEmpty();
  }
  _changed.notify_all();
}

bool EventQueue::Push(EngineEvent event) {
  const std::size_t size = GetSize(event);
  osa::PlainMutexLock lock(_mutex);
  lock.Wait(_changed, [&]() TAVIX_REQUIRES(_mutex) { return !_isOpen || HasPlace(size); });
  if (!_isOpen) return false;
  _entries.push_back({std::move(event), size});
  _bytes += size;
  ShowReadable();
  return true;
}

std::optional<EngineEvent> EventQueue::TryPop() {
  std::optional<EngineEvent> event;
  {
    osa::PlainMutexLock lock(_mutex);
    if (_entries.empty()) return event;
    event = std::move(_entries.front().event);
    _bytes -= _entries.front().size;
    _entries.pop_front();
    if (_entries.empty()) ShowEmpty();
  }
  _changed.notify_all();
  return event;
}

std::size_t EventQueue::GetCount() const {
  osa::PlainMutexLock lock(_mutex);
  return _entries.size();
}

bool EventQueue::HasPlace(std::size_t size) const {
  return _entries.empty() || (_entries.size() < kMaxEvents && _bytes + size <= kMaxBytes);
}

void EventQueue::ShowReadable() {
  const std::uint64_t one = 1;
  // It fails only when the counter is full, and then the descriptor is readable as well.
  [[maybe_unused]] const ssize_t ignored = write(_signal.Get(), &one, sizeof one);
}

void EventQueue::ShowEmpty() {
  std::uint64_t count;
  [[maybe_unused]] const ssize_t ignored = read(_signal.Get(), &count, sizeof count);
}

}  // namespace tavix::bridge
