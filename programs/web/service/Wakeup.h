#pragma once

#include <functional>

#include "programs/web/http/EventBase.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::web {

// Has a function called on the loop's thread.
//
// Threads: Wake may be called on any; the rest belongs to the loop's.
// Errors:  the constructor throws osa::Exception when the system has no descriptor left.
class Wakeup {
 public:
  Wakeup(const EventBase& base, std::function<void()> onWake);

  // Several calls may become one.
  void Wake() const;

 private:
  void Take() const;

  const osa::Descriptor _counter;
  const std::function<void()> _onWake;
  LoopEvent _event;
};

}  // namespace tavix::web
