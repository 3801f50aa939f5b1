#include "programs/web/service/Wakeup.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "tavix/osa/Exception.h"

namespace tavix::web {

namespace {

int MakeCounter() {
  const int counter = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (counter < 0) throw osa::Exception("Failed to make an event: %s", std::strerror(errno));
  return counter;
}

}  // namespace

Wakeup::Wakeup(const EventBase& base, std::function<void()> onWake)
    : _counter(MakeCounter()), _onWake(std::move(onWake)), _event(base, _counter.Get(), [this] { Take(); }) {}

// A counter that is full wakes as well.
void Wakeup::Wake() const {
  const uint64_t one = 1;
  const ssize_t written = write(_counter.Get(), &one, sizeof one);
  static_cast<void>(written);
}

void Wakeup::Take() const {
  uint64_t count = 0;
  if (read(_counter.Get(), &count, sizeof count) == sizeof count) _onWake();
}

}  // namespace tavix::web
