#include "programs/web/http/Buffer.h"

#include <new>

namespace tavix::web {

Buffer OpenPlainBuffer(const EventBase& base, osa::Descriptor socket) {
  Buffer buffer(bufferevent_socket_new(base.Get(), socket.Get(), BEV_OPT_CLOSE_ON_FREE));
  if (!buffer) throw std::bad_alloc();
  socket.Release();
  return buffer;
}

}  // namespace tavix::web
