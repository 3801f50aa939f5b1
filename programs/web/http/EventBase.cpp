#include "programs/web/http/EventBase.h"

#include "tavix/osa/Exception.h"

namespace tavix::web {

EventBase::EventBase() : _base(event_base_new()) {
  if (!_base) throw osa::Exception("Failed to make a loop of events");
}

LoopEvent::LoopEvent(const EventBase& base, std::function<void()> onTime)
    : _call(std::move(onTime)), _event(event_new(base.Get(), -1, 0, Call, this)) {
  if (!_event) throw std::bad_alloc();
}

LoopEvent::LoopEvent(const EventBase& base, int descriptor, std::function<void()> onReadable)
    : _call(std::move(onReadable)), _event(event_new(base.Get(), descriptor, EV_READ | EV_PERSIST, Call, this)) {
  if (!_event || event_add(_event.get(), nullptr) != 0) throw std::bad_alloc();
}

void LoopEvent::Start(Milliseconds time) {
  timeval value{};
  value.tv_sec = static_cast<time_t>(time.count() / 1000);
  value.tv_usec = static_cast<suseconds_t>(time.count() % 1000 * 1000);
  event_add(_event.get(), &value);
}

void LoopEvent::Stop() {
  event_del(_event.get());
}

bool LoopEvent::IsRunning() const {
  return event_pending(_event.get(), EV_TIMEOUT, nullptr) != 0;
}

// A copy: the function may destroy its owner.
void LoopEvent::Call(int, short, void* self) {
  const std::function<void()> call = static_cast<LoopEvent*>(self)->_call;
  call();
}

}  // namespace tavix::web
