#include "programs/server/connections/Places.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <cstring>

#include "tavix/osa/Exception.h"

namespace tavix::daemon {

Places::Places(size_t max) : _max(max), _freed(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!_freed) throw osa::Exception("Failed to make an event descriptor: %s", std::strerror(errno));
}

// A place that is freed between the look and the note is seen by the second look. The note stays until a place is
// freed: another thread may wait.
bool Places::Take() {
  for (const bool isAwaited : {false, true}) {
    if (isAwaited) _isAwaited = true;
    for (size_t taken = _taken; taken < _max;) {
      if (_taken.compare_exchange_weak(taken, taken + 1)) return true;
    }
  }
  return false;
}

void Places::Free() {
  --_taken;
  if (_isAwaited.exchange(false)) eventfd_write(_freed.Get(), 1);
}

void Places::Acknowledge() {
  eventfd_t ignored = 0;
  eventfd_read(_freed.Get(), &ignored);
}

}  // namespace tavix::daemon
