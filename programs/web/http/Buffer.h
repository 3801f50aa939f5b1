#pragma once

#include <event2/bufferevent.h>

#include <memory>

#include "programs/web/http/EventBase.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::web {

// A socket with what arrived and what is to leave, as libevent has it.
//
// Threads: the loop's.
struct FreeBuffer {
  void operator()(bufferevent* buffer) const { bufferevent_free(buffer); }
};
using Buffer = std::unique_ptr<bufferevent, FreeBuffer>;

// Of a connection that is not encrypted. Throws std::bad_alloc.
Buffer OpenPlainBuffer(const EventBase& base, osa::Descriptor socket);

}  // namespace tavix::web
