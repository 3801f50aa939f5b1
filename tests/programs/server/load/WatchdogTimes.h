#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "tests/programs/server/NotifySocket.h"
#include "tests/support/Environment.h"

namespace tavix::test {

// A service manager that watches the daemon which is started next, and takes down how long it goes without a word.
//
// Threads: made while there is no other one, since it sets the environment; it has one of its own.
class WatchdogTimes {
 public:
  // What the daemon may go without, before a service manager would end it.
  static constexpr std::chrono::milliseconds kTimeout{1000};

  WatchdogTimes() : _thread([this] { Listen(); }) {}

  ~WatchdogTimes() {
    _isStopping = true;
    _thread.join();
  }

  WatchdogTimes(const WatchdogTimes&) = delete;
  WatchdogTimes& operator=(const WatchdogTimes&) = delete;

  // In milliseconds; what lasts at the moment counts. From the daemon's readiness to the begin of its end.
  long GetLongestGap() const { return std::max<long>(_longest, _isWatching ? SinceLast() : 0); }

  size_t CountFeeds() const { return _feeds; }

 private:
  using Clock = std::chrono::steady_clock;

  long SinceLast() const {
    const auto since = Clock::now() - Clock::time_point(Clock::duration(_last));
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
  }

  void Listen() {
    while (!_isStopping) {
      const std::optional<std::string> message = _socket.ReceiveFor(20);
      if (!message) continue;
      if (_isWatching) _longest = std::max<long>(_longest, SinceLast());
      _last = Clock::now().time_since_epoch().count();
      if (message->rfind("WATCHDOG=1", 0) == 0) ++_feeds;
      _isWatching = message->rfind("STATUS", 0) != 0 && message->rfind("STOPPING=1", 0) != 0;
    }
  }

  NotifySocket _socket;
  const ScopedEnvironment _notify{"NOTIFY_SOCKET", _socket.GetPath().c_str()};
  const ScopedEnvironment _time{"WATCHDOG_USEC", std::to_string(std::chrono::microseconds(kTimeout).count()).c_str()};
  std::atomic<bool> _isStopping{false};
  std::atomic<bool> _isWatching{false};  // set behind _last
  std::atomic<Clock::rep> _last{0};
  std::atomic<long> _longest{0};
  std::atomic<size_t> _feeds{0};
  std::thread _thread;
};

}  // namespace tavix::test
