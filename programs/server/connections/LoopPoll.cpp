#include "programs/server/connections/LoopPoll.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr uintptr_t kSourceMark = 1;  // in an event's address; objects have even ones

osa::Descriptor Checked(int descriptor, const char* what) {
  if (descriptor < 0) throw osa::Exception("Failed to make %s: %s", what, std::strerror(errno));
  return osa::Descriptor(descriptor);
}

}  // namespace

LoopPoll::LoopPoll()
    : _wake(Checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "an event descriptor")),
      _poll(Checked(epoll_create1(EPOLL_CLOEXEC), "an epoll descriptor")) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = nullptr;
  if (epoll_ctl(_poll.Get(), EPOLL_CTL_ADD, _wake.Get(), &event) != 0)
    throw osa::Exception("Failed to watch an event descriptor: %s", std::strerror(errno));
}

void LoopPoll::Wake() const noexcept {
  eventfd_write(_wake.Get(), 1);
}

void LoopPoll::TakeCall() const noexcept {
  eventfd_t ignored = 0;
  eventfd_read(_wake.Get(), &ignored);
}

// Kernels before 4.5 ignore the flag and wake all.
bool LoopPoll::Watch(int descriptor, ISource& source) const noexcept {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLEXCLUSIVE;
  event.data.ptr = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(&source) | kSourceMark);
  return epoll_ctl(_poll.Get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

void LoopPoll::Unwatch(int descriptor) const noexcept {
  epoll_event ignored{};
  epoll_ctl(_poll.Get(), EPOLL_CTL_DEL, descriptor, &ignored);
}

size_t LoopPoll::Wait(epoll_event* events, int max, int timeout) {
  _load.EndRound();
  const int count = epoll_wait(_poll.Get(), events, max, timeout);
  if (count < 0 && errno != EINTR) throw osa::Exception("Failed to wait for events: %s", std::strerror(errno));
  _load.BeginRound();
  return count < 0 ? 0 : static_cast<size_t>(count);
}

LoopPoll::ISource* LoopPoll::FindSource(const epoll_event& event) {
  const auto address = reinterpret_cast<uintptr_t>(event.data.ptr);
  return address & kSourceMark ? reinterpret_cast<ISource*>(address - kSourceMark) : nullptr;
}

}  // namespace tavix::daemon
