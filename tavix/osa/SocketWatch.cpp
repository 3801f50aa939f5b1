#include "tavix/osa/SocketWatch.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>

namespace tavix::osa {

SocketWatch::SocketWatch(int socket)
    : _socket(socket),
      _watch(epoll_create1(EPOLL_CLOEXEC)),
      _waker(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      _isInOrder(Control(EPOLL_CTL_ADD, _waker.Get(), EPOLLIN) && Control(EPOLL_CTL_ADD, socket, EPOLLIN)) {}

SocketWatch::~SocketWatch() = default;

// To change a socket that was added takes no memory, and can't fail.
bool SocketWatch::Control(int operation, int descriptor, uint32_t events) noexcept {
  epoll_event event{};
  event.events = events;
  event.data.fd = descriptor;
  return epoll_ctl(_watch.Get(), operation, descriptor, &event) == 0;
}

// A peer that ends its side alone is no EPOLLHUP, which comes unasked.
void SocketWatch::Pause() noexcept {
  Control(EPOLL_CTL_MOD, _socket, EPOLLRDHUP);
}

void SocketWatch::Resume() noexcept {
  Control(EPOLL_CTL_MOD, _socket, EPOLLIN);
}

void SocketWatch::Wake() noexcept {
  eventfd_write(_waker.Get(), 1);
}

// Without a watch, which somebody else must have closed, a read finds out how the socket is.
bool SocketWatch::Await() noexcept {
  epoll_event event{};
  int count = 0;
  do {
    count = epoll_wait(_watch.Get(), &event, 1, -1);
  } while (count < 0 && errno == EINTR);
  if (count < 0 || event.data.fd == _socket) return true;
  eventfd_t wakes = 0;
  eventfd_read(_waker.Get(), &wakes);
  return false;
}

}  // namespace tavix::osa
