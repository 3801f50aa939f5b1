#include "tavix/c/WakeDescriptor.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "tavix/c/CallResult.h"

namespace tavix::c {

namespace {

[[noreturn]] void FailBusy() {
  throw CallFailure(TAVIX_BUSY, std::string("no descriptor can be made for the watch: ") + std::strerror(errno));
}

}  // namespace

WakeDescriptor::WakeDescriptor()
    : _poller(epoll_create1(EPOLL_CLOEXEC)), _timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  if (!_poller || !_timer) FailBusy();
  Add(_timer.Get());
}

void WakeDescriptor::Add(int descriptor) {
  epoll_event event{};
  event.events = EPOLLIN;
  if (epoll_ctl(_poller.Get(), EPOLL_CTL_ADD, descriptor, &event) != 0) FailBusy();
}

// A forked child may still have the old connection open: then closing it here would leave it in the poller.
void WakeDescriptor::Follow(int connection) {
  if (_connection) epoll_ctl(_poller.Get(), EPOLL_CTL_DEL, _connection.Get(), nullptr);
  _connection.Reset();
  if (connection < 0) return;
  _connection.Reset(fcntl(connection, F_DUPFD_CLOEXEC, 0));
  if (!_connection) FailBusy();
  Add(_connection.Get());
}

// The steady clock is CLOCK_MONOTONIC. A time of zero would disarm the timer.
void WakeDescriptor::WakeAt(std::optional<Clock::time_point> moment) {
  if (moment == _moment) return;
  itimerspec time{};
  if (moment) {
    const auto sinceStart = std::max(moment->time_since_epoch(), Clock::duration(1));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceStart);
    time.it_value.tv_sec = static_cast<time_t>(seconds.count());
    time.it_value.tv_nsec = static_cast<long>(std::chrono::nanoseconds(sinceStart - seconds).count());
  }
  timerfd_settime(_timer.Get(), TFD_TIMER_ABSTIME, &time, nullptr);
  _moment = moment;
}

}  // namespace tavix::c
