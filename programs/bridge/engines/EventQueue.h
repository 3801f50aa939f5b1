#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <optional>

#include "programs/bridge/engines/Engine.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::bridge {

// Hands events from an engine's thread over to the thread that uses the engine. Bounded by number and by bytes, so that
// an engine that receives faster than its events are taken waits instead of filling the memory.
//
// Threads: one pushes, one pops and opens; Close may come from any.
// Errors:  the constructor throws osa::Exception without a free descriptor.
class EventQueue {
 public:
  static constexpr std::size_t kMaxEvents = 1024;
  static constexpr std::size_t kMaxBytes = 16 * 1024 * 1024;  // of keys and values; one event alone may be larger

  EventQueue();

  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  // Takes events from now on.
  void Open() TAVIX_EXCLUDES(_mutex);

  // Drops all events, and takes none any more: a Push that waits returns.
  void Close() TAVIX_EXCLUDES(_mutex);

  // Waits for a place. False: the queue is closed, and the event is dropped.
  bool Push(EngineEvent event) TAVIX_EXCLUDES(_mutex);

  // The next event, if there is one.
  std::optional<EngineEvent> TryPop() TAVIX_EXCLUDES(_mutex);

  // For poll(2): readable while there are events. Nobody but the queue reads from it.
  int GetDescriptor() const { return _signal.Get(); }

  // Events that wait.
  std::size_t GetCount() const TAVIX_EXCLUDES(_mutex);

 private:
  struct Entry {
    EngineEvent event;
    std::size_t size;
  };

  bool HasPlace(std::size_t size) const TAVIX_REQUIRES(_mutex);
  void ShowReadable() TAVIX_REQUIRES(_mutex);
  void ShowEmpty() TAVIX_REQUIRES(_mutex);

  const osa::Descriptor _signal;
  mutable osa::PlainMutex _mutex;
  std::condition_variable _changed;
  std::deque<Entry> _entries TAVIX_GUARDED_BY(_mutex);
  std::size_t _bytes TAVIX_GUARDED_BY(_mutex) = 0;
  bool _isOpen TAVIX_GUARDED_BY(_mutex) = false;
};

}  // namespace tavix::bridge
