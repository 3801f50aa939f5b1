#pragma once

#include <event2/event.h>

#include <chrono>
#include <functional>
#include <memory>

namespace tavix::web {

using Milliseconds = std::chrono::milliseconds;

// The loop of events, and what ends it.
//
// Threads: one.
// Errors:  the constructor throws osa::Exception when the system has no descriptor left.
class EventBase {
 public:
  EventBase();

  event_base* Get() const { return _base.get(); }

  void Run() { event_base_dispatch(_base.get()); }

  // Ends Run behind the callback that runs.
  void End() { event_base_loopbreak(_base.get()); }

 private:
  struct Free {
    void operator()(event_base* base) const { event_base_free(base); }
  };
  std::unique_ptr<event_base, Free> _base;
};

// Calls a function on the loop's thread: when a descriptor can be read, or when a time is over.
//
// Threads: the loop's. A function may destroy the object that calls it.
class LoopEvent {
 public:
  // A timer, which does not run yet.
  LoopEvent(const EventBase& base, std::function<void()> onTime);

  // Watches a descriptor, again and again. It stays open for as long as this lives.
  LoopEvent(const EventBase& base, int descriptor, std::function<void()> onReadable);

  // Starts the timer, or starts it anew.
  void Start(Milliseconds time);
  void Stop();
  bool IsRunning() const;

  LoopEvent(const LoopEvent&) = delete;
  LoopEvent& operator=(const LoopEvent&) = delete;

 private:
  static void Call(int descriptor, short what, void* self);

  struct Free {
    void operator()(event* loopEvent) const { event_free(loopEvent); }
  };
  const std::function<void()> _call;
  std::unique_ptr<event, Free> _event;
};

}  // namespace tavix::web
